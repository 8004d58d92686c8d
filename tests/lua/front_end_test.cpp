// Lexer and parser: every syntax message with its position, and the groupings the grammar fixes.
#include "lua_test_support.h"

#include <gtest/gtest.h>

namespace korvel::lua::testing {
namespace {

struct SyntaxCase {
    const char* source;
    const char* message;    // the complete error text
};

class SyntaxErrors : public ::testing::TestWithParam<SyntaxCase> {};

TEST_P(SyntaxErrors, ReportChunkLineColumnAndText) {
    ScriptRun run = runCaptured(GetParam().source);
    EXPECT_FALSE(run.success);
    EXPECT_EQ(run.error, GetParam().message) << GetParam().source;
}

INSTANTIATE_TEST_SUITE_P(Lexer, SyntaxErrors, ::testing::Values(
    SyntaxCase{"x = a ~ b", "test:1:7: unexpected '~'"},
    SyntaxCase{"x = a $ b", "test:1:7: unexpected character '$'"},
    SyntaxCase{"x = 1\ny = \"abc\nz = 2", "test:2:5: unterminated string literal"},
    SyntaxCase{"x = 'abc", "test:1:5: unterminated string literal"},
    SyntaxCase{"x = \"ab\\", "test:1:8: unterminated string escape"},
    SyntaxCase{"x = [[abc", "test:1:5: unterminated long string literal"},
    SyntaxCase{"x = [==[abc]=]", "test:1:5: unterminated long string literal"},
    SyntaxCase{"--[[ never closed", "test:1:1: unterminated long comment"},
    SyntaxCase{"x = 3abc", "test:1:5: malformed number"},
    SyntaxCase{"x = 0x", "test:1:5: malformed number"},
    SyntaxCase{"x = \"\\q\"", "test:1:6: invalid escape sequence"},
    SyntaxCase{"x = 2 ^ 3", "test:1:7: unexpected character '^'"}));

INSTANTIATE_TEST_SUITE_P(Statements, SyntaxErrors, ::testing::Values(
    SyntaxCase{"if x print(1) end", "test:1:6: expected 'then' after if condition"},
    SyntaxCase{"if x then elseif y print(1) end", "test:1:20: expected 'then' after elseif condition"},
    SyntaxCase{"if x then print(1)", "test:1:19: expected 'end' after if statement"},
    SyntaxCase{"while x print(1) end", "test:1:9: expected 'do' after while condition"},
    SyntaxCase{"while x do print(1)", "test:1:20: expected 'end' after while loop"},
    SyntaxCase{"for 1 = 1, 2 do end", "test:1:5: expected loop variable name"},
    SyntaxCase{"for i = 1 2 do end", "test:1:11: expected ',' after numeric for start value"},
    SyntaxCase{"for i = 1, 2 print(i) end", "test:1:14: expected 'do' after numeric for range"},
    SyntaxCase{"for i = 1, 2 do print(i)", "test:1:25: expected 'end' after numeric for loop"},
    SyntaxCase{"for k, v of t do end", "test:1:10: expected 'in' in generic for loop"},
    SyntaxCase{"for k in pairs(t) print(k) end", "test:1:19: expected 'do' after generic for iterator"},
    SyntaxCase{"for k in pairs(t) do", "test:1:21: expected 'end' after generic for loop"},
    SyntaxCase{"function 5() end", "test:1:10: expected function name"},
    SyntaxCase{"local function 5() end", "test:1:16: expected local function name"},
    SyntaxCase{"function a.() end", "test:1:12: invalid function target"},
    SyntaxCase{"function f end", "test:1:12: expected '(' after function name"},
    SyntaxCase{"function f(1) end", "test:1:12: expected parameter name"},
    SyntaxCase{"function f(a b) end", "test:1:14: expected ')' after parameter list"},
    SyntaxCase{"function f() return 1", "test:1:22: expected 'end' after function body"},
    SyntaxCase{"local 1 = 2", "test:1:7: expected local variable name"},
    SyntaxCase{"a, b", "test:1:5: expected '=' in assignment"},
    SyntaxCase{"1 = 2", "test:1:1: invalid assignment target"},
    SyntaxCase{"a, f() = 1, 2", "test:1:4: invalid assignment target"},
    SyntaxCase{"x", "test:1:1: expected function call"},
    SyntaxCase{"do print(1) end", "test:1:1: standalone 'do' blocks are not part of KorvelLua"}));

INSTANTIATE_TEST_SUITE_P(Expressions, SyntaxErrors, ::testing::Values(
    SyntaxCase{"x = (1 + 2", "test:1:11: expected ')' after expression"},
    SyntaxCase{"x = a.", "test:1:7: expected field name after '.'"},
    SyntaxCase{"x = a[1", "test:1:8: expected ']' after index expression"},
    SyntaxCase{"a:", "test:1:3: expected method name after ':'"},
    SyntaxCase{"a:m", "test:1:4: expected '(' before arguments"},
    SyntaxCase{"f(1, 2", "test:1:7: expected ')' after arguments"},
    SyntaxCase{"print \"x\"", "test:1:1: expected function call"},
    SyntaxCase{"x = {[1 = 2}", "test:1:9: expected ']' after table key"},
    SyntaxCase{"x = {[1] 2}", "test:1:10: expected '=' after table key"},
    SyntaxCase{"x = {1, 2", "test:1:10: expected '}' after table constructor"},
    SyntaxCase{"x = *", "test:1:5: expected expression"},
    SyntaxCase{"x = 1 // 2", "test:1:8: expected expression"}));

TEST(SyntaxErrors, LeaveGlobalsUntouched) {
    LuaVM vm;
    ASSERT_TRUE(vm.runScriptString("kept = 1", "a").success);
    EXPECT_FALSE(vm.runScriptString("kept = 2\nnewName = 3\nx = (", "b").success);
    LuaValue value;
    ASSERT_TRUE(vm.getGlobal("kept", value));
    EXPECT_EQ(value.asInteger(), 1);
    EXPECT_FALSE(vm.getGlobal("newName", value));
}

TEST(SyntaxErrors, DeepNestingIsAnErrorNotACrash) {
    std::string nested = "x = " + std::string(5000, '(') + "1" + std::string(5000, ')');
    ScriptRun run = runCaptured(nested);
    EXPECT_FALSE(run.success);
    EXPECT_NE(run.error.find("too many syntax levels"), std::string::npos) << run.error;

    std::string chain = "x = 1";
    for (int i = 0; i < 100000; ++i) chain += " + 1";
    run = runCaptured(chain);
    EXPECT_FALSE(run.success);
    EXPECT_NE(run.error.find("too many syntax levels"), std::string::npos);
}

struct GroupingCase {
    const char* expression;
    const char* printed;
};

class Grouping : public ::testing::TestWithParam<GroupingCase> {};

TEST_P(Grouping, FollowsTheDialectsPrecedence) {
    ScriptRun run = runCaptured(std::string("print(") + GetParam().expression + ")");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, std::string(GetParam().printed) + "\n") << GetParam().expression;
}

INSTANTIATE_TEST_SUITE_P(Operators, Grouping, ::testing::Values(
    GroupingCase{"1 - 2 - 3", "-4"},
    GroupingCase{"\"a\" .. \"b\" .. \"c\"", "abc"},
    GroupingCase{"1 + 2 .. 3 + 4", "37"},
    GroupingCase{"2 + 3 * 4", "14"},
    GroupingCase{"-2 * 3", "-6"},
    GroupingCase{"not nil == true", "true"},
    GroupingCase{"1 < 2 and 2 < 3 or false", "true"},
    GroupingCase{"nil or false", "false"},
    GroupingCase{"#\"abc\" + 1", "4"},
    GroupingCase{"10 % 4 * 2", "4"},
    GroupingCase{"0x10 + 1e2", "116"},
    GroupingCase{"[[line]] .. 'q'", "lineq"},
    GroupingCase{"\"\\65\\x42\\u{43}\\z   D\"", "ABCD"},
    GroupingCase{"1..2", "12"}));

TEST(Lexer, SkipsCommentsAndShebang) {
    ScriptRun run = runCaptured("#!/usr/bin/env korvel-lua\n-- line\n--[==[ long\n comment ]==]\nprint(1) -- tail\n");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "1\n");
}

} // namespace
} // namespace korvel::lua::testing
