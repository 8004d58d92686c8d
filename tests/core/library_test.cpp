// The built-in library seen from scripts: results and exact messages of the string, table,
// math and utf8 functions; gsub's two matching engines against each other; the fast dispatch
// of built-ins against the ordinary call; the guards that keep hostile patterns from hanging
// or overflowing the stack; loadFile and runFile; the sandbox.
#include "core/gsub.h"
#include "core/interpreter_internal.h"
#include "core/korvel_script.h"

#include "tests/core/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace korvel {
namespace {

using testing_support::caseName;

struct Outcome {
    RunResult result;
    std::string output;
};

Outcome run(std::string_view source, bool sandboxed = false) {
    KorvelScript script;
    script.setSandboxed(sandboxed);
    Outcome r;
    script.setOutput([&](std::string_view text) { r.output += text; });
    r.result = script.runScript(source, "test.ks");
    return r;
}

// --- results ------------------------------------------------------------------------------

struct ResultCase {
    const char* source;
    const char* output;
};
class LibraryResult : public ::testing::TestWithParam<ResultCase> {};
TEST_P(LibraryResult, PrintsExpectedOutput) {
    Outcome r = run(GetParam().source);
    EXPECT_TRUE(r.result.ok) << GetParam().source << "\n" << r.result.errorReport;
    EXPECT_EQ(r.output, GetParam().output) << GetParam().source;
}
std::string resultName(const ::testing::TestParamInfo<ResultCase>& info) { return caseName(info, &ResultCase::source); }

INSTANTIATE_TEST_SUITE_P(String, LibraryResult, ::testing::Values(
    ResultCase{"print(string.sub(\"hello\", 2, 4))", "ell\n"},
    ResultCase{"print(string.sub(\"hello\", -3))", "llo\n"},
    ResultCase{"print(string.sub(\"hello\", 4, 2) == \"\")", "true\n"},
    ResultCase{"print(string.sub(\"hello\", -100, 2))", "he\n"},
    ResultCase{"print(upper(\"aBc1\"), lower(\"MiXeD 42\"))", "ABC1 mixed 42\n"},
    ResultCase{"print(string.len(\"\"), string.len(\"abc\"))", "0 3\n"},
    ResultCase{"print(string.rep(\"ab\", 3, \"-\"), string.rep(\"x\", 0) == \"\")", "ab-ab-ab true\n"},
    ResultCase{"a, b = byte(\"abc\", 2, 3); print(byte(\"A\"), a, b, char(72, 105))", "65 98 99 Hi\n"},
    ResultCase{"a, b = find(\"hello\", \"l+\"); print(a, b)", "3 4\n"},
    ResultCase{"a, b = find(\"a.b\", \".\", 1, true); print(a, b)", "2 2\n"},
    ResultCase{"print(find(\"abc\", \"x\"))", "not\n"},
    ResultCase{"k, v = match(\"key=val\", \"(%w+)=(%w+)\"); print(k, v)", "key val\n"},
    ResultCase{"print(match(\"  trim me  \", \"^%s*(.-)%s*$\") + \"|\")", "trim me|\n"},
    ResultCase{"print(match(\"2024-01-05\", \"%d+\", 5))", "01\n"},
    ResultCase{"print(format(\"%5.2f|%-4d|%s|%x|%%\", 3.14159, 7, \"s\", 255))", " 3.14|7   |s|ff|%\n"},
    ResultCase{"print(format(\"%q\", \"a\\\"b\"), format(\"%c%d\", 65, 3.7))", "\"a\\\"b\" A3\n"},
    // Bare %s and %d (their own quick path) against the flagged forms of the C formatter.
    ResultCase{"print(format(\"<%s|%d|%i|%s|%s>\", 12, -7.9, true, [1, 2], 1.5))", "<12|-8|1|[1, 2]|1.500000>\n"},
    ResultCase{"print(format(\"%d%d=%s%s\", 1, 2, \"x\", \"\") + \"|\" + format(\"%0d|%-d\", 5, 6))", "12=x|5|6\n"},
    ResultCase{"print(format(\"%d\", 0 - 2147483647 - 1) + format(\"%1d\", 0 - 2147483647 - 1))", "-2147483648-2147483648\n"},
    ResultCase{"print(gsub(\"hello world\", \"o\", \"0\"))", "hell0 w0rld\n"},
    ResultCase{"print(string.gsub(\"$name is $age\", \"%$(%a+)\", {name: \"Bo\", age: 3}))", "Bo is 3\n"},
    ResultCase{"print(gsub(\"a-b\", \"%a\", {a: false, b: \"B\"}))", "a-B\n"},
    ResultCase{"function up(c)\nreturn upper(c)\nend\nprint(gsub(\"a b\", \"%a\", up))", "A B\n"},
    ResultCase{"function keep(c)\nend\nprint(gsub(\"a b\", \"%a\", keep))", "a b\n"},
    ResultCase{"print((\"x-y\")[\"gsub\"](\"%-\", \"+\"))", "x+y\n"},
    ResultCase{"print(gsub(\"Hello HELLO\", \"(?i)hello\", \"x\"))", "x x\n"},
    ResultCase{"print(gsub(\"a\\nb\", \"(?m)^\", \"> \"))", "> a\n> b\n"},
    ResultCase{"for w in gmatch(\"one two\", \"%a+\")\nprint(w)\nend", "one\ntwo\n"},
    ResultCase{"for k, v in string.gmatch(\"a=1, b=2\", \"(%w+)=(%w+)\")\nprint(k, v)\nend", "a 1\nb 2\n"},
    ResultCase{"for w in gmatch(\"abc\", \"x*\")\nio.write(\"[\", w, \"]\")\nend\nprint()", "[][][][]\n"},
    ResultCase{"for p in gmatch(\"hello\", \"()l\")\nprint(p)\nend", "3\n4\n"},
    ResultCase{"for w in gmatch(\"aaa\", \"^a\")\nprint(w)\nend", "a\n"},
    ResultCase{"it = gmatch(\"x y\", \"%a\"); print(it(), it(), it())", "x y not\n"},
    // Positions far outside any string (a regression: the conversion to an integer overflowed).
    ResultCase{"big = toNumber(\"1e30\"); print(string.sub(\"hello\", -big, big), string.sub(\"hello\", big) == \"\")",
               "hello true\n"},
    ResultCase{"big = toNumber(\"1e30\"); print(find(\"abc\", \"b\", big), match(\"abc\", \".\", -big), byte(\"abc\", -big))",
               "not a 97\n"}),
    resultName);

INSTANTIATE_TEST_SUITE_P(Table, LibraryResult, ::testing::Values(
    // Stores into arrays: in place, at the next place (the array grows, shared by every name
    // that holds it), past the end (the gap is filled), at 0 (the array becomes a table).
    ResultCase{"a = [1, 2]\nb = a\na[3] = 9\nc = []\nfor i = 1, 3\n  c[i] = i * i\nend\nprint(a, b, c)",
               "[1, 2, 9] [1, 2, 9] [1, 4, 9]\n"},
    ResultCase{"d = [1]\nd[3] = 5\ne = [1]\ne[0] = 7\nf = [1]\nf[2.0] = \"x\"\nprint(d, #d, e, f)",
               "[1, not, 5] 3 {1: 1, 0: 7} [1, x]\n"},
    ResultCase{"t = [1, 2]; insert(t, 3); insert(t, 1, 0); print(t)", "[0, 1, 2, 3]\n"},
    ResultCase{"t = [1, 2, 3]; print(remove(t), remove(t, 1), t)", "3 1 [2]\n"},
    ResultCase{"t = []; print(table.remove(t))", "not\n"},
    ResultCase{"big = toNumber(\"1e30\"); print(remove([1], -big), concat([1, 2], \"\", -big, big))", "not 12\n"},
    // A float key far beyond any array names no place, like a text key.
    ResultCase{"k1, v1 = next([5], toNumber(\"1e30\")); k2, v2 = next([5], \"x\"); print(k1 == k2, v1 == v2)",
               "true true\n"},
    ResultCase{"print(concat([1, \"a\", 2.5], \", \"), table.concat([1, 2, 3, 4], \"-\", 2, 3))", "1, a, 2.500000 2-3\n"},
    ResultCase{"t = [3, 1, 2]; sort(t); u = [\"b\", \"c\", \"a\"]; table.sort(u); print(t, u)", "[1, 2, 3] [a, b, c]\n"},
    ResultCase{"function later(a, b)\nreturn a > b\nend\nt = [1, 3, 2]; sort(t, later); print(t)", "[3, 2, 1]\n"},
    ResultCase{"t = {}; t[1] = \"b\"; t[2] = \"a\"; sort(t); print(t[1], t[2])", "a b\n"}),
    resultName);

INSTANTIATE_TEST_SUITE_P(Math, LibraryResult, ::testing::Values(
    ResultCase{"print(floor(2.7), math.floor(-2.5), ceil(2.1), math.ceil(-2.1))", "2 -3 3 -2\n"},
    ResultCase{"print(math.abs(-5), math.abs(-2.5))", "5 2.500000\n"},
    ResultCase{"print(math.min(3, 1, 2), math.max(1, 2.5), math.max(\"a\", \"b\"))", "1 2.500000 b\n"},
    ResultCase{"print(sqrt(16), math.log(8, 2), math.log(1))", "4.000000 3.000000 0.000000\n"},
    ResultCase{"print(math.rad(180), math.sin(0), math.cos(0))", "3.141593 0.000000 1.000000\n"},
    ResultCase{"math.randomSeed(7); a = random(1, 100); math.randomSeed(7); print(a == random(1, 100))", "true\n"},
    ResultCase{"x = random(3, 3); y = random(1); print(x, y)", "3 1\n"}),
    resultName);

INSTANTIATE_TEST_SUITE_P(Utf8, LibraryResult, ::testing::Values(
    ResultCase{"print(utf8.len(\"h\xC3\xA9llo\"), utf8.len(\"\"))", "5 0\n"},
    ResultCase{"print(utf8.offset(\"h\xC3\xA9llo\", 3), utf8.offset(\"h\xC3\xA9llo\", -1))", "4 6\n"},
    ResultCase{"print(utf8.offset(\"abc\", 5))", "not\n"}),
    resultName);

// --- messages -----------------------------------------------------------------------------

struct MessageCase {
    const char* source;
    const char* message;
};
class LibraryMessage : public ::testing::TestWithParam<MessageCase> {};
TEST_P(LibraryMessage, FailsWithExactMessage) {
    Outcome r = run(GetParam().source);
    EXPECT_FALSE(r.result.ok) << GetParam().source;
    EXPECT_EQ(r.result.errorMessage, GetParam().message) << GetParam().source;
}
std::string messageName(const ::testing::TestParamInfo<MessageCase>& info) { return caseName(info, &MessageCase::source); }

INSTANTIATE_TEST_SUITE_P(EdgeCases, LibraryMessage, ::testing::Values(
    MessageCase{"random(5, 3)", "random function requires min <= max"},
    MessageCase{"pop([])", "pop(array): array is empty"},
    MessageCase{"gsub(\"abc\", \"%a\", {b: 1})", "gsub replacement table missing key: a"},
    MessageCase{"math.log(8, 1)", "math['log'] base must be positive and not equal to 1"}),
    messageName);

INSTANTIATE_TEST_SUITE_P(String, LibraryMessage, ::testing::Values(
    MessageCase{"string.sub(\"abc\")", "string['sub'](s, i[, j]) requires a string and 1-2 numeric indices"},
    MessageCase{"upper(1)", "string['upper'](s) requires exactly 1 string argument"},
    MessageCase{"lower()", "string['lower'](s) requires exactly 1 string argument"},
    MessageCase{"string.len(1)", "string['len'](s) requires exactly 1 string argument"},
    MessageCase{"find(\"abc\")", "string['find'](s, pattern[, init[, plain]]) requires a string and a pattern"},
    MessageCase{"match(1, \"a\")", "string['match'](s, pattern[, init]) requires a string and a pattern"},
    MessageCase{"gmatch(\"abc\")", "string['gmatch'](s, pattern) requires a string and a pattern"},
    MessageCase{"byte(5)", "string['byte'](s[, i[, j]]) requires a string"},
    MessageCase{"string.rep(\"a\")", "string['rep'](s, n[, sep]) requires a string, count, and optional separator"},
    MessageCase{"format(1)", "string['format'](format, ...) requires a format string"},
    MessageCase{"format(\"%\")", "string['format']: incomplete format specifier"},
    MessageCase{"format(\"%5d\")", "string['format']: missing argument for format specifier %5d"},
    MessageCase{"format(\"%y\", 1)", "string['format']: unsupported specifier %y"},
    MessageCase{"format(\"%d\", \"x\")", "string['format']: failed to format value"},
    MessageCase{"format(\"%d\", toNumber(\"1e30\"))", "string['format']: failed to format value"},
    MessageCase{"format(\"%x\", toNumber(\"-1e30\"))", "string['format']: failed to format value"},
    MessageCase{"string.rep(\"a\", toNumber(\"1e30\"))", "string['rep'] result is too large"},
    MessageCase{"char(toNumber(\"1e30\"))", "string['char'] byte value out of range"},
    MessageCase{"match(\"abc\", \"(a\")", "malformed pattern: unfinished capture"},
    MessageCase{"gsub(\"a\", \"a\")", "gsub(string, pattern, replacement) requires exactly 3 arguments"},
    MessageCase{"(\"a\")[\"gsub\"](\"a\")", "gsub(string, pattern, replacement) requires exactly 3 arguments"},
    MessageCase{"gsub(1, \"a\", \"b\")", "gsub(string, pattern, replacement): first argument must be a string"},
    MessageCase{"gsub(\"a\", 1, \"b\")", "gsub(string, pattern, replacement): second argument must be a string pattern"},
    MessageCase{"gsub(\"a\", \"a\", 1)", "gsub(string, pattern, replacement): replacement must be a string or table"},
    MessageCase{"gsub(\"a\", \"(a\", \"b\")", "gsub: invalid regex pattern '(a"},
    MessageCase{"gsub(\"a\", \"%a)\", \"b\")", "gsub: invalid regex pattern '%a)"},
    MessageCase{"gsub(\"a\", \"[a\", \"b\")", "gsub: invalid regex pattern '[a"},
    MessageCase{"gsub(\"a\", \"a%\", \"b\")", "gsub: invalid regex pattern 'a%"},
    MessageCase{"gsub(\"a\", \"(a)%2\", \"b\")", "gsub: invalid regex pattern '(a)%2"},
    MessageCase{"gsub(\"a\", \"(a%1)\", \"b\")", "gsub: invalid regex pattern '(a%1)"},
    MessageCase{"gsub(\"a\", \"%b(\", \"b\")", "gsub: invalid regex pattern '%b("},
    MessageCase{"gsub(\"a\", \"(?x)a\", \"b\")", "gsub: unsupported regex flag 'x' (supported: i, m)"},
    MessageCase{"gsub(\"a\", \"(?is)a\", \"b\")", "gsub: unsupported regex flag 's' (supported: i, m)"},
    MessageCase{"gsub(\"a\", \"a\", \"%2\")", "gsub: invalid capture index %2 in replacement string"},
    MessageCase{"gsub(\"a\", \"a\", \"%x\")", "gsub: invalid use of '%' in replacement string"},
    MessageCase{"gsub(\"a\", \"a\", {a: [1]})", "gsub: invalid replacement value (a array)"},
    MessageCase{"gsub(string.rep(\"a\", 30), \"a*a*a*a*a*a*a*a*a*a*a*b\", \"x\")", "pattern too complex"}),
    messageName);

INSTANTIATE_TEST_SUITE_P(Table, LibraryMessage, ::testing::Values(
    MessageCase{"insert(5, 1)", "table['insert'](table[, pos], value) requires an array or table"},
    MessageCase{"insert([1], 5, 2)", "table['insert']: position out of bounds"},
    MessageCase{"insert([1], toNumber(\"1e30\"), 2)", "table['insert']: position out of bounds"},
    MessageCase{"remove(\"x\")", "table['remove'](table[, pos]) requires an array or table"},
    MessageCase{"concat(1)", "table['concat'](table[, sep[, i[, j]]]) requires an array or table"},
    MessageCase{"sort([1], 5)", "table['sort'](table[, comp]) requires an array or table"},
    MessageCase{"sort([1, \"a\"])", "Cannot compare string with int"}),
    messageName);

INSTANTIATE_TEST_SUITE_P(Math, LibraryMessage, ::testing::Values(
    MessageCase{"math.log(0)", "math['log'] requires a positive value"},
    MessageCase{"math.log()", "math['log'](x[, base]) requires 1 or 2 arguments"},
    MessageCase{"math.sqrt(-1)", "math['sqrt'] requires a non-negative value"},
    MessageCase{"sqrt()", "math['sqrt'](x) requires exactly 1 argument"},
    MessageCase{"floor(\"x\")", "math['floor'](x) requires exactly 1 argument"},
    MessageCase{"math.ceil(1, 2)", "math['ceil'](x) requires exactly 1 argument"},
    MessageCase{"math.abs()", "math['abs'](x) requires exactly 1 argument"},
    MessageCase{"math.sin()", "math['sin'](x) requires exactly 1 argument"},
    MessageCase{"math.cos(\"a\")", "math['cos'](x) requires exactly 1 argument"},
    MessageCase{"math.rad()", "math['rad'](x) requires exactly 1 argument"},
    MessageCase{"math.min()", "math['min'](...) requires at least 1 argument"},
    MessageCase{"math.max()", "math['max'](...) requires at least 1 argument"},
    MessageCase{"random(0)", "random function requires a positive maximum value"},
    MessageCase{"random(1.5)", "random function with one argument requires an integer"},
    MessageCase{"random(1, \"2\")", "random function with two arguments requires integers"},
    MessageCase{"random(1, 2, 3)", "random function takes 0, 1, or 2 arguments"},
    MessageCase{"math.randomSeed()", "math['randomSeed'](seed) requires exactly 1 argument"}),
    messageName);

INSTANTIATE_TEST_SUITE_P(Utf8, LibraryMessage, ::testing::Values(
    MessageCase{"utf8.len(5)", "utf8['len'](s) requires exactly 1 string argument"},
    MessageCase{"utf8.offset(\"abc\", \"x\")", "utf8['offset'](s, n[, i]) requires a string and a codepoint index"}),
    messageName);

// --- gsub: both engines give Lua's results --------------------------------------------------

struct GsubCase {
    const char* subject;
    const char* pattern;
    const char* replacement;
    const char* expected;
};
class GsubEngines : public ::testing::TestWithParam<GsubCase> {};
TEST_P(GsubEngines, RegularExpressionAndMatcherAgree) {
    const GsubCase& c = GetParam();
    std::shared_ptr<const GsubPattern> pattern = compileGsubPattern(c.pattern);
    // Plain text needs no engine; only %b, %f and ranges beyond ASCII are left to the matcher.
    std::string_view text = c.pattern;
    bool highBytes = std::any_of(text.begin(), text.end(), [](char ch) { return static_cast<unsigned char>(ch) >= 0x80; });
    bool regexExpected = !pattern->plain && text.find("%b") == std::string_view::npos && text.find("%f") == std::string_view::npos && !highBytes;
    EXPECT_EQ(pattern->hasRegex, regexExpected) << c.pattern << " -> " << pattern->translation;
    GsubCall noCall = [](const std::vector<Variable>&) { return Variable(); };
    for (GsubEngine engine : {GsubEngine::RegularExpression, GsubEngine::Matcher, GsubEngine::Automatic}) {
        GsubBudget budget;
        budget.stackRoom = std::size_t(1) << 30;
        EXPECT_EQ(substituteMatches(*pattern, c.subject, Variable(c.replacement), noCall, engine, budget), c.expected)
            << "pattern " << c.pattern << " engine " << static_cast<int>(engine);
    }
}
std::string gsubName(const ::testing::TestParamInfo<GsubCase>& info) { return caseName(info, &GsubCase::pattern); }

// Expectations without flags are what Lua 5.4's string.gsub gives.
INSTANTIATE_TEST_SUITE_P(Patterns, GsubEngines, ::testing::Values(
    GsubCase{"hello world", "(%a+)", "<%1>", "<hello> <world>"},
    GsubCase{"abc", "%a*", "-", "-"},
    GsubCase{"abc", "x*", "-", "-a-b-c-"},
    GsubCase{"abc", "b*", "-", "-a-c-"},
    GsubCase{"", "a*", "x", "x"},
    GsubCase{"hello", "l+", "L", "heLo"},
    GsubCase{"hello", "^h", "H", "Hello"},
    GsubCase{"hello", "^l", "L", "hello"},
    GsubCase{"abc", "^", "!", "!abc"},
    GsubCase{"abc", "$", "!", "abc!"},
    GsubCase{"hello", "o$", "O!", "hellO!"},
    GsubCase{"a.b.c", "%.", "/", "a/b/c"},
    GsubCase{"a.b.c", ".", "x", "xxxxx"},
    GsubCase{"line1\nline2", ".+", "x", "x"},
    GsubCase{"one two  three", "%s+", "_", "one_two_three"},
    GsubCase{"key = value", "(%w+)%s*=%s*(%w+)", "%2=%1", "value=key"},
    GsubCase{"abc", "%w", "%0%0", "aabbcc"},
    GsubCase{"100%", "%%", " percent", "100 percent"},
    GsubCase{"<a><bb>", "<(.-)>", "[%1]", "[a][bb]"},
    GsubCase{"<a><bb>", "<(.*)>", "[%1]", "[a><bb]"},
    GsubCase{"aaa", "a-", "x", "xaxaxax"},
    GsubCase{"aaa", "a?", "x", "xxx"},
    GsubCase{"hello", "()ll()", "%1-%2", "he3-5o"},
    GsubCase{"Hello, World!", "%p", "", "Hello World"},
    GsubCase{"Hello, World!", "%P", ".", ".....,......!"},
    GsubCase{"ABC def", "%u", "u", "uuu def"},
    GsubCase{"ABC def", "%l+", "L", "ABC L"},
    GsubCase{"0x1F zz", "%x+", "H", "HxH zz"},
    GsubCase{"a1b2c3", "%D", "#", "#1#2#3"},
    GsubCase{"tab\there", "%c", "^", "tab^here"},
    GsubCase{"a b\tc", "%S+", "w", "w w\tw"},
    GsubCase{"a,b", "%G", "_", "a,b"},
    GsubCase{"abcabc", "[^ab]", "-", "ab-ab-"},
    GsubCase{"a-b-c", "[a-]", "+", "++b+c"},
    GsubCase{"a]b", "[]]", "!", "a!b"},
    GsubCase{"a]b^", "[^]]", "!", "!]!!"},
    GsubCase{"x%]y", "[%]]", "!", "x%!y"},
    GsubCase{"a\\b", "[\\]", "/", "a/b"},
    GsubCase{"a1_b2", "[%a_]+", "w", "w1w2"},
    GsubCase{"a1_b2", "[%d%u]", "d", "ad_bd"},
    GsubCase{"a b\tc", "[%S]+", "w", "w w\tw"},
    GsubCase{"zyx", "[z-a]", "!", "zyx"},
    GsubCase{"zyx", "[^z-a]", "!", "!!!"},
    GsubCase{"abab", "(ab)%1", "X", "X"},
    GsubCase{"hello hello world", "(%w+) %1", "%1", "hello world"},
    GsubCase{"a+b", "a+b", "x", "a+b"},
    GsubCase{"a+b", "a%+b", "x", "x"},
    GsubCase{"$10", "%$%d+", "money", "money"},
    GsubCase{"[x]", "%[(.-)%]", "%1", "x"},
    GsubCase{"x^y", "x^y", "z", "z"},
    GsubCase{"x$y", "x$y", "z", "z"},
    GsubCase{"a{b}c|d", "[{}|]", "", "abcd"},
    GsubCase{"a*b", "*", "x", "axb"},
    GsubCase{"f(a(b)c) d", "%b()", "[]", "f[] d"},
    GsubCase{"THE (quick) fox", "%f[%a]%a+", "w", "w (w) w"},
    GsubCase{"caf\xC3\xA9", "[\x80-\xFF]+", "?", "caf?"},
    GsubCase{"a\nb", "\n", " / ", "a / b"}),
    gsubName);

// With flags: "i" widens letters, ranges and classes to both cases; "m" makes "^" and "$"
// match at line breaks.
INSTANTIATE_TEST_SUITE_P(Flags, GsubEngines, ::testing::Values(
    GsubCase{"Hello HELLO hello", "(?i)hello", "x", "x x x"},
    GsubCase{"ABCdef", "(?i)[a-c]+", "x", "xdef"},
    GsubCase{"aB1", "(?i)%u", "x", "xx1"},
    GsubCase{"aB1", "(?i)%U", "x", "aBx"},
    GsubCase{"hH", "(?i)(h)%1", "x", "x"},
    GsubCase{"abc", "(?i)", "-", "-a-b-c-"},
    GsubCase{"a\nb\nc", "(?m)^", "> ", "> a\n> b\n> c"},
    GsubCase{"a\nb", "(?m)$", ";", "a;\nb;"},
    GsubCase{"a\r\nb", "(?m)^%a", "X", "X\r\nX"},
    GsubCase{"Hi\nhello", "(?im)^h", "x", "xi\nxello"},
    GsubCase{"ab\nab", "^a", "x", "xb\nab"}),
    gsubName);

TEST(GsubEngines, PlainPatternsNeedNoEngine) {
    for (const char* text : {"abc", "a]b", "x)y", "hello world"}) {
        std::shared_ptr<const GsubPattern> pattern = compileGsubPattern(text);
        EXPECT_TRUE(pattern->plain) << text;
        EXPECT_FALSE(pattern->hasRegex) << text;
    }
    for (const char* text : {"a.b", "(?i)abc", "%a", "a*"}) EXPECT_FALSE(compileGsubPattern(text)->plain) << text;
}

TEST(GsubEngines, TranslatesClassesAsDocumented) {
    struct Translation {
        const char* pattern;
        const char* regex;
    };
    for (const Translation& t : {Translation{"%a", "[A-Za-z]"}, Translation{"%A", "[^A-Za-z]"},
                                 Translation{"%u%l", "[A-Z][a-z]"}, Translation{"%x", "[A-Fa-f0-9]"},
                                 Translation{"%p", "[!-/:-@\\[-`\\{-~]"}, Translation{".", "[\\s\\S]"},
                                 Translation{"[%a_]", "[A-Za-z_]"}, Translation{"^%d+$", "^[0-9]+$"},
                                 Translation{"a-", "a*?"}, Translation{"(%w+)", "([A-Za-z0-9]+)"}}) {
        EXPECT_EQ(compileGsubPattern(t.pattern)->translation, t.regex) << t.pattern;
    }
}

// --- gsub: hostile input neither hangs nor overflows the stack ------------------------------

TEST(GsubGuards, LongSubjectsRunOnTheMatcher) {
    std::string subject(2'000'000, 'a');
    subject[1'000'000] = ' ';
    std::shared_ptr<const GsubPattern> pattern = compileGsubPattern("%s+");
    GsubCall noCall = [](const std::vector<Variable>&) { return Variable(); };
    GsubBudget budget;
    budget.stackRoom = std::size_t(1) << 20;
    std::string result = substituteMatches(*pattern, subject, Variable("_"), noCall, GsubEngine::Automatic, budget);
    EXPECT_EQ(result.size(), subject.size());
    EXPECT_EQ(result[1'000'000], '_');
    // A whole-subject match would recurse once per byte in the regular expression.
    EXPECT_EQ(substituteMatches(*compileGsubPattern("^(.*)$"), subject, Variable("<%1>"), noCall,
                                GsubEngine::Automatic, budget).size(),
              subject.size() + 2);
}

TEST(GsubGuards, BacktrackingBombsStopWithAnError) {
    auto started = std::chrono::steady_clock::now();
    Outcome r = run("s = string.rep(\"a\", 5000)\n"
                    "ok, m = pcall(gsub, s, \"a*a*a*a*a*a*b\", \"x\")\nprint(m)\n"
                    "ok, m = pcall(gsub, s, \"(?i)a-a-a-a-a-b\", \"x\")\nprint(m)");
    EXPECT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.output, "pattern too complex\npattern too complex\n");
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
}

TEST(GsubGuards, PatternWorkCountsAgainstTheStepBudget) {
    // One search costs some 36,000 matcher steps; a budget of 20,000 statements allows 100
    // steps per statement for the whole run, so the searches fail after about 55 rounds while
    // the statements would last far longer. Without a budget all 1,000 rounds run.
    const char* source = "s = string.rep(\"a\", 60)\nn = 0\n"
                         "while n < 1000\nok, m = pcall(find, s, \"a*a*b\")\nif !ok\nbreak\nend\nn += 1\nend\n"
                         "print(n, m)";
    KorvelScript budgeted;
    budgeted.setStepBudget(20000);
    std::string output;
    budgeted.setOutput([&](std::string_view text) { output += text; });
    RunResult result = budgeted.runScript(source);
    EXPECT_TRUE(result.ok) << result.errorReport;
    int rounds = std::stoi(output);
    EXPECT_GT(rounds, 20) << output;
    EXPECT_LT(rounds, 100) << output;
    EXPECT_NE(output.find(" pattern too complex"), std::string::npos) << output;

    KorvelScript unlimited;
    output.clear();
    unlimited.setOutput([&](std::string_view text) { output += text; });
    result = unlimited.runScript(source);
    EXPECT_TRUE(result.ok) << result.errorReport;
    EXPECT_EQ(output, "1000 not\n");
}

TEST(GsubGuards, HugePatternsAreRefusedOrMatched) {
    // Too many captures, and a pattern far longer than the regular expression compiler's
    // recursion allows.
    Outcome r = run("ok, m = pcall(gsub, \"a\", string.rep(\"(\", 40) + \"a\" + string.rep(\")\", 40), \"x\")\nprint(m)\n"
                    "p = string.rep(\"a.\", 50000)\nprint(gsub(string.rep(\"ab\", 50000), p, \"\") == \"\")");
    EXPECT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.output.substr(0, 34), "gsub: invalid regex pattern '(((((");
    EXPECT_NE(r.output.find("\ntrue\n"), std::string::npos) << r.output;
}

// --- fast dispatch of built-ins -------------------------------------------------------------

// Each call runs once through the built-in's own name (dispatched directly) and once through
// another name (the ordinary call); results and messages must be the same.
struct DispatchCase {
    const char* function;
    const char* arguments;
};
class FastDispatch : public ::testing::TestWithParam<DispatchCase> {};
TEST_P(FastDispatch, MatchesTheOrdinaryCall) {
    std::string call = std::string(GetParam().function) + "(" + GetParam().arguments + ")";
    std::string aliased = std::string("alias(") + GetParam().arguments + ")";
    std::string setup = std::string("alias = ") + GetParam().function + "\n";
    Outcome direct = run(setup + "r = " + call + "\nprint(r)");
    Outcome ordinary = run(setup + "r = " + aliased + "\nprint(r)");
    EXPECT_EQ(direct.output, ordinary.output) << call;
    EXPECT_EQ(direct.result.ok, ordinary.result.ok) << call;
    EXPECT_EQ(direct.result.errorMessage, ordinary.result.errorMessage) << call;
}
std::string dispatchName(const ::testing::TestParamInfo<DispatchCase>& info) {
    return caseName(info, &DispatchCase::function);
}
INSTANTIATE_TEST_SUITE_P(Builtins, FastDispatch, ::testing::Values(
    DispatchCase{"len", "[1, 2]"}, DispatchCase{"len", "5"}, DispatchCase{"len", ""},
    DispatchCase{"toString", "1.5"}, DispatchCase{"toNumber", "\"ff\", 16"}, DispatchCase{"toNumber", ""},
    DispatchCase{"select", "2, \"a\", \"b\""}, DispatchCase{"select", "0, 1"},
    DispatchCase{"pcall", "error, \"boom\""}, DispatchCase{"assert", "false, \"held\""}, DispatchCase{"error", "\"x\""},
    DispatchCase{"next", "{a: 1}"}, DispatchCase{"pairs", "3"}, DispatchCase{"ipairs", "[1]"},
    DispatchCase{"load", "\"return 4\""}, DispatchCase{"getTimeMs", "1"}, DispatchCase{"collectGarbage", ""},
    DispatchCase{"math.abs", "-3"}, DispatchCase{"math.min", "4, 2, 9"}, DispatchCase{"math.max", ""},
    DispatchCase{"math.sin", "\"a\""}, DispatchCase{"math.cos", "0"}, DispatchCase{"math.rad", "90"},
    DispatchCase{"math.log", "8, 1"}, DispatchCase{"math.ceil", "1.2"}, DispatchCase{"math.sqrt", "-4"},
    DispatchCase{"math.floor", "-1.5"}, DispatchCase{"floor", "2, 3"}, DispatchCase{"string.len", "\"abc\""},
    DispatchCase{"string.sub", "\"hello\", 2, 3"}, DispatchCase{"string.sub", "1"},
    DispatchCase{"table.sort", "[3, 1]"}, DispatchCase{"sort", "\"x\""},
    DispatchCase{"string.find", "\"abc\", \"b\""}, DispatchCase{"find", "\"abc\""},
    DispatchCase{"string.byte", "\"A\""}, DispatchCase{"string.gsub", "\"aaa\", \"a\", \"b\""},
    DispatchCase{"gsub", "\"a\", \"(a\", \"b\""}, DispatchCase{"string.upper", "\"abc\""}, DispatchCase{"upper", "[]"},
    DispatchCase{"string.match", "\"k=v\", \"(%w)=(%w)\""}, DispatchCase{"table.insert", "[1], 2"},
    DispatchCase{"insert", "1, 2"}, DispatchCase{"table.remove", "[1, 2]"}, DispatchCase{"table.concat", "[1, 2], \"+\""},
    DispatchCase{"string.gmatch", "\"a\""}, DispatchCase{"string.format", "\"%05d|%s\", 42, \"x\""},
    DispatchCase{"format", "\"%d\""}, DispatchCase{"utf8.len", "\"h\xC3\xA9\""},
    DispatchCase{"math.max", "1, 2, 3, 4, 5, 6, 7, 8"}),
    dispatchName);

TEST(FastDispatch, RebindingANameCallsTheNewFunction) {
    Outcome r = run("function mine(x)\nreturn \"mine\"\nend\n"
                    "function show()\nprint(len([1]), string.sub(\"abc\", 1), floor(1.5))\nend\n"
                    "show()\nlen = mine\nstring.sub = mine\nfloor = mine\nshow()");
    EXPECT_TRUE(r.result.ok) << r.result.errorReport;
    EXPECT_EQ(r.output, "1 abc 1\nmine mine mine\n");
}

// --- loadFile and runFile -------------------------------------------------------------------

class ScriptFiles : public ::testing::Test {
protected:
    void SetUp() override {
        m_directory = std::filesystem::temp_directory_path() /
                      ("korvel_library_test_" + std::to_string(std::random_device{}()) + "_" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(m_directory / "sub");
    }
    void TearDown() override { std::filesystem::remove_all(m_directory); }
    std::string write(const std::string& name, const std::string& text) {
        std::filesystem::path path = m_directory / name;
        std::ofstream(path, std::ios::binary) << text;
        return path.generic_string();
    }
    std::filesystem::path m_directory;
};

TEST_F(ScriptFiles, ErrorsInsideReportTheFilesNameAndLine) {
    std::string broken = write("broken.ks", "x = 1\ny = x / 0\n");
    Outcome r = run("runFile(\"" + broken + "\")");
    EXPECT_EQ(r.result.errorMessage, "Division by zero");
    EXPECT_NE(r.result.errorReport.find("at " + broken + ":2"), std::string::npos) << r.result.errorReport;

    Outcome loaded = run("f = loadFile(\"" + broken + "\")\nf()");
    EXPECT_NE(loaded.result.errorReport.find("at " + broken + ":2"), std::string::npos) << loaded.result.errorReport;

    std::string unparsable = write("unparsable.ks", "a = 1\nb = \"open\n");
    Outcome parse = run("f, m = loadFile(\"" + unparsable + "\")\nprint(f, m)");
    EXPECT_EQ(parse.output, "not " + unparsable + ":2: Unterminated string literal\n");
    Outcome parseRun = run("runFile(\"" + unparsable + "\")");
    EXPECT_EQ(parseRun.result.errorMessage, "Unterminated string literal");
    EXPECT_NE(parseRun.result.errorReport.find("at " + unparsable + ":2"), std::string::npos) << parseRun.result.errorReport;
}

TEST_F(ScriptFiles, RelativePathsStartAtTheRunningFilesDirectory) {
    write("sub/inner.ks", "return \"inner\"\n");
    std::string outer = write("sub/outer.ks", "f = loadFile(\"inner.ks\")\nreturn f() + \"+\" + runFile(\"inner.ks\")\n");
    KorvelScript script;
    std::string output;
    script.setOutput([&](std::string_view text) { output += text; });
    RunResult result = script.runScript("print(runFile(\"" + outer + "\"))");
    EXPECT_TRUE(result.ok) << result.errorReport;
    EXPECT_EQ(output, "inner+inner\n");
}

TEST_F(ScriptFiles, MissingFilesFailWithTheirMessages) {
    Outcome load = run("loadFile(\"" + (m_directory / "absent.ks").generic_string() + "\")");
    EXPECT_EQ(load.result.errorMessage, "Failed to open script file: " + (m_directory / "absent.ks").generic_string());
    Outcome runMissing = run("runFile(\"" + (m_directory / "absent.ks").generic_string() + "\")");
    EXPECT_EQ(runMissing.result.errorMessage, "Failed to load script file");
    EXPECT_EQ(run("loadFile(1)").result.errorMessage, "loadFile(path) requires a script path string");
    EXPECT_EQ(run("runFile()").result.errorMessage, "runFile(path) requires a script path string");
}

// --- handles left open ---------------------------------------------------------------------

std::string fileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST_F(ScriptFiles, DroppedHandlesAreClosed) {
    // Buffered text reaches the file only when the stream is closed; a pipe's command is
    // waited for. Neither handle is closed by the script.
    std::string dropped = (m_directory / "dropped.txt").generic_string();
    std::string piped = (m_directory / "piped.txt").generic_string();
    KorvelScript script;
#if defined(_WIN32)
    // cmd.exe's way to copy standard input to a file (some versions of more end the text with a
    // line break; wine's does not).
    std::string copyCommand = "more > \\\"" + piped + "\\\"";
    std::string pipedText = "through";
#else
    std::string copyCommand = "cat > '" + piped + "'";
    std::string pipedText = "through";
#endif
    // The pipe opens first: starting a command flushes every open stream.
    RunResult result = script.runScript("p = io.popen(\"" + copyCommand + "\", \"w\")\np.write(p, \"through\")\n"
                                        "f = io.open(\"" + dropped + "\", \"w\")\nf.write(f, \"kept\")\n");
    ASSERT_TRUE(result.ok) << result.errorReport;
    EXPECT_EQ(fileText(dropped), "");
    result = script.runScript("f = false\np = false\n");
    ASSERT_TRUE(result.ok) << result.errorReport;
    EXPECT_EQ(fileText(dropped), "kept");
    std::string pipedResult = fileText(piped);
#if defined(_WIN32)
    if (pipedResult.ends_with("\r\n")) pipedResult.resize(pipedResult.size() - 2);
#endif
    EXPECT_EQ(pipedResult, pipedText);
}

TEST_F(ScriptFiles, HandlesStillOpenAtShutdownAreClosed) {
    std::string path = (m_directory / "shutdown.txt").generic_string();
    {
        KorvelScript script;
        // Kept alive by a cycle, so only the collector or the interpreter's end frees it.
        RunResult result = script.runScript("t = {}\nt.self = t\nt.file = io.open(\"" + path +
                                            "\", \"w\")\nt.file.write(t.file, \"last words\")\nt = false\n");
        ASSERT_TRUE(result.ok) << result.errorReport;
        EXPECT_EQ(fileText(path), "");
    }
    EXPECT_EQ(fileText(path), "last words");
}

// --- the sandbox ----------------------------------------------------------------------------

class Sandbox : public ::testing::TestWithParam<MessageCase> {};
TEST_P(Sandbox, RefusesFilesAndProcesses) {
    Outcome r = run(GetParam().source, true);
    EXPECT_FALSE(r.result.ok) << GetParam().source;
    EXPECT_EQ(r.result.errorMessage, GetParam().message);
    EXPECT_TRUE(run(GetParam().source, false).result.errorMessage != GetParam().message) << GetParam().source;
}
INSTANTIATE_TEST_SUITE_P(Functions, Sandbox, ::testing::Values(
    MessageCase{"io.open(\"/dev/null\")", "io['open'] is not available in a sandboxed interpreter"},
    MessageCase{"io.popen(\"true\")", "io['popen'] is not available in a sandboxed interpreter"},
    MessageCase{"os.remove(\"/nonexistent-korvel-file\")", "os['remove'] is not available in a sandboxed interpreter"},
    MessageCase{"loadFile(\"/dev/null\")", "loadFile is not available in a sandboxed interpreter"},
    MessageCase{"runFile(\"/dev/null\")", "runFile is not available in a sandboxed interpreter"}),
    messageName);

}  // namespace
}  // namespace korvel

namespace korvel {
namespace {

TEST(KeyCacheTest, StringsOfChunksThatAreGoneLeaveTheCache) {
    // Each loaded chunk brings constant strings of its own; once the chunks are gone, the cache
    // must not keep all of them.
    KorvelScript script;
    RunResult result = script.runScript(R"(
for i = 1, 20000
  f = load("return 'k" + toString(i) + "' + 'x" + toString(i) + "'")
  v = f()
end
f = 0
)");
    ASSERT_TRUE(result.ok) << result.errorReport;
    Interpreter& vm = script.impl().vm;
    EXPECT_LT(vm.internedStrings.size(), 10000u);
    std::size_t before = vm.internedStrings.size();
    ASSERT_TRUE(script.runScript("collectGarbage()").ok);
    EXPECT_LT(vm.internedStrings.size(), before);
    // Strings still in use stay: a table key written in a live chunk still finds its entry.
    ASSERT_TRUE(script.runScript("t = {alpha: 1}\ncollectGarbage()\nassert(t.alpha == 1)").ok);
}

}  // namespace
}  // namespace korvel
