// Helpers shared by the core tests.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <string_view>

namespace korvel::testing_support {

// Readable, unique test names from a case's own text.
template <typename Case, typename Field>
std::string caseName(const ::testing::TestParamInfo<Case>& info, Field field) {
    std::string name;
    for (char c : std::string_view(info.param.*field)) {
        if (std::isalnum(static_cast<unsigned char>(c))) name += c;
        else if (name.empty() || name.back() != '_') name += '_';
        if (name.size() >= 40) break;
    }
    return name + "_" + std::to_string(info.index);
}

}  // namespace korvel::testing_support
