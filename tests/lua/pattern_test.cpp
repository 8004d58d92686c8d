// The pattern matcher on its own: positions and captures for each item of the dialect's patterns.
#include "lua_test_support.h"

#include <gtest/gtest.h>

namespace korvel::lua::testing {
namespace {

struct PatternCase {
    const char* subject;
    const char* pattern;
    const char* found;   // what print(string.find(subject, pattern)) writes
};

class Patterns : public ::testing::TestWithParam<PatternCase> {};

TEST_P(Patterns, FindReportsPositionsAndCaptures) {
    std::string source = std::string("print(string.find([==[") + GetParam().subject + "]==], [==[" + GetParam().pattern + "]==]))";
    ScriptRun run = runCaptured(source);
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, std::string(GetParam().found) + "\n") << GetParam().pattern;
}

INSTANTIATE_TEST_SUITE_P(Items, Patterns, ::testing::Values(
    PatternCase{"hello", "l", "3\t3"},
    PatternCase{"hello", "l+", "3\t4"},
    PatternCase{"hello", "x*", "1\t0"},
    PatternCase{"hello", "hel?lo", "1\t5"},
    PatternCase{"<a><b>", "<.->", "1\t3"},
    PatternCase{"<a><b>", "<.*>", "1\t6"},
    PatternCase{"abc123", "%d+", "4\t6"},
    PatternCase{"abc123", "%D+", "1\t3"},
    PatternCase{"a b\tc", "%s", "2\t2"},
    PatternCase{"  x", "%S", "3\t3"},
    PatternCase{"a_1!", "%w+", "1\t3"},
    PatternCase{"ab!", "%W", "3\t3"},
    PatternCase{"AbC", "%A", "nil"},
    PatternCase{"x=1", "[=]", "2\t2"},
    PatternCase{"x]y", "[]]", "2\t2"},
    PatternCase{"abc", "[^a]+", "2\t3"},
    PatternCase{"a-b", "[%-]", "2\t2"},
    PatternCase{"line\nnext", "e.n", "4\t6"},
    PatternCase{"abc", "^b", "nil"},
    PatternCase{"abc", "^a", "1\t1"},
    PatternCase{"a$b", "$b", "2\t3"},
    PatternCase{"abc", "c$", "3\t3"},
    PatternCase{"a+b", "%+", "2\t2"},
    PatternCase{"3.5", "%d%.%d", "1\t3"},
    PatternCase{"key=val", "(%w+)=(%w+)", "1\t7\tkey\tval"},
    PatternCase{"abc", "()b()", "2\t2\t2\t3"},
    PatternCase{"aaa", "(a(a))", "1\t2\taa\ta"},
    PatternCase{"*star", "*s", "1\t2"},
    PatternCase{"%l", "%l", "2\t2"}));

} // namespace
} // namespace korvel::lua::testing
