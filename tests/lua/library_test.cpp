// The standard library: results and every particular message.
#include "lua_test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace korvel::lua::testing {
namespace {

struct LibraryCase {
    const char* source;
    const char* output;
};

class LibraryResults : public ::testing::TestWithParam<LibraryCase> {};

TEST_P(LibraryResults, Print) {
    ScriptRun run = runCaptured(GetParam().source);
    ASSERT_TRUE(run.success) << GetParam().source << ": " << run.error;
    EXPECT_EQ(run.output, GetParam().output) << GetParam().source;
}

INSTANTIATE_TEST_SUITE_P(Base, LibraryResults, ::testing::Values(
    LibraryCase{"print(select('#', 1, nil, 3), select(2, 'a', 'b', 'c'))", "3\tb\tc\n"},
    LibraryCase{"print(select(-1, 'a', 'b'))", "b\n"},
    LibraryCase{"print(type(pairs({})), type(nil), type(1.5), type(print), type(io.stdout))", "iterator\tnil\tnumber\tfunction\tuserdata\n"},
    LibraryCase{"print(tonumber('42'), tonumber(' 0x1F '), tonumber('2.5'), tonumber('abc'), tonumber('ff', 16))", "42\t31\t2.5\tnil\t255\n"},
    LibraryCase{"print(tostring(12), tostring(true), tostring(nil), tostring(print))", "12\ttrue\tnil\tfunction: print\n"},
    LibraryCase{"print(string.sub(tostring({}), 1, 7))", "table: \n"},
    LibraryCase{"print(pcall(error, 'x', 0))", "false\tx\n"},
    LibraryCase{"print(pcall(function(a, b) return a + b, 'ok' end, 1, 2))", "true\t3\tok\n"},
    LibraryCase{"print(assert(1, 'm', 3))", "1\tm\t3\n"},
    LibraryCase{"local t = {b = 1, a = 2, [2] = 3, [1] = 4}\nlocal k = next(t)\nwhile k do io.write(tostring(k), ' ') k = next(t, k) end print()", "1 2 a b \n"},
    LibraryCase{"local t = {}\nprint(rawset(t, 'k', 5) == t, rawget(t, 'k'))", "true\t5\n"},
    LibraryCase{"print(_VERSION)", "KorvelLua 0.3\n"},
    LibraryCase{"io.write(1, ' ', 2.5, ' ', true, ' ', nil, '\\n')", "1 2.5 true nil\n"}));

INSTANTIATE_TEST_SUITE_P(Strings, LibraryResults, ::testing::Values(
    LibraryCase{"print(string.len('abc'), ('hello'):sub(2, 3), ('hello'):sub(-3), ('hello'):sub(0), ('hello'):sub(4, 2))", "3\tel\tllo\thello\t\n"},
    LibraryCase{"print(string.find('a+b', '+', 1, true))", "2\t2\n"},
    LibraryCase{"print(string.find('hello world', 'o w'))\nprint(string.find('hello', 'l+'))\nprint(string.find('abc', 'x'))", "5\t7\n3\t4\nnil\n"},
    LibraryCase{"print(string.find('key = value', '(%w+)%s*=%s*(%w+)'))", "1\t11\tkey\tvalue\n"},
    LibraryCase{"print(string.find('abc', 'b', -1), string.find('abc', '^b'), string.find('abc', 'c$'))", "nil\tnil\t3\t3\n"},
    LibraryCase{"print(string.match('2024-05-06', '(%d+)-(%d+)-(%d+)'))", "2024\t05\t06\n"},
    LibraryCase{"print(string.match('  trim  ', '^%s*(.-)%s*$'), string.match('x', '()'))", "trim\t1\n"},
    LibraryCase{"print(string.match('a.b', '%.'), string.match('[x]', '%[(.)%]'), string.match('f(1)', '%((%d)%)'))", ".\tx\t1\n"},
    LibraryCase{"print(string.match('under_score', '%w+'), string.match('tab\\tx', '%S+$'))", "under_score\tx\n"},
    LibraryCase{"print(string.match('abc123', '[%a]+'), string.match('abc123', '[^%a]+'), string.match('x-y', '[a-z]%-[a-z]'))", "abc\t123\tx-y\n"},
    LibraryCase{"for k, v in string.gmatch('a=1, b=2', '(%w+)=(%w+)') do io.write(k, v, ';') end print()", "a1;b2;\n"},
    LibraryCase{"for w in ('one two'):gmatch('%a*') do io.write('[', w, ']') end print()", "[one][two]\n"},
    LibraryCase{"print(string.gsub('hello world', 'o', '0'))", "hell0 w0rld\t2\n"},
    LibraryCase{"print(string.gsub('abc', '%w', '%0%0', 2))", "aabbc\t2\n"},
    LibraryCase{"print(string.gsub('$name is $age', '%$(%w+)', {name = 'Bo', age = 3}))", "Bo is 3\t2\n"},
    LibraryCase{"print(string.gsub('a b', '%a', function(c) return c:upper() end))", "A B\t2\n"},
    LibraryCase{"print(string.gsub('abc', '', '-'))", "-a-b-c-\t4\n"},
    LibraryCase{"print(string.format('%5.2f|%-4d|%s|%x|%X|%05d|%q|%%|%c', 3.14159, 42, 'hi', 255, 255, 7, 'a\"b', 65))",
                " 3.14|42  |hi|ff|FF|00007|\"a\\\"b\"|%|A\n"},
    LibraryCase{"print(string.format('%d %s %g %e', 3.0, {1} ~= nil, 0.1, 1000))", "3 true 0.1 1.000000e+03\n"},
    LibraryCase{"print(string.format('%10s|%.2s', 'right', 'cut'))", "     right|cu\n"},
    LibraryCase{"print(string.byte('ABC'), string.char(72, 105), string.byte('ABC', 2, 3))", "65\tHi\t66\t67\n"},
    LibraryCase{"print(string.rep('ab', 3), string.rep('ab', 3, ','), string.rep('x', 0), string.reverse('abc'))", "ababab\tab,ab,ab\t\tcba\n"},
    LibraryCase{"print('[' .. string.strip(' \\t x \\n') .. ']', '[' .. string.lstrip('  x ') .. ']', '[' .. string.rstrip(' x  ') .. ']')", "[x]\t[x ]\t[ x]\n"},
    LibraryCase{"print(string.contains('hello', 'ell'), string.startswith('hello', 'he'), string.endswith('hello', 'lo'), string.endswith('a', 'abc'))", "true\ttrue\ttrue\tfalse\n"},
    LibraryCase{"local p = string.split('a,b,,c', ',')\nprint(#p, p[3] == '', p[4])", "4\ttrue\tc\n"},
    LibraryCase{"local s = string.pack('I4I4', 1, 258)\nprint(#s, string.unpack('I4I4', s))", "8\t1\t258\t9\n"},
    LibraryCase{"print(string.upper('aBc1'), string.lower('AbC'))", "ABC1\tabc\n"}));

INSTANTIATE_TEST_SUITE_P(Tables, LibraryResults, ::testing::Values(
    LibraryCase{"local t = {1, 2, 3}\ntable.insert(t, 4)\ntable.insert(t, 1, 0)\nprint(table.concat(t, ','))", "0,1,2,3,4\n"},
    LibraryCase{"local t = {1, 2, 3}\nprint(table.remove(t), table.remove(t, 1), #t, t[1])", "3\t1\t1\t2\n"},
    LibraryCase{"print(table.remove({}))", "nil\n"},
    LibraryCase{"print(table.concat({1, 'a', 2.5}, '-'), table.concat({1, 2, 3}, '', 2, 3), table.concat({}))", "1-a-2.5\t23\t\n"},
    LibraryCase{"local t = {5, 2, 8, 1}\ntable.sort(t)\nprint(table.concat(t, ' '))", "1 2 5 8\n"},
    LibraryCase{"local t = {'b', 'c', 'a'}\ntable.sort(t, function(x, y) return x > y end)\nprint(table.concat(t))", "cba\n"},
    LibraryCase{"local t = {3, 1.5, 2}\ntable.sort(t)\nprint(t[1], t[2], t[3])", "1.5\t2\t3\n"},
    LibraryCase{"print(table.unpack({1, 2, 3}))\nprint(table.unpack({1, 2, 3}, 2))", "1\t2\t3\n2\t3\n"},
    LibraryCase{"print(table.keys({b = 1, a = 2, [2] = 3, [1] = 4}))", "[1, 2, a, b]\n"},
    LibraryCase{"print(table.values({b = 1, a = 2, [2] = 3, [1] = 4}))", "[4, 3, 2, 1]\n"},
    LibraryCase{"local a = {1, x = 2}\nlocal b = table.clone(a)\nb.x = 3\nprint(a.x, b.x, b[1])", "2\t3\t1\n"},
    LibraryCase{"local t = {1, 2, k = 3}\ntable.clear(t)\nprint(#t, next(t))", "0\tnil\n"},
    LibraryCase{"local t = {1}\ntable.extend(t, {2, 3})\ntable.extend(t, t)\nprint(table.concat(t, ','))", "1,2,3,1,2,3\n"}));

INSTANTIATE_TEST_SUITE_P(Math, LibraryResults, ::testing::Values(
    LibraryCase{"print(math.floor(3.7), math.ceil(3.2), math.floor(-3.5), math.abs(-4), math.abs(-2.5))", "3\t4\t-4\t4\t2.5\n"},
    LibraryCase{"print(math.min(3, 1, 2), math.max(1, 5.5, 3), math.sqrt(16), math.pow(2, 10))", "1\t5.5\t4\t1024\n"},
    LibraryCase{"print(math.clamp(5, 1, 3), math.clamp(-1, 0, 1), math.clamp(0.5, 0, 1))", "3\t0\t0.5\n"},
    LibraryCase{"print(math.log(1), math.log(8, 2), math.exp(0), math.sin(0), math.cos(0), math.deg(math.pi))", "0\t3\t1\t0\t1\t180\n"},
    LibraryCase{"math.randomseed(7)\nlocal a = math.random(1, 100)\nmath.randomseed(7)\nprint(a == math.random(1, 100))", "true\n"},
    LibraryCase{"local ok = true\nfor i = 1, 1000 do local r = math.random(3) if r < 1 or r > 3 then ok = false end end\nlocal f = math.random()\nprint(ok, f >= 0 and f < 1)", "true\ttrue\n"}));

struct LibraryErrorCase {
    const char* source;
    const char* message;
};

class LibraryErrors : public ::testing::TestWithParam<LibraryErrorCase> {};

TEST_P(LibraryErrors, NameTheFunction) {
    ScriptRun run = runCaptured(GetParam().source);
    EXPECT_FALSE(run.success);
    EXPECT_EQ(run.error, GetParam().message) << GetParam().source;
}

INSTANTIATE_TEST_SUITE_P(Messages, LibraryErrors, ::testing::Values(
    LibraryErrorCase{"string.len()", "test:1: string.len expects 1 argument"},
    LibraryErrorCase{"string.len(5)", "test:1: string.len expects a string argument"},
    LibraryErrorCase{"string.sub()", "test:1: string.sub expects between 1 and 3 arguments"},
    LibraryErrorCase{"math.max()", "test:1: math.max expects at least 1 arguments"},
    LibraryErrorCase{"math.floor('x')", "test:1: math.floor expects a numeric argument"},
    LibraryErrorCase{"table.insert(1, 2)", "test:1: table.insert expects a table"},
    LibraryErrorCase{"table.insert({}, 5, 1)", "test:1: table.insert index out of range"},
    LibraryErrorCase{"table.sort({}, 5)", "test:1: table.sort comparator must be a function"},
    LibraryErrorCase{"table.sort({1, 'a'})", "test:1: ordered comparisons require matching numbers or strings"},
    LibraryErrorCase{"select(0, 1)", "test:1: select index out of range"},
    LibraryErrorCase{"select({}, 1)", "test:1: select index must be a number or '#'"},
    LibraryErrorCase{"string.char(256)", "test:1: string.char code must be between 0 and 255"},
    LibraryErrorCase{"string.pack('I2', 1)", "test:1: KorvelLua only supports string.pack I4 fields"},
    LibraryErrorCase{"string.pack('I4')", "test:1: string.pack is missing a value"},
    LibraryErrorCase{"string.pack('z', 1)", "test:1: unsupported string.pack format"},
    LibraryErrorCase{"string.unpack('I8', 'abcdefgh')", "test:1: KorvelLua only supports string.unpack I4 fields"},
    LibraryErrorCase{"string.unpack('I4', 'abc')", "test:1: string.unpack ran past the end of the buffer"},
    LibraryErrorCase{"string.unpack('b', 'abcd')", "test:1: unsupported string.unpack format"},
    LibraryErrorCase{"string.format('%d', 'x')", "test:1: integer format expects a number"},
    LibraryErrorCase{"string.format('%f', 'x')", "test:1: float format expects a number"},
    LibraryErrorCase{"string.format('%d')", "test:1: missing format argument"},
    LibraryErrorCase{"string.format('abc %')", "test:1: unterminated format token"},
    LibraryErrorCase{"string.format('%y', 1)", "test:1: unsupported format token %y"},
    LibraryErrorCase{"string.rep('abc', 9223372036854775807)", "test:1: string.rep result is too large"},
    LibraryErrorCase{"string.rep('x', 268435457)", "test:1: string.rep result is too large"},
    LibraryErrorCase{"string.find('a', '(')", "test:1: unfinished capture"},
    LibraryErrorCase{"string.find('a', '%')", "test:1: malformed pattern (ends with '%')"},
    LibraryErrorCase{"string.find('a', '[a')", "test:1: malformed pattern (missing ']')"},
    LibraryErrorCase{"string.find('a', '%a)')", "test:1: invalid pattern capture"},
    LibraryErrorCase{"string.find('a', string.rep('()', 33))", "test:1: too many captures"},
    LibraryErrorCase{"string.gsub('a', string.rep('a?', 201), '')", "test:1: pattern too complex"},
    // Regression: the result count used to be computed with a signed overflow.
    LibraryErrorCase{"table.unpack({}, math.mininteger, math.maxinteger)", "test:1: too many results to unpack"},
    LibraryErrorCase{"string.byte(string.rep('a', 2000000), 1, -1)", "test:1: string slice too long"},
    // Regression: exponential backtracking used to run for as long as the pattern allowed.
    LibraryErrorCase{"string.find(string.rep('a', 60), string.rep('a?', 60) .. string.rep('a', 60) .. 'b')",
                     "test:1: pattern matching is too complex"},
    LibraryErrorCase{"math.random(5, 4)", "test:1: math.random interval is empty"},
    LibraryErrorCase{"math.clamp(1, 3, 2)", "test:1: math.clamp lower bound is greater than upper bound"},
    LibraryErrorCase{"pairs(5)", "test:1: pairs expects a table"},
    LibraryErrorCase{"ipairs()", "test:1: ipairs expects a table"},
    LibraryErrorCase{"next(5)", "test:1: next expects a table"},
    LibraryErrorCase{"next({}, {})", "test:1: next key must be nil, number, string, or boolean"},
    LibraryErrorCase{"rawget({}, nil)", "test:1: rawget key must be a number, string, or boolean"},
    LibraryErrorCase{"rawset({}, {}, 1)", "test:1: rawset key must be a number, string, or boolean"},
    LibraryErrorCase{"assert(false)", "test:1: assertion failed!"},
    LibraryErrorCase{"assert(nil, 'custom')", "test:1: custom"},
    LibraryErrorCase{"print(pairs({}))", "value cannot be bridged out of KorvelLua"},
    LibraryErrorCase{"io.stdout.write(5)", "test:1: stream:write expects userdata"},
    LibraryErrorCase{"local f = io.open('/dev/null', 'r')\nio.stdout.write(f, 'x')", "test:2: stream:write received the wrong userdata type"},
    LibraryErrorCase{"local f = io.stdout\nf.read(f)", "test:2: attempt to call a nil value"}));

TEST(Files, WriteSeekReadAndClose) {
    // Forward slashes: the path goes into a string literal, where "\\" would start an escape.
    std::string path = std::filesystem::path(::testing::TempDir()).generic_string() + "korvel_lua_file_test.txt";
    std::string source = "local f = io.open('" + path + "', 'w')\n"
                         "f:write('line one\\n', 42, '\\n', 'rest')\n"
                         "f:close()\n"
                         "local g = io.open('" + path + "', 'r')\n"
                         "print(g:read('l'))\n"
                         "print(g:read('n'))\n"
                         "print(g:seek('set', 0))\n"
                         "print(g:read(4))\n"
                         "print(g:seek('end'))\n"
                         "print(g:read('a') == '')\n"
                         "g:close()\n"
                         "print(pcall(g.read, g))\n"
                         "print(pcall(g.seek, io.open('" + path + "'), 'sideways'))\n";
    ScriptRun run = runCaptured(source);
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "line one\n42\n0\nline\n16\ntrue\nfalse\ttest:12: file is not open\nfalse\ttest:13: invalid seek mode\n");
    std::remove(path.c_str());
}

TEST(Files, OpenFailureReturnsNilAndMessage) {
    ScriptRun run = runCaptured("local f, message = io.open('/nonexistent-dir/file.txt')\nprint(f, message ~= nil)");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "nil\ttrue\n");
}

TEST(Os, ExitEndsTheRunSuccessfully) {
    ScriptRun run = runCaptured("print('before')\nos.exit(3)\nprint('after')");
    EXPECT_TRUE(run.success);
    EXPECT_EQ(run.output, "before\n");
    run = runCaptured("pcall(os.exit)\nprint('not reached')");
    EXPECT_TRUE(run.success);
    EXPECT_EQ(run.output, "");
}

TEST(Os, ExecuteReturnsTheExitCode) {
    // "exit N" means the same to sh and to cmd.exe.
    ScriptRun run = runCaptured("print(os.execute('exit 3'), os.execute('exit 0'))");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "3\t0\n");
}

TEST(Os, ClocksAndTime) {
    ScriptRun run = runCaptured("print(type(os.clock()), os.time() > 1600000000, os.difftime(5, 2), time_ms() >= 0)");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "number\ttrue\t3\ttrue\n");
}

} // namespace
} // namespace korvel::lua::testing
