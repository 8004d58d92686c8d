// Patterns through the string library: positions and captures for each item of the dialect's
// patterns, and find, match, gsub and gmatch around them.
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
    PatternCase{"%l", "%l", "2\t2"},
    // A quantifier after a capture repeats it; the capture reports its last repetition.
    PatternCase{"ababx", "(ab)+x", "1\t5\tab"},
    PatternCase{"x", "(ab)*x", "1\t1\tnil"},
    PatternCase{"2024-05", "(%d+)-(%d+)", "1\t7\t2024\t05"},
    PatternCase{"aXb", "()X()", "2\t2\t2\t3"},
    PatternCase{"a\nb", "a.b", "1\t3"},
    PatternCase{"a\233b", "[\200-\255]", "2\t2"},
    PatternCase{"abc", "", "1\t0"}));

struct ScriptCase {
    const char* source;
    const char* output;
};

class PatternFunctions : public ::testing::TestWithParam<ScriptCase> {};

TEST_P(PatternFunctions, Print) {
    ScriptRun run = runCaptured(GetParam().source);
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, std::string(GetParam().output) + "\n") << GetParam().source;
}

INSTANTIATE_TEST_SUITE_P(Library, PatternFunctions, ::testing::Values(
    ScriptCase{"print(string.find('abcabc', 'b', 3))", "5\t5"},
    ScriptCase{"print(string.find('abcabc', '^b', 5))", "5\t5"},
    ScriptCase{"print(string.find('abcabc', 'c$', -2))", "6\t6"},
    ScriptCase{"print(string.find('a.b', '.', 1, true))", "2\t2"},
    ScriptCase{"print(string.find('a+b', '+', 1, true))", "2\t2"},
    ScriptCase{"print(string.match('  key = v1 ', '^%s*(%w+)%s*=%s*(%w+)'))", "key\tv1"},
    ScriptCase{"print(string.match('x', '(y)?x'))", "nil"},
    ScriptCase{"print(string.gsub('hello world', 'o', '0'))", "hell0 w0rld\t2"},
    ScriptCase{"print(string.gsub('abc', '', '-'))", "-a-b-c-\t4"},
    ScriptCase{"print(string.gsub('baa', 'a*', '<%0>'))", "<>b<aa>\t2"},
    ScriptCase{"print(string.gsub('aaa', '^a', 'b'))", "baa\t1"},
    ScriptCase{"print(string.gsub('a b c', '%w', '%0%0', 2))", "aa bb c\t2"},
    ScriptCase{"print(string.gsub('xy', '(a)?(x)', '[%1%2]'))", "[x]y\t1"},
    ScriptCase{"print(string.gsub('k=v', '(%w)=(%w)', {k = 'K'}))", "K\t1"},
    ScriptCase{"print(string.gsub('ab', '()', '%1'))", "1a2b3\t3"},
    ScriptCase{"local t = {} for a, b in string.gmatch('a=1, b=2', '(%w+)=(%w+)') do t[#t + 1] = a .. b end print(table.concat(t, ' '))",
               "a1 b2"},
    ScriptCase{"local t = {} for w in string.gmatch('baa', 'a*') do t[#t + 1] = '<' .. w .. '>' end print(table.concat(t))",
               "<><aa>"},
    ScriptCase{"local n = 0 for w in string.gmatch('aaa', '^a') do n = n + 1 end print(n)", "1"},
    ScriptCase{"local s = string.rep('ab', 200000) print(#string.match(s, '^(.-)$'), select(2, string.gsub(s, 'b', '')))",
               "400000\t200000"},
    // The same pattern text in a loop is compiled once; results stay right across cached uses.
    ScriptCase{"local n = 0 for i = 1, 1000 do if string.find('x' .. i, '^x%d+$') then n = n + 1 end end print(n)", "1000"}));

} // namespace
} // namespace korvel::lua::testing
