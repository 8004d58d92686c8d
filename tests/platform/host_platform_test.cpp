// The platform backend itself: real queries of this machine and real child processes through
// the system shell (cmd.exe on Windows, /bin/sh elsewhere). Commands are chosen to mean the
// same to both shells; stdin and exact-byte checks go through pipe_helper, a program of ours.
#include "platform/host_platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Query = int (*)(char*, std::size_t);

struct QueryCase {
    const char* name;
    Query query;
};

std::string queryText(Query query) {
    char buffer[512];
    if (!query(buffer, sizeof buffer)) return "<failed>";
    return buffer;
}

class EveryQuery : public ::testing::TestWithParam<QueryCase> {};

TEST_P(EveryQuery, AnswersAndFollowsTheCapacityRule) {
    Query query = GetParam().query;
    std::string text = queryText(query);
    ASSERT_NE(text, "<failed>");
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text, std::string(text.c_str())) << "no zero inside the text";

    std::vector<char> buffer(text.size() + 8, 'x');
    EXPECT_EQ(query(buffer.data(), text.size() + 1), 1) << "exactly fitting";
    EXPECT_EQ(std::string(buffer.data()), text);
    EXPECT_EQ(buffer[text.size() + 1], 'x') << "nothing written past the terminator";

    std::fill(buffer.begin(), buffer.end(), 'x');
    EXPECT_EQ(query(buffer.data(), text.size()), 0) << "one byte short";
    EXPECT_EQ(buffer[0], '\0');

    std::fill(buffer.begin(), buffer.end(), 'x');
    EXPECT_EQ(query(buffer.data(), 0), 0);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(query(nullptr, 512), 0);
}

INSTANTIATE_TEST_SUITE_P(Queries, EveryQuery,
                         ::testing::Values(QueryCase{"PlatformName", windows_platform_name},
                                           QueryCase{"VersionString", windows_version_string},
                                           QueryCase{"ProcessorName", windows_processor_name},
                                           QueryCase{"UserName", windows_user_name},
                                           QueryCase{"TempDirectory", windows_temp_directory},
                                           QueryCase{"ExecutableDirectory", windows_executable_directory}),
                         [](const ::testing::TestParamInfo<QueryCase>& info) { return std::string(info.param.name); });

TEST(Queries, PlatformNameNamesTheSystemAndThisArchitecture) {
    std::string name = queryText(windows_platform_name);
#if defined(_WIN32)
    std::string system = "Windows ";
#else
    std::string system = "Linux ";
#endif
#if defined(__x86_64__) || defined(_M_X64)
    // A 32-bit build on a 64-bit system still names the native architecture.
    EXPECT_EQ(name, system + "x86_64");
#elif defined(__aarch64__)
    EXPECT_EQ(name, system + "arm64");
#else
    EXPECT_EQ(name.rfind(system, 0), 0u) << name;
#endif
}

TEST(Queries, VersionIsNumeric) {
    std::string version = queryText(windows_version_string);
    ASSERT_FALSE(version.empty());
    EXPECT_TRUE(version[0] >= '0' && version[0] <= '9') << version;
#if defined(_WIN32)
    int dots = 0;
    for (char c : version) {
        if (c == '.') ++dots;
        else EXPECT_TRUE(c >= '0' && c <= '9') << version;
    }
    EXPECT_EQ(dots, 2) << version;
#endif
}

TEST(Queries, ProcessorNameIsTrimmed) {
    std::string name = queryText(windows_processor_name);
    ASSERT_NE(name, "<failed>");
    EXPECT_NE(name.front(), ' ');
    EXPECT_NE(name.back(), ' ');
    EXPECT_EQ(name.find('\n'), std::string::npos);
}

TEST(Queries, TemporaryDirectoryExistsWithSlashes) {
    std::string directory = queryText(windows_temp_directory);
    ASSERT_NE(directory, "<failed>");
    EXPECT_EQ(directory.back(), '/');
    EXPECT_EQ(directory.find('\\'), std::string::npos);
    EXPECT_TRUE(fs::is_directory(directory)) << directory;
}

TEST(Queries, ExecutableDirectoryHoldsThisProgram) {
    std::string directory = queryText(windows_executable_directory);
    ASSERT_NE(directory, "<failed>");
    char last = directory.back();
    EXPECT_TRUE(last == '/' || last == '\\') << directory;
#if defined(_WIN32)
    EXPECT_TRUE(fs::exists(directory + "platform_tests.exe")) << directory;
#else
    EXPECT_TRUE(fs::exists(directory + "platform_tests")) << directory;
#endif
}

TEST(Sleep, BlocksAtLeastTheTimeAsked) {
    auto start = std::chrono::steady_clock::now();
    wm_sleep_ms(60);
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 59);
}

// --- pipes ----------------------------------------------------------------------------------

// The helper's command line, quoted for either shell. cmd /c drops the first and the last
// quote of a line that starts with one, so the whole line gets a pair of its own.
std::string helperCommand(const std::string& arguments) {
    std::string directory = queryText(windows_executable_directory);
#if defined(_WIN32)
    return "\"\"" + directory + "pipe_helper.exe\" " + arguments + "\"";
#else
    return "'" + directory + "pipe_helper' " + arguments;
#endif
}

std::string readAll(std::FILE* stream) {
    std::string text;
    char buffer[4096];
    std::size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, stream)) > 0) text.append(buffer, count);
    return text;
}

std::string withoutCarriageReturns(std::string text) {
    std::erase(text, '\r');
    return text;
}

std::string fileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class Pipes : public ::testing::Test {
protected:
    void SetUp() override {
        m_directory = fs::path(queryText(windows_temp_directory)) /
                      ("korvel-pipes-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(m_directory);
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(m_directory, ignored);
    }
    std::string scratch(const char* name) const { return (m_directory / name).string(); }

    fs::path m_directory;
};

TEST_F(Pipes, ExitCodesComeBackThroughClose) {
    for (int code : {0, 3, 42}) {
        std::FILE* stream = wm_windows_popen(("exit " + std::to_string(code)).c_str(), "r");
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(readAll(stream), "");
        EXPECT_EQ(wm_windows_pclose(stream), code);
    }
}

TEST_F(Pipes, ReadsTheCommandsOutput) {
    std::FILE* stream = wm_windows_popen("echo hello", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(withoutCarriageReturns(readAll(stream)), "hello\n");
    EXPECT_EQ(wm_windows_pclose(stream), 0);
}

TEST_F(Pipes, ReadsManyLinesExactly) {
    std::FILE* stream = wm_windows_popen(helperCommand("print 20000").c_str(), "r");
    ASSERT_NE(stream, nullptr);
    std::string expected;
    for (int i = 1; i <= 20000; ++i) expected += "line " + std::to_string(i) + "\n";
    EXPECT_EQ(readAll(stream), expected);  // binary on both ends: no \r added
    EXPECT_EQ(wm_windows_pclose(stream), 0);
}

TEST_F(Pipes, WritesReachTheCommandsInput) {
    std::string target = scratch("copied.txt");
    std::FILE* stream = wm_windows_popen(helperCommand("copy \"" + target + "\"").c_str(), "w");
    ASSERT_NE(stream, nullptr);
    std::string text = "through the pipe\nand\r\na second line";
    ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), stream), text.size());
    EXPECT_EQ(wm_windows_pclose(stream), static_cast<int>(text.size() % 256));
    EXPECT_EQ(fileText(target), text);
}

TEST_F(Pipes, LargeWritesArriveWhole) {
    // Far more than a pipe holds: the writer must block and resume, not lose data.
    std::string target = scratch("large.bin");
    std::FILE* stream = wm_windows_popen(helperCommand("copy \"" + target + "\"").c_str(), "w");
    ASSERT_NE(stream, nullptr);
    std::string block;
    for (int i = 0; i < (1 << 20) + 7; ++i) block += static_cast<char>('a' + i % 26);
    ASSERT_EQ(std::fwrite(block.data(), 1, block.size(), stream), block.size());
    EXPECT_EQ(wm_windows_pclose(stream), static_cast<int>(block.size() % 256));
    EXPECT_EQ(fileText(target) == block, true);
}

TEST_F(Pipes, WritingToACommandThatEndedFailsQuietly) {
    // The command reads nothing; on Linux the write would raise SIGPIPE if it were not held back.
    std::FILE* stream = wm_windows_popen("exit 5", "w");
    ASSERT_NE(stream, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::string block(1 << 18, 'z');
    bool failed = false;
    for (int i = 0; i < 8 && !failed; ++i)
        failed = std::fwrite(block.data(), 1, block.size(), stream) != block.size() || std::fflush(stream) != 0;
    EXPECT_TRUE(failed);
    EXPECT_EQ(wm_windows_pclose(stream), 5);
}

TEST_F(Pipes, UnknownCommandStillGivesAStreamAndAFailureCode) {
    std::FILE* stream = wm_windows_popen("korvel-no-such-command-anywhere", "r");
    ASSERT_NE(stream, nullptr);
    readAll(stream);
    int code = wm_windows_pclose(stream);
    EXPECT_NE(code, 0);
    EXPECT_NE(code, -1);
}

TEST_F(Pipes, ForeignStreamIsClosedAndGivesMinusOne) {
    std::string path = scratch("foreign.txt");
    std::FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fputs("buffered", file);
    EXPECT_EQ(wm_windows_pclose(file), -1);
    // Closing flushed the buffer: the stream really was closed, not leaked.
    EXPECT_EQ(fileText(path), "buffered");
}

TEST_F(Pipes, NullArguments) {
    EXPECT_EQ(wm_windows_popen(nullptr, "r"), nullptr);
    EXPECT_EQ(wm_windows_pclose(nullptr), -1);
}

TEST_F(Pipes, ClosingTwiceIsNotConfusedWithAnotherPipe) {
    std::FILE* first = wm_windows_popen("exit 7", "r");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(wm_windows_pclose(first), 7);
    std::FILE* second = wm_windows_popen("exit 9", "r");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(wm_windows_pclose(second), 9);  // even when the stream's address was reused
}

TEST_F(Pipes, ManyThreadsAtOnce) {
    // Each thread must get its own child's code back; a pipe inherited by a sibling child
    // would make a reader hang, so this also checks that ends are not leaked into children.
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &wrong] {
            for (int round = 0; round < 5; ++round) {
                int code = 10 * t + round;
                std::FILE* stream = wm_windows_popen(("exit " + std::to_string(code)).c_str(), "r");
                if (!stream) {
                    ++wrong;
                    continue;
                }
                readAll(stream);
                if (wm_windows_pclose(stream) != code) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
