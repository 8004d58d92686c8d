// The evaluator: arithmetic and the integral-result rule, equality, ordering, indexing, calls,
// multiple values, closures, loops, and every runtime message with its location.
#include "lua_test_support.h"

#include <gtest/gtest.h>

namespace korvel::lua::testing {
namespace {

struct OutputCase {
    const char* name;
    const char* source;
    const char* output;
};

class Evaluates : public ::testing::TestWithParam<OutputCase> {};

TEST_P(Evaluates, PrintsExpectedOutput) {
    ScriptRun run = runCaptured(GetParam().source);
    ASSERT_TRUE(run.success) << GetParam().name << ": " << run.error;
    EXPECT_EQ(run.output, GetParam().output) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(Arithmetic, Evaluates, ::testing::Values(
    OutputCase{"float division", "print(7 / 2)", "3.5\n"},
    OutputCase{"integral division", "print(6 / 2, 6 / 2 + 9223372036854775807)", "3\t-9223372036854775806\n"},
    OutputCase{"integral float sum", "local x = 0.5 + 0.5\nprint(x, x + 9223372036854775807)", "1\t-9223372036854775808\n"},
    OutputCase{"integer wraps", "print(9223372036854775807 + 1, -9223372036854775807 - 2)",
               "-9223372036854775808\t9223372036854775807\n"},
    OutputCase{"floored modulo", "print(7 % 3, -7 % 3, 7 % -3, 5.5 % 2)", "1\t2\t-2\t1.5\n"},
    OutputCase{"tiny float is zero", "print(1e-17 + 0 == 0, 0.1 + 0.2)", "true\t0.3\n"},
    OutputCase{"big float stays float", "print(1e20, -1e20 * 10)", "1e+20\t-1e+21\n"},
    OutputCase{"unary minus", "local a = 5\nprint(-a, -(-a), -0.5)", "-5\t5\t-0.5\n"},
    OutputCase{"concat numbers", "print(1 .. 2, 1.5 .. '', 'x' .. nil, true .. '')", "12\t1.5\txnil\ttrue\n"}));

// Conditions and stores into locals take the numbers-only path; the rules must not change there.
INSTANTIATE_TEST_SUITE_P(NumbersInConditionsAndLocals, Evaluates, ::testing::Values(
    OutputCase{"integral store", "local a = 0.25\nlocal b = a * 4\nb = b + 9223372036854775807\nprint(b)", "-9223372036854775808\n"},
    OutputCase{"mixed equality in if", "local one = 1\nlocal f = 1.0000000000000002\nif one == f then print('eq') end\nif f == 1.0000000000000004 then print('no') end", "eq\n"},
    OutputCase{"float ordering in while", "local x = 0.5\nlocal n = 0\nwhile x < 3 do x = x + 0.75 n = n + 1 end\nprint(n, x)", "4\t3.5\n"},
    OutputCase{"field arithmetic", "local p = {x = 1.5, y = 2}\nlocal s = p.x * 2 + p.y\nif s >= 5 then print(s) end", "5\n"},
    OutputCase{"index arithmetic", "local v = {3, 4}\nlocal i = 1\nlocal d = v[i] * v[i] + v[i + 1] * v[i + 1]\nprint(d, d == 25.0)", "25\ttrue\n"},
    OutputCase{"strings fall back", "local a, b = 'x', 'y'\nif a < b then print('ordered') end\nif a ~= b then print('differ') end", "ordered\ndiffer\n"},
    OutputCase{"modulo signs", "local a, b = -7, 3\nlocal r = a % b\nlocal q = 7 % -b\nlocal f = -7.5 % 2\nprint(r, q, f)", "2\t-2\t0.5\n"}));

INSTANTIATE_TEST_SUITE_P(Comparison, Evaluates, ::testing::Values(
    OutputCase{"mixed equality", "print(1 == 1.0, 1 == 1.0000000000000002, 0.1 + 0.2 == 0.3)", "true\ttrue\tfalse\n"},
    OutputCase{"different kinds", "print(\"1\" == 1, nil == false, {} == {})", "false\tfalse\tfalse\n"},
    OutputCase{"ordering", "print(1 < 1.5, \"a\" < \"b\", \"ab\" < \"a\", 2 >= 2)", "true\ttrue\tfalse\ttrue\n"},
    OutputCase{"and or values", "print(nil and 1, false or nil, 1 and 2, nil or 'x', 0 and '' )", "nil\tnil\t2\tx\t\n"}));

INSTANTIATE_TEST_SUITE_P(Tables, Evaluates, ::testing::Values(
    OutputCase{"sequence with hole", "print(#{1, 2, nil, 4})", "2\n"},
    OutputCase{"float keys normalise", "local t = {}\nt[1.0] = 'a'\nt[2] = 'b'\nprint(t[1], #t, t[2.0])", "a\t2\tb\n"},
    OutputCase{"append and remove", "local t = {}\nfor i = 1, 5 do t[#t + 1] = i end\nt[5] = nil\nprint(#t)", "4\n"},
    OutputCase{"hash migrates to array", "local t = {}\nt[3] = 'c'\nt[2] = 'b'\nt[1] = 'a'\nprint(#t, t[3])", "3\tc\n"},
    OutputCase{"constructor forms", "local k = 'key'\nlocal t = {1, x = 2, [k] = 3; 4}\nprint(t[1], t[2], t.x, t.key)", "1\t4\t2\t3\n"},
    OutputCase{"multi expands last", "local function f() return 1, 2 end\nlocal t = {f(), f()}\nprint(#t)", "3\n"},
    OutputCase{"parenthesised call truncates", "local function f() return 1, 2 end\nlocal t = {(f())}\nprint(#t)", "1\n"},
    OutputCase{"print converts tables", "print({1, 2}, {a = 1}, {})", "[1, 2]\t{a: 1}\t[]\n"},
    OutputCase{"pairs order", "local t = {10, 20, x = 1, y = 2}\nfor k, v in pairs(t) do print(k, v) end",
               "1\t10\n2\t20\nx\t1\ny\t2\n"},
    OutputCase{"pairs survives removal", "local t = {a = 1, b = 2, c = 3}\nlocal n = 0\nfor k in pairs(t) do t[k] = nil n = n + 1 end\nprint(n, next(t))",
               "3\tnil\n"}));

INSTANTIATE_TEST_SUITE_P(Calls, Evaluates, ::testing::Values(
    OutputCase{"missing and extra arguments", "local function f(a, b) return a, b end\nprint(f(1))\nprint(f(1, 2, 3))", "1\tnil\n1\t2\n"},
    OutputCase{"method call", "local o = {n = 2}\nfunction o:twice(x) return self.n * x end\nprint(o:twice(5))", "10\n"},
    OutputCase{"dotted declaration", "a = {b = {}}\nfunction a.b.c() return 'deep' end\nprint(a.b.c())", "deep\n"},
    OutputCase{"string methods", "local s = 'abc'\nprint(s:upper(), ('x'):rep(3), s:len())", "ABC\txxx\t3\n"},
    OutputCase{"multiple assignment", "local a, b, c = (function() return 1, 2 end)()\nprint(a, b, c)\na, b = b, a\nprint(a, b)",
               "1\t2\tnil\n2\t1\n"},
    OutputCase{"swap evaluates right first", "local t = {1, 2}\nlocal i = 1\ni, t[i] = i + 1, 20\nprint(i, t[1], t[2])", "2\t1\t20\n"},
    OutputCase{"return values", "local function f() return end\nprint(select('#', f()))", "0\n"},
    OutputCase{"recursion", "local function fact(n) if n <= 1 then return 1 end return n * fact(n - 1) end\nprint(fact(20))",
               "2432902008176640000\n"}));

INSTANTIATE_TEST_SUITE_P(Closures, Evaluates, ::testing::Values(
    OutputCase{"counter", "local function counter()\n local n = 0\n return function() n = n + 1 return n end\nend\nlocal c = counter()\nc() c()\nprint(c(), counter()())",
               "3\t1\n"},
    // Closures share their activation's environment: the loop variable's slot is set afresh each
    // iteration, so every closure sees its last value.
    OutputCase{"loop variable shared", "local fs = {}\nfor i = 1, 3 do fs[i] = function() return i end end\nprint(fs[1](), fs[2](), fs[3]())", "3\t3\t3\n"},
    OutputCase{"loop local shared", "local fs = {}\nlocal i = 0\nwhile i < 3 do i = i + 1 local j = i * 10 fs[i] = function() return j end end\nprint(fs[1](), fs[3]())",
               "30\t30\n"},
    OutputCase{"shared upvalue", "local function pair()\n local v = 0\n return function(x) v = x end, function() return v end\nend\nlocal set, get = pair()\nset(7)\nprint(get())",
               "7\n"},
    OutputCase{"nested upvalues", "local a = 1\nlocal function outer() return function() return function() a = a + 1 return a end end end\nprint(outer()()())\nprint(a)",
               "2\n2\n"},
    OutputCase{"captured parameter", "local function make(x) return function() x = x * 2 return x end end\nlocal f = make(3)\nf()\nprint(f())", "12\n"}));

INSTANTIATE_TEST_SUITE_P(Loops, Evaluates, ::testing::Values(
    OutputCase{"numeric step", "for i = 10, 1, -3 do print(i) end", "10\n7\n4\n1\n"},
    OutputCase{"float loop", "for x = 0, 1, 0.25 do io.write(x, ' ') end print()", "0 0.25 0.5 0.75 1 \n"},
    OutputCase{"empty range", "for i = 2, 1 do print(i) end print('done')", "done\n"},
    OutputCase{"extreme bounds end", "local n = 0\nfor i = 9223372036854775806, 9223372036854775807 do n = n + 1 end\nprint(n)", "2\n"},
    OutputCase{"break", "local i = 0\nwhile true do i = i + 1 if i == 3 then break end end\nprint(i)", "3\n"},
    OutputCase{"return from loop", "local function f() for i = 1, 10 do if i == 4 then return i end end end\nprint(f())", "4\n"},
    OutputCase{"ipairs stops at nil", "for i, v in ipairs({1, 2, nil, 4}) do print(i, v) end", "1\t1\n2\t2\n"}));

struct ErrorCase {
    const char* source;
    const char* message;
};

class RuntimeErrors : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(RuntimeErrors, CarryChunkAndLine) {
    ScriptRun run = runCaptured(GetParam().source);
    EXPECT_FALSE(run.success);
    EXPECT_EQ(run.error, GetParam().message) << GetParam().source;
}

INSTANTIATE_TEST_SUITE_P(Messages, RuntimeErrors, ::testing::Values(
    ErrorCase{"x = 1 / 0", "test:1: division by zero"},
    ErrorCase{"x = 1\nx = x % 0", "test:2: modulo by zero"},
    ErrorCase{"x = 1.5 % 0.0", "test:1: modulo by zero"},
    ErrorCase{"x = 'a' + 1", "test:1: operator '+' expects numbers"},
    ErrorCase{"x = {} * 2", "test:1: operator '*' expects numbers"},
    ErrorCase{"x = -'a'", "test:1: unary '-' expects a number"},
    ErrorCase{"x = #5", "test:1: length operator expects a string or table"},
    ErrorCase{"x = 'a' < 1", "test:1: ordered comparisons require matching numbers or strings"},
    ErrorCase{"x = ('abc').x", "test:1: string indexing only supports library methods"},
    ErrorCase{"x = ('abc')[1]", "test:1: string indexing only supports library methods"},
    ErrorCase{"x = nil\ny = x.field", "test:2: attempt to index a nil value"},
    ErrorCase{"x = (5).y", "test:1: attempt to index a number value"},
    ErrorCase{"local n = 5\nn.y = 1", "test:2: attempt to assign into a number value"},
    ErrorCase{"undefinedFunction()", "test:1: attempt to call a nil value"},
    ErrorCase{"local t = {}\nt.m()", "test:2: attempt to call a nil value"},
    ErrorCase{"x = {[{}] = 1}", "test:1: table keys must be numbers, strings, or booleans"},
    ErrorCase{"t = {}\nt[nil] = 1", "test:2: table keys must be numbers, strings, or booleans"},
    ErrorCase{"t = {}\nx = t[0.5]", "test:2: table index must be a number, string, or boolean"},
    ErrorCase{"local z = 0\nlocal r = 5 / z", "test:2: division by zero"},
    ErrorCase{"local z = 0\nlocal r = 5 % z", "test:2: modulo by zero"},
    ErrorCase{"local t = {}\nlocal r = t.missing + 1", "test:2: operator '+' expects numbers"},
    ErrorCase{"local s = 'a'\nif s < 1 then end", "test:2: ordered comparisons require matching numbers or strings"},
    ErrorCase{"local p = {x = 1}\np.x = p.x / 0", "test:2: division by zero"},
    ErrorCase{"local p = {}\np.y = p.x * 2", "test:2: operator '*' expects numbers"},
    ErrorCase{"local n = 5\nn.x = n + 1", "test:2: attempt to assign into a number value"},
    ErrorCase{"for i = 1, 3, 0 do end", "test:1: numeric for step cannot be zero"},
    ErrorCase{"for i = 1, 'x' do end", "test:1: numeric for loop expects numeric bounds"},
    ErrorCase{"for k in {} do end", "test:1: generic for loop expects an iterator"},
    ErrorCase{"local f = io.stdout\nx = f[1]", "test:2: userdata fields must be strings"},
    ErrorCase{"local function f()\n  error('inner')\nend\nf()", "test:2: inner"},
    ErrorCase{"error('bare', 0)", "bare"},
    ErrorCase{"local function r(n) return r(n + 1) + 1 end\nr(1)", "test:1: stack overflow"}));

TEST(RuntimeErrors, KeepEarlierStateAndLeaveTheVmUsable) {
    LuaVM vm;
    ScriptRun run = runCaptured(vm, "t = {}\nt.before = 1\nlocal x = nil + 1\nt.after = 2");
    EXPECT_FALSE(run.success);
    run = runCaptured(vm, "print(t.before, t.after)");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "1\tnil\n");
}

TEST(RuntimeErrors, DeepRecursionInsidePcallIsCaught) {
    ScriptRun run = runCaptured("local function r() return r() + 1 end\nprint(pcall(r))\nprint('after')");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "false\ttest:1: stack overflow\nafter\n");
}

TEST(StepBudget, StopsEndlessLoopsAndCannotBeCaught) {
    LuaVM vm;
    vm.setStepBudget(10000);
    ScriptRun run = runCaptured(vm, "while true do end");
    EXPECT_FALSE(run.success);
    EXPECT_EQ(run.error, "step budget exhausted");
    run = runCaptured(vm, "while true do pcall(function() while true do end end) end");
    EXPECT_EQ(run.error, "step budget exhausted");
    run = runCaptured(vm, "local n = 0 for i = 1, 100 do n = n + i end print(n)");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "5050\n");
}

TEST(StepBudget, CoversPatternMatchingOnLongSubjects) {
    LuaVM vm;
    vm.setStepBudget(1000);
    ScriptRun run = runCaptured(vm, "local s = string.rep('a', 200000)\nprint(s:find('.-b'))");
    EXPECT_EQ(run.error, "step budget exhausted");
}

TEST(Memory, CyclesAreCollected) {
    // A recursive local function is a cycle (box -> closure -> box); so is t.self = t.
    // Many of them in one run must not accumulate; the sanitizer build checks nothing leaks.
    ScriptRun run = runCaptured(
        "for i = 1, 50000 do\n local function f(n) if n > 0 then return f(n - 1) end return 0 end\n f(1)\n"
        " local t = {}\n t.self = t\nend\nprint('ok')");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "ok\n");
}

} // namespace
} // namespace korvel::lua::testing
