// Runs every .ks file under tests/core/scripts/ and checks it against the expectations written
// in its own comments:
//   print(x) @@ expect: 42          -- each "expect:" is the next line of standard output
//   @@ expect error: Division by zero -- the run fails with exactly this message
//   @@ posix only: uses cat          -- skipped on Windows, for the reason given
// A file without an expected error must run cleanly; its output must match line for line.
// Files run as script files (relative paths start at their directory) and find a fresh,
// private directory for scratch files in TEST_TEMP_DIR (with a trailing slash).
#include "core/korvel_script.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

namespace {

namespace fs = std::filesystem;

struct Expectations {
    std::vector<std::string> output;
    std::string error;
    bool expectsError = false;
    std::string posixOnly;  // why the script cannot run on Windows; empty when it can
};

Expectations readExpectations(const std::string& source) {
    Expectations e;
    std::istringstream lines(source);
    std::string line;
    const std::string outputMark = "@@ expect: ";
    const std::string errorMark = "@@ expect error: ";
    const std::string posixMark = "@@ posix only: ";
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (auto at = line.find(posixMark); at != std::string::npos) {
            e.posixOnly = line.substr(at + posixMark.size());
        } else if (auto at = line.find(errorMark); at != std::string::npos) {
            e.expectsError = true;
            e.error = line.substr(at + errorMark.size());
        } else if (auto at2 = line.find(outputMark); at2 != std::string::npos) {
            e.output.push_back(line.substr(at2 + outputMark.size()));
        }
    }
    return e;
}

std::vector<std::string> scriptFiles() {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(KORVEL_SCRIPT_TEST_DIR))
        if (entry.is_regular_file() && entry.path().extension() == ".ks") files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

class ScriptFile : public ::testing::TestWithParam<std::string> {};

TEST_P(ScriptFile, MatchesItsExpectations) {
    std::ifstream file(GetParam(), std::ios::binary);
    ASSERT_TRUE(file) << GetParam();
    std::stringstream buffer;
    buffer << file.rdbuf();
    Expectations expected = readExpectations(buffer.str());
    ASSERT_TRUE(expected.expectsError || !expected.output.empty()) << "no expectations in " << GetParam();
#if defined(_WIN32)
    if (!expected.posixOnly.empty()) GTEST_SKIP() << "POSIX only: " << expected.posixOnly;
#endif

    // Unique also across builds whose tests run at the same time.
    std::string unique = std::to_string(std::random_device{}()) + "_" +
                         ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::replace(unique.begin(), unique.end(), '/', '_');
    fs::path scratch = fs::temp_directory_path() / ("korvel_script_" + unique);
    fs::create_directories(scratch);
    korvel::KorvelScript script;
    std::string output;
    script.setOutput([&](std::string_view text) { output += text; });
    script.pushVariable("TEST_TEMP_DIR", korvel::Variable(scratch.generic_string() + "/"));
    korvel::RunResult result = script.runFile(GetParam());
    fs::remove_all(scratch);

    std::vector<std::string> lines;
    std::istringstream produced(output);
    for (std::string line; std::getline(produced, line);) lines.push_back(line);
    EXPECT_EQ(lines, expected.output) << GetParam();
    if (expected.expectsError) {
        EXPECT_FALSE(result.ok) << GetParam();
        EXPECT_EQ(result.errorMessage, expected.error) << GetParam() << "\n" << result.errorReport;
    } else {
        EXPECT_TRUE(result.ok) << GetParam() << "\n" << result.errorReport;
    }
}

// The same script from a bytecode image, made by one interpreter and run by a fresh one, prints
// the same and fails with the same report.
TEST_P(ScriptFile, RunsTheSameFromItsBytecodeImage) {
    std::ifstream file(GetParam(), std::ios::binary);
    ASSERT_TRUE(file) << GetParam();
    std::stringstream buffer;
    buffer << file.rdbuf();
    std::string name = fs::path(GetParam()).filename().string();

    korvel::KorvelScript fromSource;
    std::string sourceOutput;
    fromSource.setOutput([&](std::string_view text) { sourceOutput += text; });
    korvel::RunResult expected = fromSource.runScript(buffer.str(), name);

    std::vector<std::uint8_t> image;
    {
        korvel::KorvelScript compiler;
        try {
            image = compiler.serialiseBytecode(buffer.str(), name);
        } catch (const korvel::ScriptError& error) {
            // Only source that does not parse has no image; its report is the source run's.
            EXPECT_FALSE(expected.ok) << GetParam();
            EXPECT_EQ(error.report(), expected.errorReport) << GetParam();
            return;
        }
    }
    korvel::KorvelScript fromImage;
    std::string imageOutput;
    fromImage.setOutput([&](std::string_view text) { imageOutput += text; });
    korvel::RunResult result = fromImage.runBytecode(fromImage.deserialiseBytecode(image));
    EXPECT_EQ(imageOutput, sourceOutput) << GetParam();
    EXPECT_EQ(result.ok, expected.ok) << GetParam();
    EXPECT_EQ(result.errorMessage, expected.errorMessage) << GetParam();
    EXPECT_EQ(result.errorReport, expected.errorReport) << GetParam();
}

std::string testName(const ::testing::TestParamInfo<std::string>& info) {
    std::string relative = fs::relative(info.param, KORVEL_SCRIPT_TEST_DIR).replace_extension().string();
    for (char& c : relative)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return relative;
}

INSTANTIATE_TEST_SUITE_P(Scripts, ScriptFile, ::testing::ValuesIn(scriptFiles()), testName);

}  // namespace
