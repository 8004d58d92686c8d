// The cycle collector runs at calls once enough tables and functions were made. These scripts
// make plenty of garbage while live data sits in locals, arguments, upvalues, globals and host
// handles, and check that nothing live was touched. The sanitizer build checks that the
// garbage itself is freed.
#include "lua_test_support.h"

#include <gtest/gtest.h>

namespace korvel::lua::testing {
namespace {

// Makes about 30,000 containers, several collections' worth, half of them in cycles.
constexpr const char* kGarbage =
    "local function churn()\n"
    "  for i = 1, 15000 do\n"
    "    local t = {}\n"
    "    t.self = t\n"
    "    local function loop() return loop end\n"
    "  end\n"
    "end\n";

TEST(Collector, KeepsEverythingStillReachable) {
    std::string source = std::string(kGarbage) +
        "local ring = {name = 'first'}\n"
        "ring.next = {name = 'second', next = ring}\n"
        "local function counter()\n"
        "  local n = 0\n"
        "  return function() n = n + 1 return n end\n"
        "end\n"
        "local tick = counter()\n"
        "tick()\n"
        "kept = {ring = ring}\n"
        "local function pass(a, b, c) return a, b, c end\n"
        "local x, y, z = pass({1, 2}, churn(), {3})\n"
        "churn()\n"
        "print(ring.next.next.name, ring.next.name, tick(), x[2], z[1], kept.ring == ring)\n";
    ScriptRun run = runCaptured(source);
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "first\tsecond\t2\t2\t3\ttrue\n");
}

TEST(Collector, HostHandlesKeepFunctionsAlive) {
    LuaVM vm;
    LuaResult made = vm.runScriptString(
        "local state = {count = 10}\n"
        "state.self = state\n"
        "return function() state.count = state.count + 1 return state.count end", "make");
    ASSERT_TRUE(made.success) << made.error;
    ASSERT_TRUE(vm.runScriptString(std::string(kGarbage) + "churn() churn()", "garbage").success);
    vm.setGlobal("bump", made.value);
    LuaResult used = vm.runScriptString("bump() return bump()", "use");
    ASSERT_TRUE(used.success) << used.error;
    EXPECT_EQ(used.value.asInteger(), 12);
}

TEST(Collector, IteratorsAndPendingResultsSurvive) {
    std::string source = std::string(kGarbage) +
        "local t = {a = 1, b = 2, c = 3}\n"
        "local sum = 0\n"
        "for k, v in pairs(t) do churn() sum = sum + v end\n"
        "local words = {}\n"
        "for w in string.gmatch('x y z', '%a') do churn() words[#words + 1] = w end\n"
        "print(sum, table.concat(words))\n";
    ScriptRun run = runCaptured(source);
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "6\txyz\n");
}

} // namespace
} // namespace korvel::lua::testing
