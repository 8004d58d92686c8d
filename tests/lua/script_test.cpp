// Runs every tests/lua/scripts/**/*.lua and compares its output with the "-- expect: <line>"
// comments in order, or its failure with "-- expect error: <text>" (a substring of the message).
#include "lua_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace korvel::lua::testing {
namespace {

namespace fs = std::filesystem;

struct ScriptExpectation {
    std::vector<std::string> lines;
    std::string error;
    bool expectsError = false;
};

ScriptExpectation readExpectations(const std::string& source) {
    ScriptExpectation expectation;
    std::istringstream stream(source);
    std::string line;
    const std::string outputMarker = "-- expect: ";
    const std::string errorMarker = "-- expect error: ";
    while (std::getline(stream, line)) {
        if (std::size_t at = line.find(outputMarker); at != std::string::npos) {
            expectation.lines.push_back(line.substr(at + outputMarker.size()));
        } else if (std::size_t errorAt = line.find(errorMarker); errorAt != std::string::npos) {
            expectation.expectsError = true;
            expectation.error = line.substr(errorAt + errorMarker.size());
        }
    }
    return expectation;
}

std::vector<std::string> scriptFiles() {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(KORVEL_LUA_SCRIPT_DIR)) {
        if (entry.is_regular_file() && entry.path().extension() == ".lua") files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

class Script : public ::testing::TestWithParam<std::string> {};

TEST_P(Script, PrintsItsExpectations) {
    std::ifstream file(GetParam(), std::ios::binary);
    ASSERT_TRUE(file) << GetParam();
    std::stringstream contents;
    contents << file.rdbuf();
    std::string source = contents.str();
    ScriptExpectation expectation = readExpectations(source);
    ASSERT_TRUE(!expectation.lines.empty() || expectation.expectsError) << GetParam() << " has no expectations";

    LuaVM vm;
    vm.setStepBudget(200000000);
    ScriptRun run = runCaptured(vm, source, fs::path(GetParam()).filename().string());
    std::vector<std::string> printed;
    std::istringstream output(run.output);
    for (std::string line; std::getline(output, line);) printed.push_back(line);

    EXPECT_EQ(printed, expectation.lines) << GetParam();
    if (expectation.expectsError) {
        EXPECT_FALSE(run.success) << GetParam();
        EXPECT_NE(run.error.find(expectation.error), std::string::npos) << GetParam() << ": got " << run.error;
    } else {
        EXPECT_TRUE(run.success) << GetParam() << ": " << run.error;
    }
}

std::string scriptName(const ::testing::TestParamInfo<std::string>& info) {
    std::string name = fs::relative(info.param, KORVEL_LUA_SCRIPT_DIR).replace_extension().string();
    std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Scripts, Script, ::testing::ValuesIn(scriptFiles()), scriptName);

} // namespace
} // namespace korvel::lua::testing
