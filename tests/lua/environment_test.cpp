// Environments: one per function activation (and chunk), captured whole by the closures made in it.
// These check what scripts see of that (shared variables, slots reached several environments out)
// and what the host can observe: which activations put their environment on the heap, and that
// cycles through environments are collected.
#include "collector_internal.h"
#include "lua_test_support.h"
#include "value_internal.h"

#include <gtest/gtest.h>

namespace korvel::lua::testing {
namespace {

struct EnvironmentCase {
    const char* name;
    const char* source;
    const char* output;
};

class EnvironmentSemantics : public ::testing::TestWithParam<EnvironmentCase> {};

TEST_P(EnvironmentSemantics, PrintsExpectedOutput) {
    ScriptRun run = runCaptured(GetParam().source);
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, GetParam().output);
}

INSTANTIATE_TEST_SUITE_P(Sharing, EnvironmentSemantics, ::testing::Values(
    EnvironmentCase{"counter factories are independent",
        "local function counter(start)\n local n = start\n return function() n = n + 1 return n end, function() return n end\nend\n"
        "local up1, get1 = counter(0)\nlocal up2, get2 = counter(100)\nup1() up1() up2()\nprint(get1(), get2(), up1())",
        "2\t101\t3\n"},
    EnvironmentCase{"numeric loop closures share the variable",
        "local fs = {}\nfor i = 1, 4 do fs[#fs + 1] = function() return i end end\nprint(fs[1](), fs[4]())", "4\t4\n"},
    EnvironmentCase{"generic loop closures share the variables",
        "local fs = {}\nfor k, v in ipairs({'a', 'b'}) do fs[k] = function() return k .. v end end\nprint(fs[1](), fs[2]())", "2b\t2b\n"},
    EnvironmentCase{"closure sees later assignments",
        "local x = 1\nlocal function get() return x end\nx = 2\nprint(get())", "2\n"},
    EnvironmentCase{"helper gives a value per iteration",
        "local function capture(v) return function() return v end end\nlocal fs = {}\n"
        "for i = 1, 3 do fs[i] = capture(i) end\nprint(fs[1](), fs[2](), fs[3]())", "1\t2\t3\n"},
    // In an environment that can be captured, a finished block's slot is not handed to a later
    // local, or the closure would read someone else's variable.
    EnvironmentCase{"block slot not reused under a closure",
        "local f\nif true then local a = 'a' f = function() return a end end\nlocal b = 'b'\nprint(f(), b)", "a\tb\n"},
    EnvironmentCase{"block slots reused without closures",
        "local function g()\n if true then local a = 1 end\n local b\n return b\nend\nprint(g())", "nil\n"},
    EnvironmentCase{"each call has its own environment",
        "local function make(x) local function get() return x end return get end\nlocal f, g = make(1), make(2)\nprint(f(), g())", "1\t2\n"}));

INSTANTIATE_TEST_SUITE_P(Depth, EnvironmentSemantics, ::testing::Values(
    EnvironmentCase{"three deep reads and writes outer slots",
        "local a = 1\n"
        "local function one(b)\n"
        " local c = 10\n"
        " return function(d)\n"
        "  local e = 100\n"
        "  return function(f)\n"
        "   a = a + 1 c = c + 1 e = e + 1\n"
        "   return a + b + c + d + e + f\n"
        "  end\n"
        " end\n"
        "end\n"
        "local inner = one(1000)(10000)\n"
        "print(inner(100000), inner(0), a)",
        "111114\t11117\t3\n"},
    EnvironmentCase{"many slots spill past the inline places",
        "local function wide()\n local a, b, c, d, e, f, g, h, i, j = 1, 2, 3, 4, 5, 6, 7, 8, 9, 10\n"
        " return function() j = j + a return a + b + c + d + e + f + g + h + i + j end\nend\nlocal w = wide()\nw()\nprint(w())",
        "57\n"},
    EnvironmentCase{"recursive local function in a captured environment",
        "local function outer()\n local function fact(n) if n <= 1 then return 1 end return n * fact(n - 1) end\n return fact\nend\nprint(outer()(10))",
        "3628800\n"}));

// Arguments of a function whose environment stays on the stack go straight into its slots.
INSTANTIATE_TEST_SUITE_P(Calls, EnvironmentSemantics, ::testing::Values(
    EnvironmentCase{"method call passes the object first",
        "local o = {v = 1}\nfunction o.get(self, a) return self.v + a end\nprint(o:get(2), o:get(2, 3))", "3\t3\n"},
    EnvironmentCase{"missing arguments are nil, extra ones dropped",
        "local function f(a, b, c) return a, b, c end\nprint(f(1))\nprint(f(1, 2, 3, 4))", "1\tnil\tnil\n1\t2\t3\n"},
    EnvironmentCase{"last call argument expands",
        "local function two() return 1, 2 end\nlocal function add(a, b) return a + b end\nprint(add(two()), add((two()), 5))", "3\t6\n"},
    // Past eight slots a stack environment takes a block of the value stack: recursion and calls
    // made while evaluating arguments must not overlap their blocks.
    EnvironmentCase{"wide stack environments in recursion",
        "local function wide(n)\n local a, b, c, d, e, f, g, h, i, j = n, n, n, n, n, n, n, n, n, n\n"
        " if n == 0 then return 0 end\n local below = wide(n - 1)\n return a + b + c + d + e + f + g + h + i + j + below\nend\n"
        "local function pair(x, y) local p, q, r, s, t, u, v, w, z = 1, 2, 3, 4, 5, 6, 7, 8, 9 return x + y + z end\n"
        "print(wide(5), pair(wide(1), wide(2)))", "150\t49\n"},
    EnvironmentCase{"arguments evaluated before the callee's slots are visible",
        "local function swap(a, b) return b, a end\nlocal x, y = 1, 2\nx, y = swap(x, y)\nprint(x, y)", "2\t1\n"}));

TEST(Environments, DeepRecursionThroughOwningEnvironmentsIsARuntimeError) {
    ScriptRun run = runCaptured(
        "local function r(n) local f = function() return n end return r(n + 1) end\n"
        "print(pcall(r, 1))\nprint('after')");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "false\ttest:1: stack overflow\nafter\n");
}

// An activation of a function without nested functions keeps its environment on the native
// stack; one whose body makes closures gets a heap environment per call.
TEST(Environments, OnlyFunctionsWithNestedFunctionsAllocateEnvironments) {
    LuaVM vm;
    std::uint64_t before = EnvironmentObject::t_environmentsAllocated;
    ScriptRun leaf = runCaptured(vm,
        "local function add(a, b, c, d, e, f) local s = a + b + c + d + e + f return s end\n"
        "local total = 0\nfor i = 1, 1000 do total = add(total, i, 1, 1, 1, 1) end\nprint(total)");
    ASSERT_TRUE(leaf.success) << leaf.error;
    EXPECT_EQ(leaf.output, "504500\n");
    // Only the chunk's own environment (it declares a function) is on the heap.
    EXPECT_EQ(EnvironmentObject::t_environmentsAllocated - before, 1u);

    before = EnvironmentObject::t_environmentsAllocated;
    ScriptRun making = runCaptured(vm,
        "local function make(v) return function() return v end end\n"
        "for i = 1, 50 do make(i) end");
    ASSERT_TRUE(making.success) << making.error;
    EXPECT_EQ(EnvironmentObject::t_environmentsAllocated - before, 51u);
}

// A closure stored in a table that lives in the closure's own environment is a cycle
// (environment -> table -> function -> environment) that only the collector can free.
TEST(Environments, CyclesThroughEnvironmentsAreCollected) {
    LuaVM vm;
    collectCycles();
    std::size_t baseline = liveContainerCount();
    ScriptRun run = runCaptured(vm,
        "local function make()\n local t = {}\n t.f = function() return t end\n return 0\nend\n"
        "for i = 1, 2000 do make() end\nprint('made')");
    ASSERT_TRUE(run.success) << run.error;
    collectCycles();
    // The chunk's own function and environment may stay with the VM; the 6000 cyclic objects go.
    EXPECT_LT(liveContainerCount(), baseline + 10);
}

} // namespace
} // namespace korvel::lua::testing
