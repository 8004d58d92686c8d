// The argument helpers' messages and the module table rules every binding relies on.
#include "host/bindings.h"

#include "core/script_error.h"

#include <gtest/gtest.h>

namespace quillfen {
namespace {

using korvel::ScriptError;

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const ScriptError& error) {
        return error.what();
    }
    return "";
}

TEST(ArgumentHelpers, ReportTheDisplayNameAndTheArgument) {
    Arguments two{Variable(1), Variable("text")};
    struct Case {
        std::function<void()> call;
        const char* message;
    } cases[] = {
        {[&] { requireArg(two, 2, "Audio.free"); }, "Audio.free: missing argument 3"},
        {[&] { requireArg({}, 0, "Audio.free"); }, "Audio.free: missing argument 1"},
        {[&] { numericValue(two[1], "Korvel.sleep", "milliseconds"); }, "Korvel.sleep: milliseconds must be numeric"},
        {[&] { numericValue(Variable(), "Korvel.sleep", "milliseconds"); }, "Korvel.sleep: milliseconds must be numeric"},
        {[&] { stringValue(two[0], "Korvel.checksum", "text"); }, "Korvel.checksum: text must be a string"},
        {[&] { pointerValue(two[0], "Audio.play", "track"); }, "Audio.play: track must be a pointer"},
        {[&] { bindingError("Mirel.createImage", ""); }, "Mirel.createImage: "},
    };
    for (const Case& c : cases) EXPECT_EQ(messageOf(c.call), c.message);
}

TEST(ArgumentHelpers, NumbersBooleansAndPointersConvert) {
    EXPECT_EQ(numericValue(Variable(7), "f", "x"), 7.0);
    EXPECT_EQ(numericValue(Variable(2.5f), "f", "x"), 2.5);
    EXPECT_EQ(numericValue(Variable(true), "f", "x"), 1.0);
    EXPECT_EQ(numericValue(Variable(false), "f", "x"), 0.0);
    EXPECT_EQ(stringValue(Variable("abc"), "f", "x"), "abc");
    int object = 0;
    EXPECT_EQ(pointerValue(Variable::fromPointer(&object), "f", "x"), &object);
    Arguments args{Variable(3)};
    EXPECT_EQ(&requireArg(args, 0, "f"), &args[0]);
}

TEST(ArgumentHelpers, ReturnValuesTravelAsOneMultiValue) {
    Variable packed = returnValues({Variable(1), Variable("two")});
    ASSERT_EQ(packed.type(), korvel::VarType::MultiValue);
    ASSERT_EQ(packed.multiValues().size(), 2u);
    EXPECT_EQ(packed.multiValues()[1].asString(), "two");
}

TEST(MakeModule, KeepsTheFirstEntryOfANameAndNamesErrorsAfterTheModule) {
    korvel::KorvelScript script;
    std::string output;
    script.setOutput([&](std::string_view text) { output.append(text); });
    makeModule(script, "Demo",
               {{"value", [](const Arguments&) { return Variable(1); }},
                {"fail", [](const Arguments& args) -> Variable {
                     requireArg(args, 0, "Demo.fail");
                     return Variable();
                 }},
                {"value", [](const Arguments&) { return Variable(2); }}});
    korvel::RunResult result = script.runScript("print(Demo.value())\nprint(typeOf(Demo))\nok, m = pcall(Demo.fail)\nprint(m)");
    script.flushOutput();
    ASSERT_TRUE(result.ok) << result.errorReport;
    EXPECT_EQ(output, "1\ntable\nDemo.fail: missing argument 1\n");
    // Two names, not three: the later "value" was dropped.
    EXPECT_EQ(script.pullVariable("Demo").table().size(), 2u);
}

}  // namespace
}  // namespace quillfen
