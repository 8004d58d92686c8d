// The platform-free rules behind every host query: the capacity rule, the architecture table,
// trimming and the small text transformations. Pure functions, so these run everywhere.
#include "platform/host_platform_internal.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace korvel::platform;

struct CopyCase {
    const char* name;
    const char* text;
    std::size_t capacity;
    int expectedResult;
    const char* expectedBuffer;  // null: the buffer must be left alone
};

class CopyTextRule : public ::testing::TestWithParam<CopyCase> {};

TEST_P(CopyTextRule, FitsWithTerminatorOrLeavesAnEmptyBuffer) {
    const CopyCase& c = GetParam();
    std::vector<char> buffer(16, 'x');
    int result = copyText(c.text, buffer.data(), c.capacity);
    EXPECT_EQ(result, c.expectedResult);
    if (c.expectedBuffer) EXPECT_STREQ(buffer.data(), c.expectedBuffer);
    else EXPECT_EQ(buffer[0], 'x') << "a zero capacity must not touch the buffer";
    // Nothing is written past the capacity.
    for (std::size_t i = c.capacity; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 'x') << "byte " << i;
}

INSTANTIATE_TEST_SUITE_P(
    Capacities, CopyTextRule,
    ::testing::Values(CopyCase{"ZeroCapacity", "abc", 0, 0, nullptr}, CopyCase{"ExactlyFitting", "abc", 4, 1, "abc"},
                      CopyCase{"OneShort", "abc", 3, 0, ""}, CopyCase{"Roomy", "abc", 10, 1, "abc"},
                      CopyCase{"EmptyTextInOneByte", "", 1, 1, ""}, CopyCase{"OneByteTooSmall", "a", 1, 0, ""}),
    [](const ::testing::TestParamInfo<CopyCase>& info) { return std::string(info.param.name); });

TEST(CopyText, NullBufferGivesZero) {
    EXPECT_EQ(copyText("abc", nullptr, 10), 0);
    EXPECT_EQ(noText(nullptr, 10), 0);
}

TEST(CopyText, NoTextZeroesTheFirstByteOnly) {
    char buffer[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(noText(buffer, sizeof buffer), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'b');
    EXPECT_EQ(noText(buffer + 1, 0), 0);
    EXPECT_EQ(buffer[1], 'b');
}

TEST(UnknownVersion, NeedsEightBytes) {
    char buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), 'x');
    EXPECT_EQ(copyUnknownVersion(buffer, 7), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(copyUnknownVersion(buffer, 8), 1);
    EXPECT_STREQ(buffer, "Unknown");
}

TEST(ArchitectureTable, NamesTheFourKnownCodesAndNothingElse) {
    std::vector<std::string> names;
    for (unsigned code = 0; code <= 14; ++code) names.push_back(architectureName(code));
    std::vector<std::string> expected = {"x86",     "Unknown", "Unknown", "Unknown", "Unknown",
                                         "arm",     "Unknown", "Unknown", "Unknown", "x86_64",
                                         "Unknown", "Unknown", "arm64",   "Unknown", "Unknown"};
    EXPECT_EQ(names, expected);
    EXPECT_STREQ(architectureName(kArchitectureUnknown), "Unknown");
    EXPECT_STREQ(architectureName(~0u), "Unknown");
}

TEST(ArchitectureTable, MapsUnameMachineNames) {
    struct Case {
        const char* machine;
        const char* name;
    };
    for (Case c : {Case{"x86_64", "x86_64"}, Case{"amd64", "x86_64"}, Case{"i386", "x86"}, Case{"i686", "x86"},
                   Case{"i786", "Unknown"}, Case{"armv7l", "arm"}, Case{"armv6l", "arm"}, Case{"aarch64", "arm64"},
                   Case{"arm64", "arm64"}, Case{"aarch64_be", "arm64"}, Case{"riscv64", "Unknown"},
                   Case{"ppc64le", "Unknown"}, Case{"", "Unknown"}})
        EXPECT_STREQ(architectureName(architectureCodeForMachine(c.machine)), c.name) << c.machine;
}

TEST(Trimmed, RemovesWhiteSpaceAtBothEndsOnly) {
    EXPECT_EQ(trimmed("   Intel(R) Core(TM) i7  "), "Intel(R) Core(TM) i7");
    EXPECT_EQ(trimmed("\t\r\n\v\fx y\n"), "x y");
    EXPECT_EQ(trimmed("   "), "");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed("a"), "a");
}

TEST(PathText, BackSlashesBecomeSlashes) {
    EXPECT_EQ(forwardSlashes("C:\\users\\me\\Temp\\"), "C:/users/me/Temp/");
    EXPECT_EQ(forwardSlashes("/tmp/"), "/tmp/");
}

TEST(PathText, TemporaryDirectoryFromTmpdir) {
    EXPECT_EQ(temporaryDirectoryFor(nullptr), "/tmp/");
    EXPECT_EQ(temporaryDirectoryFor(""), "/tmp/");
    EXPECT_EQ(temporaryDirectoryFor("/var/tmp"), "/var/tmp/");
    EXPECT_EQ(temporaryDirectoryFor("/var/tmp/"), "/var/tmp/");
}

TEST(PathText, DirectoryKeepsItsLastSeparator) {
    EXPECT_EQ(directoryWithSeparator("/opt/game/bin/Quillfen"), "/opt/game/bin/");
    EXPECT_EQ(directoryWithSeparator("C:\\Games\\Quillfen.exe"), "C:\\Games\\");
    EXPECT_EQ(directoryWithSeparator("C:/a\\b/c.exe"), "C:/a\\b/");
    EXPECT_EQ(directoryWithSeparator("Quillfen.exe"), "");
    EXPECT_EQ(directoryWithSeparator(""), "");
}

TEST(Cpuinfo, ModelNameFirstTrimmed) {
    std::string x86 = "processor\t: 0\nvendor_id\t: GenuineIntel\nmodel name\t:   Intel(R) Xeon(R) CPU @ 2.20GHz  \n"
                      "processor\t: 1\nmodel name\t: other\n";
    EXPECT_EQ(processorNameFromCpuinfo(x86), "Intel(R) Xeon(R) CPU @ 2.20GHz");
}

TEST(Cpuinfo, FallsBackForMachinesWithoutModelName) {
    EXPECT_EQ(processorNameFromCpuinfo("processor : 0\nHardware : BCM2835\n"), "BCM2835");
    EXPECT_EQ(processorNameFromCpuinfo("Processor\t: AArch64 Processor rev 4 (aarch64)\nprocessor\t: 0\n"),
              "AArch64 Processor rev 4 (aarch64)");
    EXPECT_EQ(processorNameFromCpuinfo("system type : X\ncpu model : MIPS 24Kc V7.4\n"), "MIPS 24Kc V7.4");
    // An empty "model name" does not hide a later fallback.
    EXPECT_EQ(processorNameFromCpuinfo("model name\t:   \nHardware : Board\n"), "Board");
}

TEST(Cpuinfo, NothingUsableGivesEmpty) {
    EXPECT_EQ(processorNameFromCpuinfo(""), "");
    EXPECT_EQ(processorNameFromCpuinfo("processor : 0\nflags : fpu vme\n"), "");
    EXPECT_EQ(processorNameFromCpuinfo("model name without colon\n"), "");
}

}  // namespace
