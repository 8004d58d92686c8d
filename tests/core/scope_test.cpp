// Scopes and calls from the host's side: pushFunction, pushVariable, pullVariable,
// callCallable and createNativeCallable, with the name look-up and assignment rules that
// host code and script code share.
#include "core/korvel_script.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace korvel {
namespace {

class HostApi : public ::testing::Test {
protected:
    HostApi() {
        script.setOutput([this](std::string_view text) { output += text; });
    }
    RunResult run(std::string_view source) { return script.runScript(source); }
    std::string messageOf(const std::function<void()>& action) {
        try {
            action();
        } catch (const std::exception& error) {
            return error.what();
        }
        return "<no error>";
    }

    KorvelScript script;
    std::string output;
};

// --- pushVariable / pullVariable ----------------------------------------------------------

TEST_F(HostApi, PushedVariableIsVisibleToScriptsAtOnce) {
    script.pushVariable("hostValue", Variable(std::int32_t{41}));
    RunResult r = run("return hostValue + 1");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "42");
}

TEST_F(HostApi, PushedVariableOverwritesAScriptGlobal) {
    ASSERT_TRUE(run("setting = \"old\"\nfunction read()\n  return setting\nend").ok);
    script.pushVariable("setting", Variable("new"));
    RunResult r = run("return read()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "new");
}

TEST_F(HostApi, PushedContainerIsSharedWithTheScript) {
    Variable list = Variable::makeArray();
    list.arrayItems().push_back(Variable(std::int32_t{1}));
    script.pushVariable("list", list);
    ASSERT_TRUE(run("list[2] = \"added\"\nlist[1] += 1").ok);
    EXPECT_EQ(list.toString(), "[2, added]");
}

TEST_F(HostApi, PullVariableReadsScriptGlobals) {
    ASSERT_TRUE(run("answer = 6 * 7\nname = \"korvel\"\nlist = [1, [2]]\nflag = ture").ok);
    EXPECT_EQ(script.pullVariable("answer").toString(), "42");
    EXPECT_EQ(script.pullVariable("answer").type(), VarType::Int);
    EXPECT_EQ(script.pullVariable("name").toString(), "korvel");
    EXPECT_EQ(script.pullVariable("list").toString(), "[1, [2]]");
    EXPECT_EQ(script.pullVariable("flag").type(), VarType::Bool);
}

TEST_F(HostApi, PullVariableOfAnUnknownNameFails) {
    EXPECT_EQ(messageOf([&] { script.pullVariable("x"); }), "Variable not found: x");
    ASSERT_TRUE(run("function f()\n  local onlyLocal = 1\nend\nf()").ok);
    EXPECT_EQ(messageOf([&] { script.pullVariable("onlyLocal"); }), "Variable not found: onlyLocal");
}

TEST_F(HostApi, NamePushedAfterAFailedReadIsSeen) {
    ASSERT_TRUE(run("function read()\n  return latecomer\nend\nfirst = typeOf(read())").ok);
    EXPECT_EQ(script.pullVariable("first").toString(), "not");
    script.pushVariable("latecomer", Variable("here"));
    EXPECT_EQ(script.callCallable(script.pullVariable("read"), {}).toString(), "here");
}

TEST_F(HostApi, PushedVariableIsShadowedByAScriptLocal) {
    script.pushVariable("v", Variable(std::int32_t{1}));
    RunResult r = run("function f()\n  local v = 2\n  return v + v#1 * 10\nend\nreturn f()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "12");
    EXPECT_EQ(script.pullVariable("v").toString(), "1");
}

// --- pushFunction and native calls --------------------------------------------------------

TEST_F(HostApi, NativeFunctionReceivesItsArgumentsInOrder) {
    std::vector<Variable> seen;
    script.pushFunction("record", [&](const std::vector<Variable>& args) {
        seen = args;
        return Variable(static_cast<std::int32_t>(args.size()));
    });
    RunResult r = run("return record(1, \"two\", 3.5, [4], ture, nothing)");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "6");
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[0].type(), VarType::Int);
    EXPECT_EQ(seen[1].toString(), "two");
    EXPECT_EQ(seen[2].toString(), "3.500000");
    EXPECT_EQ(seen[3].toString(), "[4]");
    EXPECT_EQ(seen[4].type(), VarType::Bool);
    EXPECT_TRUE(seen[5].isNil());
}

TEST_F(HostApi, NativeFunctionWithNoArgumentsGetsAnEmptyVector) {
    std::size_t count = 99;
    script.pushFunction("count", [&](const std::vector<Variable>& args) {
        count = args.size();
        return Variable();
    });
    ASSERT_TRUE(run("count()").ok);
    EXPECT_EQ(count, 0u);
}

TEST_F(HostApi, NativeFunctionSharesContainersWithTheScript) {
    script.pushFunction("fill", [](const std::vector<Variable>& args) {
        args.at(0).table().set("filled", Variable(true));
        return Variable();
    });
    RunResult r = run("t = {}\nfill(t)\nreturn t.filled");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "true");
}

TEST_F(HostApi, NativeFunctionResultIsTheCallsValue) {
    script.pushFunction("pair", [](const std::vector<Variable>&) {
        return Variable::makeMulti(std::vector<Variable>{Variable(std::int32_t{1}), Variable("b")});
    });
    RunResult r = run("a, b, c = pair()\nreturn a + b + typeOf(c)");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "1bnot");
}

TEST_F(HostApi, NativeFunctionErrorBecomesAScriptError) {
    script.pushFunction("fails", [](const std::vector<Variable>&) -> Variable {
        throw std::runtime_error("Host.fails: missing argument 1");
    });
    RunResult r = run("x = 1\nfails()");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.errorMessage, "Host.fails: missing argument 1");
    EXPECT_NE(r.errorReport.find("KorvelScript error: Host.fails: missing argument 1\n  at line 2"), std::string::npos)
        << r.errorReport;
    RunResult caught = run("ok, m = pcall(fails)\nreturn m");
    ASSERT_TRUE(caught.ok) << caught.errorReport;
    EXPECT_EQ(caught.value.toString(), "Host.fails: missing argument 1");
}

TEST_F(HostApi, NativeFunctionCanCallBackIntoScripts) {
    script.pushFunction("twice", [this](const std::vector<Variable>& args) {
        Variable once = script.callCallable(args.at(0), {args.at(1)});
        return script.callCallable(args.at(0), {once});
    });
    RunResult r = run("function inc(n)\n  return n + 1\nend\nreturn twice(inc, 5)");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "7");
}

TEST_F(HostApi, ScriptErrorInsideACallbackReachesTheScriptsPcall) {
    script.pushFunction("callIt", [this](const std::vector<Variable>& args) {
        return script.callCallable(args.at(0), {});
    });
    RunResult r = run(
        "function bad()\n  return 1 / 0\nend\n"
        "function outer()\n  local keep = \"kept\"\n  ok, m = pcall(callIt, bad)\n  return keep + \" \" + m\nend\n"
        "return outer()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "kept Division by zero");
}

TEST_F(HostApi, CreatedNativeCallableCanBeStoredAndCalled) {
    Variable callable = script.createNativeCallable(
        [](const std::vector<Variable>& args) { return Variable(static_cast<std::int32_t>(args.size() * 10)); }, "tens");
    ASSERT_EQ(callable.type(), VarType::Function);
    Variable t = Variable::makeTable();
    t.table().set("tens", callable);
    script.pushVariable("Host", t);
    RunResult r = run("return Host.tens(1, 2) + Host[\"tens\"]()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "20");
    EXPECT_EQ(script.callCallable(callable, {Variable(), Variable()}).toString(), "20");
}

// --- callCallable -------------------------------------------------------------------------

TEST_F(HostApi, CallCallableRunsScriptFunctions) {
    ASSERT_TRUE(run("function add(a, b)\n  return a + b\nend").ok);
    Variable add = script.pullVariable("add");
    EXPECT_EQ(script.callCallable(add, {Variable(std::int32_t{2}), Variable(std::int32_t{3})}).toString(), "5");
    EXPECT_EQ(script.invokeCallable(add, {Variable("a"), Variable("b")}).toString(), "ab");
}

TEST_F(HostApi, MissingArgumentsAreNilAndExtraOnesIgnored) {
    ASSERT_TRUE(run("function show(a, b)\n  return typeOf(a) + \",\" + typeOf(b)\nend").ok);
    Variable show = script.pullVariable("show");
    EXPECT_EQ(script.callCallable(show, {}).toString(), "not,not");
    EXPECT_EQ(script.callCallable(show, {Variable(std::int32_t{1})}).toString(), "int,not");
    EXPECT_EQ(script.callCallable(show, {Variable(std::int32_t{1}), Variable("s"), Variable(true), Variable(2.0f)})
                  .toString(),
              "int,string");
}

TEST_F(HostApi, LoadedChunkCalledFromTheHostRejectsArguments) {
    ASSERT_TRUE(run("chunk = load(\"ran = 1\")").ok);
    Variable chunk = script.pullVariable("chunk");
    EXPECT_EQ(messageOf([&] { script.callCallable(chunk, {Variable(std::int32_t{1})}); }),
              "Loaded script chunks do not accept call arguments");
    script.callCallable(chunk, {});
    EXPECT_EQ(script.pullVariable("ran").toString(), "1");
}

TEST_F(HostApi, GlobalAssignedNilExists) {
    ASSERT_TRUE(run("empty = nothingHere").ok);
    EXPECT_TRUE(script.pullVariable("empty").isNil());
}

class NotCallable : public ::testing::TestWithParam<Variable> {};
TEST_P(NotCallable, CallCallableRejectsIt) {
    KorvelScript script;
    std::string message = "<no error>";
    try {
        script.callCallable(GetParam(), {});
    } catch (const std::exception& error) {
        message = error.what();
    }
    EXPECT_EQ(message, "callCallable: value is not a function") << typeName(GetParam().type());
}
INSTANTIATE_TEST_SUITE_P(Kinds, NotCallable, ::testing::Values(
    Variable(), Variable(std::int32_t{5}), Variable("print"), Variable::makeTable(), Variable::makeArray(),
    Variable(true)));

TEST_F(HostApi, CallCallablePropagatesScriptErrors) {
    ASSERT_TRUE(run("function boom()\n  error(\"exploded\")\nend\nfunction div()\n  return 1 / 0\nend").ok);
    EXPECT_EQ(messageOf([&] { script.callCallable(script.pullVariable("boom"), {}); }), "exploded");
    EXPECT_EQ(messageOf([&] { script.callCallable(script.pullVariable("div"), {}); }), "Division by zero");
    // The interpreter is still usable and clean afterwards.
    RunResult r = run("return 3");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "3");
}

TEST_F(HostApi, CallCallableUsesGlobalsNotTheCallersLocals) {
    ASSERT_TRUE(run("level = \"global\"\nfunction peek()\n  return level\nend").ok);
    script.pushFunction("viaHost", [this](const std::vector<Variable>&) {
        return script.callCallable(script.pullVariable("peek"), {});
    });
    RunResult r = run("function f()\n  local level = \"local\"\n  return viaHost()\nend\nreturn f()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "global");
}

TEST_F(HostApi, HostRecursionThroughCallbacksHitsTheDepthLimit) {
    script.pushFunction("again", [this](const std::vector<Variable>& args) {
        return script.callCallable(args.at(0), {args.at(0)});
    });
    RunResult r = run("function loop(self)\n  return again(self)\nend\nreturn loop(loop)");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.errorMessage, "Call depth limit exceeded (recursion too deep)");
}

// --- scope rules seen through the host ----------------------------------------------------

TEST_F(HostApi, FunctionAssignmentCreatesAGlobal) {
    ASSERT_TRUE(run("function make()\n  madeHere = 1\nend\nmake()").ok);
    EXPECT_EQ(script.pullVariable("madeHere").toString(), "1");
}

TEST_F(HostApi, FunctionLocalLeavesTheGlobalUnchanged) {
    script.pushVariable("x", Variable(std::int32_t{1}));
    ASSERT_TRUE(run("function f()\n  local x = 2\n  x = 3\nend\nf()").ok);
    EXPECT_EQ(script.pullVariable("x").toString(), "1");
}

TEST_F(HostApi, NativePrefixWritesTheGlobal) {
    ASSERT_TRUE(run("function f()\n  local g = 1\n  native g = 2\nend\nf()").ok);
    EXPECT_EQ(script.pullVariable("g").toString(), "2");
}

TEST_F(HostApi, ExternalPrefixWritesTheCallersFrame) {
    RunResult r = run(
        "function inner()\n  external shared = \"from inner\"\nend\n"
        "function outer()\n  local shared = \"outer\"\n  inner()\n  return shared\nend\n"
        "return outer()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "from inner");
    EXPECT_EQ(messageOf([&] { script.pullVariable("shared"); }), "Variable not found: shared");
}

TEST_F(HostApi, ExternalPrefixPrefersTheNearestFrame) {
    RunResult r = run(
        "function c()\n  external v = 3\nend\n"
        "function b()\n  local v = 2\n  c()\n  return v\nend\n"
        "function a()\n  local v = 1\n  local fromB = b()\n  return v + \",\" + fromB\nend\n"
        "return a()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "1,3");
}

TEST_F(HostApi, CallsRestoreFramesAfterErrors) {
    RunResult r = run(
        "function thrower()\n  local junk = 1\n  error(\"x\")\nend\n"
        "function caller()\n  local mine = \"mine\"\n  for i = 1, 3\n    pcall(thrower)\n  end\n"
        "  return mine + typeOf(junk)\nend\n"
        "return caller()");
    ASSERT_TRUE(r.ok) << r.errorReport;
    EXPECT_EQ(r.value.toString(), "minenot");
}

TEST_F(HostApi, SeparateInterpretersDoNotShareGlobals) {
    ASSERT_TRUE(run("only = 1").ok);
    KorvelScript other;
    other.setOutput([](std::string_view) {});
    RunResult r = other.runScript("return typeOf(only)");
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.value.toString(), "not");
}

TEST_F(HostApi, PrintGoesToTheOutputWriter) {
    ASSERT_TRUE(run("print(\"a\", 1)\nprint()").ok);
    script.flushOutput();
    EXPECT_EQ(output, "a 1\n\n");
}

}  // namespace
}  // namespace korvel
