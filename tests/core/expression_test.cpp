// Expressions: every operator, prefix operator and primary, with their messages. Each case is
// evaluated in several places (a top-level return, an assignment, a function called twice, a
// loop body, an array literal element, a call argument) so the compiled fast path and the
// general evaluator must agree with each other and with the rule.
#include "core/korvel_script.h"

#include "tests/core/test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {
namespace {

using testing_support::caseName;

// Names every case may use.
const char* kPrelude =
    "i7 = 7; i2 = 2; f15 = 1.5; s = \"str\"; t = {k: 1}; arr = [1, 2, 3]; yes = true; no = false\n"
    "big = 2147483647; small = -2147483647 - 1; fbig = 16777216.0\n"
    "function id(v)\n  return v\nend\n";

struct Context {
    const char* name;
    std::string (*wrap)(const std::string& expression);
};

const Context kContexts[] = {
    {"top-level return", [](const std::string& e) { return "return " + e; }},
    {"assignment", [](const std::string& e) { return "r = " + e + "\nreturn r"; }},
    {"function called twice",
     [](const std::string& e) { return "function g()\n  return " + e + "\nend\ng()\nreturn g()"; }},
    {"local in function",
     [](const std::string& e) { return "function g()\n  local v = " + e + "\n  return v\nend\nreturn g()"; }},
    {"loop body", [](const std::string& e) { return "for n = 1, 3\n  r = " + e + "\nend\nreturn r"; }},
    {"array element", [](const std::string& e) { return "a = [" + e + "]\nreturn a[1]"; }},
    {"call argument", [](const std::string& e) { return "return id(" + e + ")"; }},
};

RunResult evaluate(const Context& context, const std::string& expression) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    return script.runScript(kPrelude + context.wrap(expression));
}

struct ValueCase {
    const char* expression;
    const char* printed;
    const char* kind;
};
class ExpressionValue : public ::testing::TestWithParam<ValueCase> {};
TEST_P(ExpressionValue, IsTheSameInEveryContext) {
    for (const Context& context : kContexts) {
        RunResult result = evaluate(context, GetParam().expression);
        ASSERT_TRUE(result.ok) << GetParam().expression << " in " << context.name << "\n" << result.errorReport;
        EXPECT_EQ(result.value.toString(), GetParam().printed) << GetParam().expression << " in " << context.name;
        EXPECT_STREQ(typeName(result.value.type()), GetParam().kind) << GetParam().expression << " in " << context.name;
    }
}
INSTANTIATE_TEST_SUITE_P(Precedence, ExpressionValue, ::testing::Values(
    ValueCase{"2 ^ 3 ^ 2", "512", "int"},
    ValueCase{"-2 ^ 2", "-4", "int"},
    ValueCase{"-i2 ^ i2", "-4", "int"},
    ValueCase{"10 - 4 - 3", "3", "int"},
    ValueCase{"i7 - i2 - 1", "4", "int"},
    ValueCase{"(i7 + i2) * i2", "18", "int"},
    ValueCase{"i7 + i2 * i2 ^ i2", "15", "int"},
    ValueCase{"i7 \\ i2 * i2 + i7 % i2", "7", "int"},
    ValueCase{"i2 * i2 <- i2", "8", "int"},
    ValueCase{"1 < 2 == 2 < 3", "true", "bool"},
    ValueCase{"yes or no and no", "true", "bool"},
    ValueCase{"#arr + #s", "6", "int"},
    ValueCase{"- -i7", "7", "int"},
    ValueCase{"!yes == no", "true", "bool"}),
    [](const ::testing::TestParamInfo<ValueCase>& info) { return caseName(info, &ValueCase::expression); });
INSTANTIATE_TEST_SUITE_P(Arithmetic, ExpressionValue, ::testing::Values(
    ValueCase{"i7 / i2", "3.500000", "float"},
    ValueCase{"6 / 3", "2.000000", "float"},
    ValueCase{"i7 \\ i2", "3", "int"},
    ValueCase{"-i7 \\ i2", "-4", "int"},
    ValueCase{"i7 \\ -i2", "-4", "int"},
    ValueCase{"-i7 % 3", "-1", "int"},
    ValueCase{"i7 % -3", "1", "int"},
    ValueCase{"f15 % 1", "0.500000", "float"},
    ValueCase{"f15 * i2", "3.000000", "float"},
    ValueCase{"f15 + i7 * f15", "12.000000", "float"},
    ValueCase{"yes + yes", "2", "int"},
    ValueCase{"yes * f15", "1.500000", "float"},
    ValueCase{"-yes", "-1", "int"},
    ValueCase{"i2 ^ 10", "1024", "int"},
    ValueCase{"i2 ^ -1", "0.500000", "float"},
    ValueCase{"i2 ^ 31", "2147483648.000000", "float"},
    ValueCase{"i2 ^ 0.5", "1.414214", "float"},
    ValueCase{"i2 <- 3", "16", "int"},
    ValueCase{"i2 <- 0", "1", "int"},
    ValueCase{"i2 -> 3", "65536", "int"},
    ValueCase{"1 / 3 * 3", "1.000000", "float"}),
    [](const ::testing::TestParamInfo<ValueCase>& info) { return caseName(info, &ValueCase::expression); });
INSTANTIATE_TEST_SUITE_P(ThirtyTwoBits, ExpressionValue, ::testing::Values(
    ValueCase{"big + 1", "-2147483648", "int"},
    ValueCase{"2147483647 + 1", "-2147483648", "int"},
    ValueCase{"big * 2", "-2", "int"},
    ValueCase{"small - 1", "2147483647", "int"},
    ValueCase{"-small", "-2147483648", "int"},
    ValueCase{"small \\ -1", "-2147483648", "int"},
    ValueCase{"small % -1", "0", "int"},
    ValueCase{"big + yes", "-2147483648", "int"},
    ValueCase{"65536 * 65536", "0", "int"},
    ValueCase{"fbig + 1", "16777216.000000", "float"},
    ValueCase{"16777216.0 + i2 - 1", "16777216.000000", "float"},
    ValueCase{"big + 0.0", "2147483648.000000", "float"}),
    [](const ::testing::TestParamInfo<ValueCase>& info) { return caseName(info, &ValueCase::expression); });
INSTANTIATE_TEST_SUITE_P(Strings, ExpressionValue, ::testing::Values(
    ValueCase{"s + i7", "str7", "string"},
    ValueCase{"i7 + s", "7str", "string"},
    ValueCase{"s + f15", "str1.500000", "string"},
    ValueCase{"s + yes", "strtrue", "string"},
    ValueCase{"s + nothing", "strnot", "string"},
    ValueCase{"s + arr", "str[1, 2, 3]", "string"},
    ValueCase{"i7 + i2 + s", "9str", "string"},
    ValueCase{"s + i7 + i2", "str72", "string"},
    ValueCase{"s[1] + s[3]", "sr", "string"},
    ValueCase{"s.upper()", "STR", "string"},
    ValueCase{"s[\"sub\"](2, 3)", "tr", "string"},
    ValueCase{"#\"\"", "0", "int"},
    ValueCase{"s == \"str\"", "true", "bool"},
    ValueCase{"s < \"sts\"", "true", "bool"},
    ValueCase{"\"ab\" < \"abc\"", "true", "bool"}),
    [](const ::testing::TestParamInfo<ValueCase>& info) { return caseName(info, &ValueCase::expression); });
INSTANTIATE_TEST_SUITE_P(Logic, ExpressionValue, ::testing::Values(
    ValueCase{"nothing or i2", "2", "int"},
    ValueCase{"0 or i2", "0", "int"},
    ValueCase{"no or nothing", "not", "not"},
    ValueCase{"i7 and s", "str", "string"},
    ValueCase{"nothing and i7", "not", "not"},
    ValueCase{"no and (1 / 0)", "false", "bool"},
    ValueCase{"yes or (1 / 0)", "true", "bool"},
    ValueCase{"i7 > i2 and s or 0", "str", "string"},
    ValueCase{"i7 < i2 and s or 0", "0", "int"},
    ValueCase{"no || i7 && i2", "2", "int"},
    ValueCase{"!nothing", "true", "bool"},
    ValueCase{"!0", "false", "bool"},
    ValueCase{"i7 == 7.0", "true", "bool"},
    ValueCase{"big == 2147483648.0", "false", "bool"},
    ValueCase{"big < 2147483648.0", "true", "bool"},
    ValueCase{"16777217 == fbig", "false", "bool"},
    ValueCase{"16777217 > fbig", "true", "bool"},
    ValueCase{"yes == 1", "true", "bool"},
    ValueCase{"\"1\" == 1", "false", "bool"},
    ValueCase{"t == t", "true", "bool"},
    ValueCase{"t ~= {k: 1}", "true", "bool"},
    ValueCase{"nothing == nothingElse", "true", "bool"},
    ValueCase{"i2 >= yes", "true", "bool"},
    ValueCase{"f15 <= 1", "false", "bool"}),
    [](const ::testing::TestParamInfo<ValueCase>& info) { return caseName(info, &ValueCase::expression); });
INSTANTIATE_TEST_SUITE_P(Primaries, ExpressionValue, ::testing::Values(
    ValueCase{"arr[2] + t.k", "3", "int"},
    ValueCase{"arr[4]", "not", "not"},
    ValueCase{"arr[0]", "not", "not"},
    ValueCase{"arr[\"x\"]", "not", "not"},
    ValueCase{"arr[2.0]", "2", "int"},
    ValueCase{"t[\"k\"]", "1", "int"},
    ValueCase{"t.missing", "not", "not"},
    ValueCase{"s[4]", "not", "not"},
    ValueCase{"[[1, 2], [3]][1][2]", "2", "int"},
    ValueCase{"{a: {b: 5}}[\"a\"][\"b\"]", "5", "int"},
    ValueCase{"[]", "[]", "array"},
    ValueCase{"[1, s, [f15]]", "[1, str, [1.500000]]", "array"},
    ValueCase{"{x: 1, \"y z\": 2, [i2]: 3, [yes]: 4}", "{x: 1, y z: 2, 2: 3, true: 4}", "table"},
    ValueCase{"ture", "true", "bool"},
    ValueCase{"flse", "false", "bool"},
    ValueCase{"$1f", "$1F", "pointer"},
    ValueCase{"id(id)(i7)", "7", "int"},
    ValueCase{"typeOf(unknownName)", "not", "string"},
    ValueCase{"x#1", "not", "not"},
    ValueCase{"i7#1", "7", "int"}),
    [](const ::testing::TestParamInfo<ValueCase>& info) { return caseName(info, &ValueCase::expression); });

struct ErrorCase {
    const char* expression;
    const char* message;
};
class ExpressionError : public ::testing::TestWithParam<ErrorCase> {};
TEST_P(ExpressionError, FailsWithTheSameMessageInEveryContext) {
    for (const Context& context : kContexts) {
        RunResult result = evaluate(context, GetParam().expression);
        EXPECT_FALSE(result.ok) << GetParam().expression << " in " << context.name;
        EXPECT_EQ(result.errorMessage, GetParam().message) << GetParam().expression << " in " << context.name;
    }
}

// A malformed expression is reported the same way wherever it ends its line.
class ExpressionSyntaxError : public ::testing::TestWithParam<ErrorCase> {};
TEST_P(ExpressionSyntaxError, FailsWithTheSameMessageWhereverItEndsTheLine) {
    for (const Context& context : kContexts) {
        if (std::string(context.name) == "array element" || std::string(context.name) == "call argument") continue;
        RunResult result = evaluate(context, GetParam().expression);
        EXPECT_FALSE(result.ok) << GetParam().expression << " in " << context.name;
        EXPECT_EQ(result.errorMessage, GetParam().message) << GetParam().expression << " in " << context.name;
    }
}
INSTANTIATE_TEST_SUITE_P(Arithmetic, ExpressionError, ::testing::Values(
    ErrorCase{"i7 / 0", "Division by zero"},
    ErrorCase{"i7 / 0.0", "Division by zero"},
    ErrorCase{"i7 / no", "Division by zero"},
    ErrorCase{"i7 \\ 0", "Division by zero"},
    ErrorCase{"i7 % 0", "Division by zero"},
    ErrorCase{"f15 % 0", "Division by zero"},
    ErrorCase{"t + 1", "Unsupported operation '+' between types"},
    ErrorCase{"nothing + 1", "Unsupported operation '+' between types"},
    ErrorCase{"arr + t", "Unsupported operation '+' between types"},
    ErrorCase{"s - 1", "Unsupported operation '-' between types"},
    ErrorCase{"s * 2", "Unsupported operation '*' between types"},
    ErrorCase{"s / 2", "Unsupported operation '/' between types"},
    ErrorCase{"s \\ 2", "Unsupported operation '\\' between types"},
    ErrorCase{"s % 2", "Unsupported operation '%' between types"},
    ErrorCase{"s ^ 2", "Unsupported operation '^' between types"},
    ErrorCase{"0 ^ -1", "Invalid exponentiation result"},
    ErrorCase{"(0 - 8) ^ 0.5", "Invalid exponentiation result"},
    ErrorCase{"-s", "Unary '-' requires a numeric value"},
    ErrorCase{"-t", "Unary '-' requires a numeric value"},
    ErrorCase{"#i7", "len(x) expects an array, table, or string"},
    ErrorCase{"#nothing", "len(x) expects an array, table, or string"},
    ErrorCase{"t < 1", "Cannot compare table with int"},
    ErrorCase{"nothing >= 1", "Cannot compare not with int"},
    ErrorCase{"s > i2", "Cannot compare string with int"}),
    [](const ::testing::TestParamInfo<ErrorCase>& info) { return caseName(info, &ErrorCase::expression); });
INSTANTIATE_TEST_SUITE_P(HyperOperations, ExpressionError, ::testing::Values(
    ErrorCase{"i2 <- 1.5", "tetration height must be an integer"},
    ErrorCase{"i2 <- -1", "tetration height must be a non-negative integer"},
    ErrorCase{"s <- 2", "tetration requires numeric operands"},
    ErrorCase{"2 <- t", "tetration requires numeric operands"},
    ErrorCase{"2 <- 5", "Invalid tetration result"},
    ErrorCase{"i2 -> 0.5", "pentation count must be an integer"},
    ErrorCase{"i2 -> -1", "pentation count must be a non-negative integer"},
    ErrorCase{"f15 -> 2", "pentation intermediate height must be an integer"},
    ErrorCase{"s -> 1", "pentation requires numeric operands"},
    ErrorCase{"3 -> 3", "Invalid pentation result"}),
    [](const ::testing::TestParamInfo<ErrorCase>& info) { return caseName(info, &ErrorCase::expression); });
INSTANTIATE_TEST_SUITE_P(Primaries, ExpressionError, ::testing::Values(
    ErrorCase{"i7[1]", "Indexing requires an array, table, or string"},
    ErrorCase{"nothing[1]", "Indexing requires an array, table, or string"},
    ErrorCase{"s[yes]", "String index must be an int or string method name"},
    ErrorCase{"s[1.5]", "String index must be an int or string method name"},
    ErrorCase{"nothing()", "Attempted to call a non-function value of type not"},
    ErrorCase{"i7()", "Attempted to call a non-function value of type int"},
    ErrorCase{"s.nope()", "Attempted to call a non-function value of type not"},
    ErrorCase{"{[t]: 1}", "Table key must be string, number, or bool"}),
    [](const ::testing::TestParamInfo<ErrorCase>& info) { return caseName(info, &ErrorCase::expression); });
INSTANTIATE_TEST_SUITE_P(Syntax, ExpressionSyntaxError, ::testing::Values(
    ErrorCase{"(1 + 2", "Expected closing parenthesis"},
    ErrorCase{"arr[1", "Expected closing bracket"},
    ErrorCase{"[1 2]", "Expected ',' or ']' in array literal"},
    ErrorCase{"1 +", "Unexpected end of expression"},
    ErrorCase{"-", "Unexpected end of expression"},
    ErrorCase{"1 + )", "Unknown token: )"},
    ErrorCase{"1 + ,", "Unknown token: ,"},
    ErrorCase{"{a 1}", "Expected ':' after table key"},
    ErrorCase{"{[\"a\" : 1}", "Expected ']' after table key"},
    ErrorCase{"{1: 2}", "Invalid table key"},
    ErrorCase{"{a: 1 b: 2}", "Expected ',' or '}' in table literal"},
    ErrorCase{"{a: 1,", "Unexpected end of table literal"},
    ErrorCase{"id(1 2)", "Expected ',' or ')' after function argument"}),
    [](const ::testing::TestParamInfo<ErrorCase>& info) { return caseName(info, &ErrorCase::expression); });

// --- nesting limits -----------------------------------------------------------------------

std::string repeated(const std::string& piece, int count) {
    std::string out;
    out.reserve(piece.size() * count);
    for (int i = 0; i < count; ++i) out += piece;
    return out;
}

RunResult runText(const std::string& text) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    return script.runScript(text);
}

TEST(ExpressionNesting, ModerateNestingEvaluates) {
    RunResult r = runText("return " + repeated("(", 300) + "1" + repeated(")", 300));
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "1");
    r = runText("a = " + repeated("[", 300) + "2" + repeated("]", 300) + "\nreturn a" + repeated("[1]", 300));
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "2");
}

struct DeepCase {
    const char* name;
    std::string text;
};
class DeepExpression : public ::testing::TestWithParam<DeepCase> {};
TEST_P(DeepExpression, IsAScriptErrorNotACrash) {
    RunResult r = runText(GetParam().text);
    EXPECT_FALSE(r.ok) << GetParam().name;
    EXPECT_EQ(r.errorMessage, "Expression nested too deeply") << GetParam().name;
}
INSTANTIATE_TEST_SUITE_P(Limits, DeepExpression, ::testing::Values(
    DeepCase{"500 parentheses", "x = " + repeated("(", 500) + "1" + repeated(")", 500)},
    DeepCase{"200000 parentheses", "x = " + repeated("(", 200000) + "1" + repeated(")", 200000)},
    DeepCase{"200000 brackets", "x = " + repeated("[", 200000) + "1" + repeated("]", 200000)},
    DeepCase{"200000 unclosed parentheses", "x = " + repeated("(", 200000)},
    DeepCase{"200000 table literals", "x = " + repeated("{a: ", 200000) + "1" + repeated("}", 200000)},
    DeepCase{"200000 calls", "x = " + repeated("id(", 200000) + "1" + repeated(")", 200000)},
    DeepCase{"200000 index suffixes inside", "x = arr[" + repeated("arr[", 200000) + "1" + repeated("]", 200001)},
    DeepCase{"200000 prefix minus", "x = " + repeated("- ", 200000) + "1"},
    DeepCase{"200000 prefix not", "x = " + repeated("!", 200000) + "1"},
    DeepCase{"nesting inside a print call", "print(" + repeated("(", 200000) + "1" + repeated(")", 200000) + ")"},
    DeepCase{"nesting in an if condition", "if " + repeated("(", 200000) + "1" + repeated(")", 200000) + "\nend"}),
    [](const ::testing::TestParamInfo<DeepCase>& info) { return caseName(info, &DeepCase::name); });

TEST(ExpressionNesting, LongRightAssociativeChainEndsCleanly) {
    // A 200,000-long power chain either evaluates (to 1) or reports the nesting error.
    RunResult r = runText("return 1" + repeated(" ^ 1", 200000));
    if (r.ok) {
        EXPECT_EQ(r.value.toString(), "1");
    } else {
        EXPECT_EQ(r.errorMessage, "Expression nested too deeply");
    }
}

TEST(ExpressionNesting, LongLeftAssociativeChainEvaluates) {
    RunResult r = runText("return 0" + repeated(" + 1", 200000));
    ASSERT_TRUE(r.ok) << r.errorMessage;
    EXPECT_EQ(r.value.toString(), "200000");
}

TEST(ExpressionNesting, LongStringConcatenationChainEvaluates) {
    RunResult r = runText("s = \"\"" + repeated(" + \"a\"", 100000) + "\nreturn #s");
    ASSERT_TRUE(r.ok) << r.errorMessage;
    EXPECT_EQ(r.value.toString(), "100000");
}

TEST(ExpressionNesting, LongChainInsideAFunctionEvaluates) {
    RunResult r = runText("function f(v)\n  return v" + repeated(" * v", 200000) + "\nend\nreturn f(1)");
    ASSERT_TRUE(r.ok) << r.errorMessage;
    EXPECT_EQ(r.value.toString(), "1");
}

// --- evaluation order and repeated evaluation --------------------------------------------

TEST(ExpressionEvaluation, OperandsAndArgumentsRunLeftToRight) {
    KorvelScript script;
    std::string out;
    script.setOutput([&](std::string_view text) { out += text; });
    RunResult r = script.runScript(
        "function say(v)\n  print(v)\n  return v\nend\n"
        "x = say(1) + say(2) * say(3)\n"
        "id = say\n"
        "y = [say(\"a\"), say(\"b\")]\n"
        "print(say(\"c\"), say(\"d\"))\n");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(out, "1\n2\n3\na\nb\nc\nd\nc d\n");
}

TEST(ExpressionEvaluation, CompiledLineSeesChangedVariableKinds) {
    // The same line evaluated with an int, a float, a string and then a table.
    KorvelScript script;
    std::string out;
    script.setOutput([&](std::string_view text) { out += text; });
    RunResult r = script.runScript(
        "function show(v)\n  print(v + 1)\nend\n"
        "show(1)\nshow(1.5)\nshow(\"s\")\nshow(true)\nshow(2147483647)\nshow({})\n");
    EXPECT_EQ(out, "2\n2.500000\ns1\n2\n-2147483648\n");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.errorMessage, "Unsupported operation '+' between types");
}

TEST(ExpressionEvaluation, CompiledLineSeesReassignedGlobals) {
    KorvelScript script;
    std::string out;
    script.setOutput([&](std::string_view text) { out += text; });
    RunResult r = script.runScript(
        "v = 1\n"
        "for n = 1, 4\n"
        "  print(v * 2)\n"
        "  if n == 1\n    v = 2.5\n  elseif n == 2\n    v = \"x\"\n  elseif n == 3\n    v = true\n  end\n"
        "end\n");
    EXPECT_EQ(out, "2\n5.000000\n");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.errorMessage, "Unsupported operation '*' between types");
}

}  // namespace
}  // namespace korvel

namespace korvel {
namespace {

// `x OP a[i]` with x, a and i all locals reads the item in place. Whatever the three hold, the
// result (or the message) must be what the general evaluator gives.
TEST(LocalIndexOperand, GivesWhatTheGeneralPathGives) {
    const char* lefts[] = {"7", "1.5", "\"p\"", "false"};
    const char* containers[] = {"[10, 2.5, true, \"s\"]", "{k: 1}", "\"text\"", "[]"};
    const char* keys[] = {"1", "2", "3", "4", "5", "0", "-1", "2.0", "\"k\"", "true"};
    const char* operators[] = {"+", "-", "*", "%", "<", "=="};
    int compared = 0;
    for (const char* left : lefts)
        for (const char* container : containers)
            for (const char* key : keys)
                for (const char* op : operators) {
                    const std::string expression = std::string("x ") + op + " a[i]";
                    const std::string values = std::string("x = ") + left + "\na = " + container + "\ni = " + key + "\n";
                    std::string locals = "function g()\n  local x = 0\n  local a = 0\n  local i = 0\n";
                    locals += "  x = " + std::string(left) + "\n  a = " + container + "\n  i = " + key + "\n";
                    locals += "  local r = " + expression + "\n  return r\nend\nreturn g()";
                    KorvelScript first, second;
                    first.setOutput([](std::string_view) {});
                    second.setOutput([](std::string_view) {});
                    RunResult fast = first.runScript(locals);
                    // Calls keep every part of the reference off the scalar paths.
                    RunResult general =
                        second.runScript("function id(v)\n  return v\nend\n" + values + "return id(x) " + op + " id(a)[id(i)]");
                    ASSERT_EQ(fast.ok, general.ok) << values << expression << "\n" << fast.errorReport << general.errorReport;
                    EXPECT_EQ(fast.errorMessage, general.errorMessage) << values << expression;
                    EXPECT_EQ(fast.value.toString(), general.value.toString()) << values << expression;
                    EXPECT_EQ(fast.value.type(), general.value.type()) << values << expression;
                    ++compared;
                }
    EXPECT_EQ(compared, 4 * 4 * 10 * 6);
}

}  // namespace
}  // namespace korvel
