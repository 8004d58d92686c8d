// The host interface: LuaValue, run results, globals shared across runs, bound functions.
#include "lua_test_support.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace korvel::lua::testing {
namespace {

TEST(LuaValueText, MatchesTheHostForms) {
    EXPECT_EQ(LuaValue().toString(), "nil");
    EXPECT_EQ(LuaValue(nullptr).toString(), "nil");
    EXPECT_EQ(LuaValue(42).toString(), "42");
    EXPECT_EQ(LuaValue(2.5).toString(), "2.5");
    EXPECT_EQ(LuaValue(1e20).toString(), "1e+20");
    EXPECT_EQ(LuaValue(true).toString(), "true");
    EXPECT_EQ(LuaValue("text").toString(), "text");
    EXPECT_EQ(LuaValue(LuaValue::Array{1, "a", LuaValue::Array{}}).toString(), "[1, a, []]");
    EXPECT_EQ(LuaValue(LuaValue::Map{{"a", 1}}).toString(), "{a: 1}");
    EXPECT_EQ(LuaVM::valueToString(LuaValue(LuaValue::Map{})), "{}");
}

TEST(LuaValueAccess, ChecksKinds) {
    EXPECT_EQ(LuaValue(3.9).asInteger(), 3);
    EXPECT_EQ(LuaValue(-3.9).asInteger(), -3);
    EXPECT_DOUBLE_EQ(LuaValue(4).asFloat(), 4.0);
    EXPECT_FALSE(LuaValue(false).isTruthy());
    EXPECT_FALSE(LuaValue().isTruthy());
    EXPECT_TRUE(LuaValue(0).isTruthy());
    EXPECT_TRUE(LuaValue("").isTruthy());
    struct Failure {
        std::function<void()> access;
        const char* message;
    };
    const Failure failures[] = {
        {[] { (void)LuaValue("x").asInteger(); }, "value is not numeric"},
        {[] { (void)LuaValue(true).asFloat(); }, "value is not numeric"},
        {[] { (void)LuaValue(1).asBoolean(); }, "value is not boolean"},
        {[] { (void)LuaValue(1).asString(); }, "value is not a string"},
        {[] { (void)LuaValue(1).asArray(); }, "value is not an array"},
        {[] { (void)LuaValue(1).asMap(); }, "value is not a map"},
        {[] { (void)LuaValue(1).asFunction(); }, "value is not a function"},
    };
    for (const Failure& failure : failures) {
        try {
            failure.access();
            ADD_FAILURE() << "no error for " << failure.message;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), failure.message);
        }
    }
    EXPECT_STREQ(luaValueTypeName(LuaValueType::Map), "map");
    EXPECT_EQ(static_cast<int>(LuaValue::makeArray().type()), 5);
    EXPECT_EQ(LuaValue::makeMap().type(), LuaValueType::Map);
}

TEST(LuaValueSharing, CopiesShareContainers) {
    LuaValue array = LuaValue::makeArray();
    LuaValue copy = array;
    copy.asArray().push_back(1);
    EXPECT_EQ(array.asArray().size(), 1u);
}

struct ReturnCase {
    const char* source;
    const char* text;
    LuaValueType type;
};

class ReturnedValues : public ::testing::TestWithParam<ReturnCase> {};

TEST_P(ReturnedValues, ConvertToHostValues) {
    LuaVM vm;
    LuaResult result = vm.runScriptString(GetParam().source, "ret");
    ASSERT_TRUE(result.success) << result.error;
    EXPECT_TRUE(result.error.empty());
    EXPECT_EQ(result.value.type(), GetParam().type) << GetParam().source;
    // Maps with several pairs print in their own iteration order, so only their kind is checked here.
    if (GetParam().text) {
        EXPECT_EQ(result.value.toString(), GetParam().text) << GetParam().source;
    }
}

INSTANTIATE_TEST_SUITE_P(Results, ReturnedValues, ::testing::Values(
    ReturnCase{"return 1, 2, 3", "[1, 2, 3]", LuaValueType::Array},
    ReturnCase{"return", "nil", LuaValueType::Nil},
    ReturnCase{"return nil", "nil", LuaValueType::Nil},
    ReturnCase{"x = 1", "nil", LuaValueType::Nil},
    ReturnCase{"return 7 / 2", "3.5", LuaValueType::Float},
    ReturnCase{"return 6 / 2", "3", LuaValueType::Integer},
    ReturnCase{"return {}", "[]", LuaValueType::Array},
    ReturnCase{"return {[1] = 'a', [2] = 'b', [4] = 'd'}", nullptr, LuaValueType::Map},
    ReturnCase{"return {a = {1, 2}}", "{a: [1, 2]}", LuaValueType::Map},
    ReturnCase{"return {[true] = 1}", "{true: 1}", LuaValueType::Map},
    ReturnCase{"return function() end", "[function anonymous]", LuaValueType::Function},
    ReturnCase{"local function named() end return named", "[function named]", LuaValueType::Function}));

TEST(ReturnedValues, SparseTableBecomesMapWithTextKeys) {
    LuaVM vm;
    LuaResult result = vm.runScriptString("return {[1] = 'a', [2] = 'b', [4] = 'd'}", "ret");
    ASSERT_TRUE(result.success);
    const LuaValue::Map& map = result.value.asMap();
    ASSERT_EQ(map.size(), 3u);
    EXPECT_EQ(map.at("1").asString(), "a");
    EXPECT_EQ(map.at("2").asString(), "b");
    EXPECT_EQ(map.at("4").asString(), "d");
}

TEST(ReturnedValues, SelfReferenceFailsInsteadOfRecursingForever) {
    LuaVM vm;
    LuaResult result = vm.runScriptString("local t = {}\nt[1] = t\nreturn t", "ret");
    EXPECT_FALSE(result.success);
    EXPECT_NE(result.error.find("nested too deeply"), std::string::npos) << result.error;
}

TEST(Globals, PersistAcrossRunsAndHostCalls) {
    LuaVM vm;
    LuaValue value;
    EXPECT_FALSE(vm.getGlobal("neverSet", value));
    vm.setGlobal("fromHost", LuaValue(LuaValue::Map{{"n", 5}}));
    ASSERT_TRUE(vm.runScriptString("counter = fromHost.n + 1", "first").success);
    ASSERT_TRUE(vm.runScriptString("counter = counter * 2", "second").success);
    ASSERT_TRUE(vm.getGlobal("counter", value));
    EXPECT_EQ(value.asInteger(), 12);
    LuaResult failed = vm.runScriptString("counter = 100\nerror('stop')", "third");
    EXPECT_FALSE(failed.success);
    EXPECT_EQ(failed.error, "third:2: stop");
    ASSERT_TRUE(vm.getGlobal("counter", value));
    EXPECT_EQ(value.asInteger(), 100);
}

TEST(Globals, LocalsDoNotSurviveARun) {
    LuaVM vm;
    ASSERT_TRUE(vm.runScriptString("local hidden = 1", "a").success);
    LuaResult result = vm.runScriptString("return hidden", "b");
    ASSERT_TRUE(result.success);
    EXPECT_TRUE(result.value.isNil());
}

TEST(BoundFunctions, ReceiveConvertedArgumentsAndReturnOneValue) {
    LuaVM vm;
    std::vector<LuaValue> seen;
    vm.bindFunction("host.sum", [&seen](LuaVM&, const std::vector<LuaValue>& arguments) {
        seen = arguments;
        std::int64_t total = 0;
        for (const LuaValue& element : arguments[0].asArray()) total += element.asInteger();
        return LuaValue(total);
    });
    bindCppFunctionToLuaVM(vm, "fail", [](LuaVM&, const std::vector<LuaValue>&) -> LuaValue {
        throw std::runtime_error("host refused");
    });
    LuaValue function;
    ASSERT_TRUE(vm.getGlobal("host.sum", function));
    EXPECT_EQ(function.toString(), "[function host.sum]");

    vm.setGlobal("callee", function);
    LuaResult result = vm.runScriptString("return callee({4, 5}, 'x')", "call");
    ASSERT_TRUE(result.success) << result.error;
    EXPECT_EQ(result.value.asInteger(), 9);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].asString(), "x");

    result = vm.runScriptString("return pcall(fail)", "p");
    ASSERT_TRUE(result.success);
    EXPECT_EQ(result.value.toString(), "[false, host refused]");
    result = vm.runScriptString("fail()", "q");
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.error, "host refused");
}

TEST(BoundFunctions, FunctionHandlesRoundTrip) {
    LuaVM vm;
    LuaResult made = vm.runScriptString("return function(x) return x * 3 end", "make");
    ASSERT_TRUE(made.success);
    vm.setGlobal("triple", made.value);
    LuaResult used = vm.runScriptString("return triple(5)", "use");
    ASSERT_TRUE(used.success) << used.error;
    EXPECT_EQ(used.value.asInteger(), 15);

    LuaVM other;
    other.setGlobal("foreign", LuaValue(1));
    EXPECT_THROW(other.setGlobal("foreign", made.value), std::runtime_error);
}

TEST(RunScriptFile, ReportsMissingFiles) {
    LuaVM vm;
    LuaResult result = vm.runScriptFile("/nonexistent/script.lua");
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.error, "unable to open script file: /nonexistent/script.lua");
    result = runLuaScriptString(vm, "return 1", "free");
    EXPECT_TRUE(result.success);
}

TEST(VmMove, KeepsStateAndBindings) {
    LuaVM vm;
    ASSERT_TRUE(vm.runScriptString("kept = 5", "a").success);
    LuaVM moved(std::move(vm));
    ScriptRun run = runCaptured(moved, "print(kept)");
    ASSERT_TRUE(run.success) << run.error;
    EXPECT_EQ(run.output, "5\n");
}

} // namespace
} // namespace korvel::lua::testing
