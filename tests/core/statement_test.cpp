// Statements and control flow seen from the host: the error report format, run results,
// state kept after a run, block-linking and statement messages, and the limits that keep
// bad scripts from crashing or stalling the interpreter.
#include "core/korvel_script.h"

#include "tests/core/test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cctype>
#include <string>
#include <string_view>

namespace korvel {
namespace {

using testing_support::caseName;

const std::string kHint = "  hint: check spelling, operators, parentheses, and quote matching\n";

struct Outcome {
    RunResult result;
    std::string output;
};

Outcome run(std::string_view source, std::string_view name = {}) {
    KorvelScript script;
    Outcome r;
    script.setOutput([&](std::string_view text) { r.output += text; });
    r.result = script.runScript(source, name);
    return r;
}

// --- the error report ---------------------------------------------------------------------

struct ReportCase {
    const char* name;
    const char* source;
    const char* scriptName;
    std::string report;
};
class ErrorReport : public ::testing::TestWithParam<ReportCase> {};
TEST_P(ErrorReport, HasMessageLocationSourceCaretAndHint) {
    Outcome r = run(GetParam().source, GetParam().scriptName);
    EXPECT_FALSE(r.result.ok) << GetParam().name;
    EXPECT_EQ(r.result.errorReport, GetParam().report) << GetParam().name;
}
INSTANTIATE_TEST_SUITE_P(Format, ErrorReport, ::testing::Values(
    ReportCase{"named script", "x = 1\ny = x / 0\n", "game.ks",
               "KorvelScript error: Division by zero\n"
               "  at game.ks:2, near token '/'\n"
               "  y = x / 0\n"
               "        ^\n" + kHint},
    ReportCase{"unnamed script", "x = 1\ny = x / 0\n", "",
               "KorvelScript error: Division by zero\n"
               "  at line 2, near token '/'\n"
               "  y = x / 0\n"
               "        ^\n" + kHint},
    ReportCase{"unknown token", "a = 1 + )", "s.ks",
               "KorvelScript error: Unknown token: )\n"
               "  at s.ks:1, near token ')'\n"
               "  a = 1 + )\n"
               "          ^\n" + kHint},
    ReportCase{"indented line keeps its indentation", "if true\n    z = 2 + {}\nend", "s.ks",
               "KorvelScript error: Unsupported operation '+' between types\n"
               "  at s.ks:2, near token '+'\n"
               "      z = 2 + {}\n"
               "            ^\n" + kHint},
    ReportCase{"second statement on a line", "a = 1; b = a / 0", "s.ks",
               "KorvelScript error: Division by zero\n"
               "  at s.ks:1, near token '/'\n"
               "  a = 1; b = a / 0\n"
               "               ^\n" + kHint},
    ReportCase{"error inside a function names the body line", "function f()\n  return 1 / 0\nend\nf()", "s.ks",
               "KorvelScript error: Division by zero\n"
               "  at s.ks:2, near token '/'\n"
               "    return 1 / 0\n"
               "             ^\n" + kHint},
    ReportCase{"line numbers count comment and blank lines", "@@ note\n\nx = 1 < {}", "",
               "KorvelScript error: Cannot compare int with table\n"
               "  at line 3, near token '<'\n"
               "  x = 1 < {}\n"
               "        ^\n" + kHint},
    ReportCase{"while condition failing on a later pass", "n = 0\nwhile n < 2\n  n = \"x\"\nend", "w.ks",
               "KorvelScript error: Cannot compare string with int\n"
               "  at w.ks:2, near token '<'\n"
               "  while n < 2\n"
               "          ^\n" + kHint},
    ReportCase{"until condition", "i = 0\nrepeat\n  i += 1\nuntil i > {}", "u.ks",
               "KorvelScript error: Cannot compare int with table\n"
               "  at u.ks:4, near token '>'\n"
               "  until i > {}\n"
               "          ^\n" + kHint},
    ReportCase{"elseif condition", "x = 1\nif x == 2\nelseif x < \"a\"\nend", "e.ks",
               "KorvelScript error: Cannot compare int with string\n"
               "  at e.ks:3, near token '<'\n"
               "  elseif x < \"a\"\n"
               "           ^\n" + kHint},
    ReportCase{"tab before the token gives spaces in the caret line", "\tq = 1 / 0", "t.ks",
               "KorvelScript error: Division by zero\n"
               "  at t.ks:1, near token '/'\n"
               "  \tq = 1 / 0\n"
               "         ^\n" + kHint}),
    [](const ::testing::TestParamInfo<ReportCase>& info) { return caseName(info, &ReportCase::name); });

TEST(ErrorReport, StartsWithTheBareMessage) {
    Outcome r = run("x = \"open", "s.ks");
    ASSERT_FALSE(r.result.ok);
    EXPECT_EQ(r.result.errorMessage, "Unterminated string literal");
    EXPECT_EQ(r.result.errorReport.rfind("KorvelScript error: Unterminated string literal\n  at s.ks:1", 0), 0u)
        << r.result.errorReport;
    EXPECT_EQ(r.result.errorReport.substr(r.result.errorReport.size() - kHint.size()), kHint);
}

TEST(ErrorReport, UncaughtErrorCallNamesItsLine) {
    Outcome r = run("print(1)\nerror(\"custom\")\nprint(2)", "s.ks");
    ASSERT_FALSE(r.result.ok);
    EXPECT_EQ(r.output, "1\n");
    EXPECT_EQ(r.result.errorMessage, "custom");
    EXPECT_EQ(r.result.errorReport.rfind("KorvelScript error: custom\n  at s.ks:2", 0), 0u) << r.result.errorReport;
    EXPECT_NE(r.result.errorReport.find("\n  error(\"custom\")\n"), std::string::npos) << r.result.errorReport;
}

TEST(ErrorReport, MissingEndNamesTheOpeningLine) {
    Outcome r = run("x = 1\nwhile x < 3\n  x += 1\n", "s.ks");
    ASSERT_FALSE(r.result.ok);
    EXPECT_EQ(r.result.errorMessage, "Missing 'end' for while block");
    EXPECT_NE(r.result.errorReport.find("  at s.ks:2"), std::string::npos) << r.result.errorReport;
    EXPECT_NE(r.result.errorReport.find("\n  while x < 3\n"), std::string::npos) << r.result.errorReport;
}

// --- run results and state kept -----------------------------------------------------------

TEST(RunResult, TopLevelReturnHandsBackItsValue) {
    Outcome r = run("x = 20\nreturn x * 2 + 2\nprint(\"not reached\")");
    ASSERT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.result.value.toString(), "42");
    EXPECT_EQ(r.output, "");
    Outcome plain = run("x = 1");
    ASSERT_TRUE(plain.result.ok);
    EXPECT_TRUE(plain.result.value.isNil());
    EXPECT_TRUE(plain.result.errorMessage.empty());
    EXPECT_TRUE(plain.result.errorReport.empty());
}

TEST(RunResult, EmptyAndCommentOnlyScriptsRun) {
    for (std::string_view source : {"", "\n\n", "@@ nothing here", "  ;  ; "}) {
        Outcome r = run(source);
        EXPECT_TRUE(r.result.ok) << "[" << source << "] " << r.result.errorReport;
    }
}

TEST(RunState, GlobalsAndFunctionsOutliveTheRun) {
    KorvelScript script;
    std::string out;
    script.setOutput([&](std::string_view text) { out += text; });
    ASSERT_TRUE(script.runScript("count = 1\nfunction bump(n)\n  count += n\n  return count\nend").ok);
    Variable bump = script.pullVariable("bump");
    ASSERT_EQ(bump.type(), VarType::Function);
    EXPECT_EQ(script.callCallable(bump, {Variable(std::int32_t{5})}).toString(), "6");
    RunResult second = script.runScript("print(bump(10), count)");
    ASSERT_TRUE(second.ok) << second.errorReport;
    EXPECT_EQ(out, "16 16\n");
}

TEST(RunState, GlobalsKeepWhatAFailedRunReached) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    RunResult r = script.runScript("a = 1\nb = a / 0\nc = 3");
    ASSERT_FALSE(r.ok);
    EXPECT_EQ(script.pullVariable("a").toString(), "1");
    RunResult next = script.runScript("return typeOf(b) + \" \" + typeOf(c) + \" \" + a");
    ASSERT_TRUE(next.ok) << next.errorReport;
    EXPECT_EQ(next.value.toString(), "not not 1");
}

TEST(RunState, CaughtErrorDoesNotLeakIntoTheNextRun) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    ASSERT_TRUE(script.runScript("function f()\n  error(\"x\")\nend\nok, m = pcall(f)").ok);
    RunResult next = script.runScript("y = 1\nreturn y + 1");
    ASSERT_TRUE(next.ok) << next.errorReport;
    EXPECT_EQ(next.value.toString(), "2");
}

TEST(RunState, UncaughtErrorDoesNotLeakIntoTheNextRun) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    EXPECT_FALSE(script.runScript("function f()\n  error(\"x\")\nend\nf()").ok);
    RunResult next = script.runScript("return 5");
    ASSERT_TRUE(next.ok) << next.errorReport;
    EXPECT_EQ(next.value.toString(), "5");
    // A failed run deep inside calls leaves the frames clean: locals do not linger.
    EXPECT_FALSE(script.runScript("function g(v)\n  local inner = v\n  return 1 / 0\nend\ng(3)").ok);
    RunResult after = script.runScript("return typeOf(inner)");
    ASSERT_TRUE(after.ok);
    EXPECT_EQ(after.value.toString(), "not");
}

// --- statement messages that need more than one line --------------------------------------

struct MessageCase {
    const char* name;
    const char* source;
    const char* message;
};
class StatementMessage : public ::testing::TestWithParam<MessageCase> {};
TEST_P(StatementMessage, IsReportedExactly) {
    Outcome r = run(GetParam().source);
    EXPECT_FALSE(r.result.ok) << GetParam().name;
    EXPECT_EQ(r.result.errorMessage, GetParam().message) << GetParam().name << "\n" << r.result.errorReport;
}
INSTANTIATE_TEST_SUITE_P(Blocks, StatementMessage, ::testing::Values(
    MessageCase{"if without end", "if true\nx = 1", "Missing 'end' for if block"},
    MessageCase{"false if without end", "if false\nx = 1", "Missing 'end' for if block"},
    MessageCase{"else without end", "if false\nx = 1\nelse\nx = 2", "Missing 'end' for if block"},
    MessageCase{"while without end", "while false\nx = 1", "Missing 'end' for while block"},
    MessageCase{"for without end", "for i = 1, 2\nx = 1", "Missing 'end' for block"},
    MessageCase{"generic for without end", "for v in [1]\nx = 1", "Missing 'end' for block"},
    MessageCase{"function without end", "function f()\nx = 1", "Missing 'end' for block"},
    MessageCase{"repeat without until", "repeat\nx = 1", "Missing 'until' for repeat block"},
    MessageCase{"repeat closed by end", "repeat\nx = 1\nend", "Missing 'until' for repeat block"},
    MessageCase{"if trailing token", "if 1 2\nend", "Unexpected token after if condition"},
    MessageCase{"elseif trailing token", "if false\nelseif 1 2\nend", "Unexpected token after if condition"},
    MessageCase{"while trailing token", "while false false\nend", "Unexpected token after while condition"},
    MessageCase{"until without condition", "repeat\nuntil", "Missing until condition"},
    MessageCase{"until trailing token", "repeat\nuntil true 1", "Unexpected token after until condition"},
    MessageCase{"step zero", "for i = 1, 3, 0\nend", "for loop step must not be 0"},
    MessageCase{"float step zero", "for i = 1, 3, 0.0\nend", "for loop step must not be 0"},
    MessageCase{"no loop name", "for = 1, 2\nend", "Expected loop variable name"},
    MessageCase{"no comma", "for i = 1\nend", "Expected ',' after for start value"},
    MessageCase{"for trailing token", "for i = 1, 2, 1, 4\nend", "Unexpected token after for clause"},
    MessageCase{"start not numeric", "for i = \"1\", 2\nend", "for loop start value must be numeric"},
    MessageCase{"stop not numeric", "for i = 1, unknownStop\nend", "for loop stop value must be numeric"},
    MessageCase{"step not numeric", "for i = 1, 2, [1]\nend", "for loop step must be numeric"},
    MessageCase{"no in", "for a b c\nend", "Expected 'in' in generic for loop"},
    MessageCase{"iterator trailing token", "for v in [1] 2\nend", "Unexpected token after for iterator"},
    MessageCase{"iterator not array", "for v in \"abc\"\nend", "generic for loops expect an array iterator"},
    MessageCase{"pairs of string", "for k in pairs(\"s\")\nend", "pairs(container) expects an array or table"},
    MessageCase{"ipairs of nil", "for k in ipairs(nothing)\nend", "ipairs(container) expects an array or table"},
    MessageCase{"break outside loop", "if true\n  break\nend", "break used outside a loop"},
    MessageCase{"return two values", "return 1, 2", "Unexpected token after return value"},
    MessageCase{"trailing token", "x = 1 2", "Unexpected trailing token"},
    MessageCase{"call trailing token", "print(1) print(2)", "Unexpected trailing token"}),
    [](const ::testing::TestParamInfo<MessageCase>& info) { return caseName(info, &MessageCase::name); });
INSTANTIATE_TEST_SUITE_P(Functions, StatementMessage, ::testing::Values(
    MessageCase{"no target", "function\nend", "Expected function target"},
    MessageCase{"target bracket", "t = {}\nfunction t[\"a\"(x)\nend", "Expected closing bracket in function target"},
    MessageCase{"no parenthesis", "function f\nend", "Expected '(' after function target"},
    MessageCase{"bad parameter", "function f(\"a\")\nend", "Expected function parameter name"},
    MessageCase{"parameter separator", "function f(a b)\nend", "Expected ',' or ')' after function parameter"},
    MessageCase{"declaration trailing token", "function f() 1\nend", "Unexpected token after function declaration"},
    MessageCase{"local function no target", "local function\nend", "Expected function target"}),
    [](const ::testing::TestParamInfo<MessageCase>& info) { return caseName(info, &MessageCase::name); });
INSTANTIATE_TEST_SUITE_P(Assignments, StatementMessage, ::testing::Values(
    MessageCase{"compound unknown name", "score += 1", "Variable not found: score"},
    MessageCase{"compound unknown name in function", "function f()\n  tally *= 2\nend\nf()",
                "Variable not found: tally"},
    MessageCase{"compound unknown key", "t = {}\nt.gold += 5", "Table key not found: gold"},
    MessageCase{"compound unknown bracket key", "t = {a: {}}\nt[\"a\"][\"b\"] -= 1", "Table key not found: b"},
    MessageCase{"compound divide by zero", "x = 1\nx %= 0", "Division by zero"},
    MessageCase{"compound bad operand", "x = [1]\nx += 1", "Unsupported operation '+' between types"},
    MessageCase{"compound power result", "x = 0\nx ^= -1", "Invalid exponentiation result"},
    MessageCase{"index into int", "x = 5\nx[1] = 2", "Cannot assign by index into a value of type int"},
    MessageCase{"index into bool", "x = true\nx[\"k\"] = 2", "Cannot assign by index into a value of type bool"},
    MessageCase{"index into function", "print[1] = 2", "Cannot assign by index into a value of type function"},
    MessageCase{"index into missing", "nothing[1] = 2", "Cannot assign by index into a value of type not"},
    MessageCase{"array key", "t = {}\nt[[1]] = 2", "Table key must be string, number, or bool"}),
    [](const ::testing::TestParamInfo<MessageCase>& info) { return caseName(info, &MessageCase::name); });
INSTANTIATE_TEST_SUITE_P(Jumps, StatementMessage, ::testing::Values(
    MessageCase{"missing label", "jumpTo(\"nowhere\")", "jumpTo(label): no nest label 'nowhere' in this function"},
    MessageCase{"label of the caller", "nest outside\nfunction f()\n  jumpTo(\"outside\")\nend\nf()",
                "jumpTo(label): no nest label 'outside' in this function"},
    MessageCase{"empty label", "jumpTo(\"\")", "jumpTo(label) expects a non-empty label"},
    MessageCase{"no label", "jumpTo()", "jumpTo(label) expects exactly one string argument"},
    MessageCase{"number label", "jumpTo(5)", "jumpTo(label) expects exactly one string argument"}),
    [](const ::testing::TestParamInfo<MessageCase>& info) { return caseName(info, &MessageCase::name); });

// --- multi-value assignment ---------------------------------------------------------------

TEST(MultipleTargets, TakeResultsInOrderAndMissingOnesAreNil) {
    Outcome r = run(
        "a, b, c = pcall(typeOf, 1)\n"
        "print(a, b, c)\n"
        "t = {}\n"
        "t.x, t[\"y\"] = pcall(typeOf, \"s\")\n"
        "print(t.x, t.y)\n"
        "p, q = 7\n"
        "print(p, q)\n"
        "arr = [0, 0]\n"
        "arr[1], arr[2] = pcall(typeOf, arr)\n"
        "print(arr)\n");
    ASSERT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.output, "true int not\ntrue string\n7 not\n[true, array]\n");
}

// --- limits -------------------------------------------------------------------------------

TEST(Limits, UnboundedRecursionIsAScriptError) {
    Outcome r = run("function f()\n  return f()\nend\nf()", "deep.ks");
    ASSERT_FALSE(r.result.ok);
    EXPECT_EQ(r.result.errorMessage, "Call depth limit exceeded (recursion too deep)");
    EXPECT_EQ(r.result.errorReport.rfind("KorvelScript error: Call depth limit exceeded (recursion too deep)\n  at deep.ks:", 0), 0u)
        << r.result.errorReport;
}

TEST(Limits, RecursionWithArgumentsAndLocalsIsAScriptError) {
    Outcome r = run(
        "function f(a, b, c)\n  local x = [a, b, c]\n  local y = {k: x}\n  return f(a + 1, b, c) + 1\nend\n"
        "f(1, \"two\", 3.0)");
    ASSERT_FALSE(r.result.ok);
    EXPECT_EQ(r.result.errorMessage, "Call depth limit exceeded (recursion too deep)");
}

TEST(Limits, RecursionInsideExpressionsAndLoopsIsAScriptError) {
    Outcome r = run(
        "function f(n)\n  for i = 1, 1\n    while true\n      return [f(n + 1)]\n    end\n  end\nend\n"
        "print(f(0))");
    ASSERT_FALSE(r.result.ok);
    EXPECT_EQ(r.result.errorMessage, "Call depth limit exceeded (recursion too deep)");
}

TEST(Limits, TheInterpreterIsUsableAfterARunawayRecursion) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    EXPECT_FALSE(script.runScript("function f()\n  return f()\nend\nf()").ok);
    RunResult r = script.runScript("function g(n)\n  if n == 0\n    return 0\n  end\n  return g(n - 1) + 1\nend\nreturn g(500)");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "500");
}

TEST(Limits, CallDepthLimitCanBeLowered) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    script.setCallDepthLimit(50);
    const char* source = "function g(n)\n  if n == 0\n    return 0\n  end\n  return g(n - 1) + 1\nend\nreturn g(DEPTH)";
    std::string shallow = source;
    shallow.replace(shallow.find("DEPTH"), 5, "30");
    RunResult ok = script.runScript(shallow);
    ASSERT_TRUE(ok.ok) << ok.errorReport;
    EXPECT_EQ(ok.value.toString(), "30");
    std::string deep = source;
    deep.replace(deep.find("DEPTH"), 5, "80");
    RunResult failed = script.runScript(deep);
    EXPECT_FALSE(failed.ok);
    EXPECT_EQ(failed.errorMessage, "Call depth limit exceeded (recursion too deep)");
}

TEST(Limits, StringAppendIsNotQuadratic) {
    // 100,000 appends of 100 bytes: 10 MB in all. Copying the string on each append would
    // move about 500 GB.
    auto start = std::chrono::steady_clock::now();
    Outcome r = run(
        "piece = \"0123456789012345678901234567890123456789012345678901234567890123456789"
        "012345678901234567890123456789\"\n"
        "s = \"\"\nfor i = 1, 100000\n  s += piece\nend\nreturn #s");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.result.value.toString(), "10000000");
    EXPECT_LT(seconds, 3.0);
}

TEST(Limits, AppendToTableEntryIsNotQuadratic) {
    auto start = std::chrono::steady_clock::now();
    Outcome r = run(
        "t = {log: \"\"}\nlines = [\"\"]\n"
        "for i = 1, 100000\n  t.log += \"0123456789012345678901234567890123456789\"\n"
        "  lines[1] += \"0123456789012345678901234567890123456789\"\nend\n"
        "return #t.log + #lines[1]");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.result.value.toString(), "8000000");
    EXPECT_LT(seconds, 3.0);
}

TEST(Limits, ArrayGrowthByAppendIsNotQuadratic) {
    auto start = std::chrono::steady_clock::now();
    Outcome r = run("a = []\nfor i = 1, 1000000\n  a[i] = i\nend\nreturn #a + a[1000000]");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.result.value.toString(), "2000000");
    EXPECT_LT(seconds, 3.0);
}

TEST(Limits, AppendingToATableByLengthIsNotQuadratic) {
    // "t[#t + 1] = v" on a table: the length of a table must not be recounted from key 1
    // on every append.
    auto start = std::chrono::steady_clock::now();
    Outcome r = run("t = {}\nfor i = 1, 20000\n  t[#t + 1] = i\nend\nreturn #t");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.result.value.toString(), "20000");
    EXPECT_LT(seconds, 2.0);
}

TEST(Limits, PrintingASelfContainingTableEnds) {
    // The table is reachable from itself twice at every level, so printing by depth alone
    // would take time exponential in the depth.
    auto start = std::chrono::steady_clock::now();
    Outcome r = run("t = {a: 1}\nt.me = t\narr = [t]\nt.list = arr\nt.again = t\nprint(t)\nprint(arr)\n"
                    "s = toString(t) + t\nreturn t == t.me");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_LT(r.output.size(), 1024u * 1024);
    EXPECT_EQ(r.output.rfind("{a: 1, me: ", 0), 0u) << r.output.substr(0, 80);
    EXPECT_EQ(r.result.value.toString(), "true");
    EXPECT_LT(seconds, 2.0);
}

TEST(Limits, DeepNestingInOneLineIsAScriptError) {
    std::string open(200000, '(');
    std::string close(200000, ')');
    Outcome r = run("x = " + open + "1" + close);
    EXPECT_FALSE(r.result.ok);
    EXPECT_EQ(r.result.errorMessage, "Expression nested too deeply");
    std::string brackets = "y = " + std::string(200000, '[') + std::string(200000, ']');
    Outcome b = run(brackets);
    EXPECT_FALSE(b.result.ok);
    EXPECT_EQ(b.result.errorMessage, "Expression nested too deeply");
}

TEST(Limits, DeeplyNestedBlocksRun) {
    std::string source;
    for (int i = 0; i < 2000; ++i) source += "if true\n";
    source += "reached = 1\n";
    for (int i = 0; i < 2000; ++i) source += "end\n";
    source += "return reached";
    Outcome r = run(source);
    ASSERT_TRUE(r.result.ok) << r.result.errorMessage;
    EXPECT_EQ(r.result.value.toString(), "1");
}

TEST(Limits, DeeplyNestedFunctionDeclarationsDoNotCrash) {
    // 100,000 function declarations, each inside the previous one's body.
    std::string source;
    for (int i = 0; i < 100000; ++i) source += "function f" + std::to_string(i) + "()\n";
    source += "r = 1\n";
    for (int i = 0; i < 100000; ++i) source += "end\n";
    source += "return typeOf(f0)";
    Outcome r = run(source);
    if (r.result.ok) {
        EXPECT_EQ(r.result.value.toString(), "function");
    } else {
        EXPECT_FALSE(r.result.errorMessage.empty());
    }
}

TEST(Limits, DeeplyNestedLoopsRun) {
    std::string source;
    for (int i = 0; i < 100000; ++i) source += "while true\n";
    source += "r = 1\nbreak\n";
    for (int i = 0; i < 100000; ++i) source += "end\nbreak\n";
    source += "return r";
    Outcome r = run(source);
    if (r.result.ok) {
        EXPECT_EQ(r.result.value.toString(), "1");
    } else {
        EXPECT_FALSE(r.result.errorMessage.empty());
    }
}

TEST(Limits, StepBudgetStopsAnEndlessLoop) {
    KorvelScript script;
    script.setOutput([](std::string_view) {});
    script.setStepBudget(100000);
    auto start = std::chrono::steady_clock::now();
    RunResult r = script.runScript("while true\nend");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.errorMessage, "Step budget exhausted");
    EXPECT_LT(seconds, 5.0);
}

}  // namespace
}  // namespace korvel

namespace korvel {
namespace {

// An integer for loop whose body is one scalar assignment runs its iterations without the
// statement loop. The same loop with a second, idle line in its body takes the ordinary path:
// both must give the same values, the same messages and the same reports, whatever the body
// meets (a value that is not a number, a zero divisor, the loop variable changed).
TEST(OneLineLoop, BehavesLikeTheStatementLoop) {
    const char* loops[] = {"i = 1, 10", "i = 10, 1, -3", "i = 1, 10, 4", "i = 5, 4"};
    const char* bodies[] = {"s = s + i",     "s = s + a[i]", "i = i + 10",  "s = s * 1.5",
                            "s = s + t",     "s = i / (5 - i)", "s = i % (3 - i)", "i = 0.5 + i",
                            "s = s + b[i]", "s = i > 4 && s"};
    int compared = 0;
    for (const char* loop : loops)
        for (const char* body : bodies) {
            auto script = [&](bool idleLine) {
                std::string text = "function run()\n  local s = 0\n  local i = 0\n  local t = {}\n";
                text += "  local a = [1, 2, 3, \"x\", 5, 6, 7, 8, 9, 10]\n  local b = [1.5, 2, true]\n";
                text += std::string("  for ") + loop + "\n    " + body + "\n";
                if (idleLine) text += "    t = t\n";
                text += "  end\n  return [s, i]\nend\nreturn run()";
                KorvelScript vm;
                vm.setOutput([](std::string_view) {});
                return vm.runScript(text, "loop.ks");
            };
            RunResult fast = script(false), ordinary = script(true);
            ASSERT_EQ(fast.ok, ordinary.ok) << loop << ": " << body << "\n" << fast.errorReport << ordinary.errorReport;
            EXPECT_EQ(fast.errorReport, ordinary.errorReport) << loop << ": " << body;
            EXPECT_EQ(fast.value.toString(), ordinary.value.toString()) << loop << ": " << body;
            ++compared;
        }
    EXPECT_EQ(compared, 40);
}

}  // namespace
}  // namespace korvel
