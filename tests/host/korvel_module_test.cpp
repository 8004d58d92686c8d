// The Korvel module and the free helpers, driven through scripts as games use them.
#include "host/korvel_module.h"

#include "host/host.h"
#include "host_test_support.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace quillfen {
namespace {

using testing_support::HostScript;

TEST(Checksum, RotatesAndWeighsEachByteByItsPosition) {
    EXPECT_EQ(calculateChecksum(""), 0u);
    EXPECT_EQ(calculateChecksum("a"), 97u);
    EXPECT_EQ(calculateChecksum("ab"), 97u * 8 + 98u * 2);
    // Bytes count as unsigned: 0xff at position 1 is 255, not -1.
    EXPECT_EQ(calculateChecksum("\xff"), 255u);
    // Eleven rotations by 3 carry the first byte's bits around the top: the sum wraps.
    std::uint32_t expected = 0;
    std::string text = "The quick brown fox";
    for (std::size_t i = 0; i < text.size(); ++i)
        expected = ((expected << 3) | (expected >> 29)) + static_cast<unsigned char>(text[i]) * std::uint32_t(i + 1);
    EXPECT_EQ(calculateChecksum(text), expected);
    HostScript host;
    EXPECT_EQ(host.run("print(Korvel.checksum(\"ab\"))"), "972\n");
    // The full 32 bits reach the script as an int (negative when the top bit is set).
    EXPECT_EQ(host.run("print(Korvel.checksum(\"" + text + "\"))"),
              std::to_string(static_cast<std::int32_t>(expected)) + "\n");
}

TEST(Truncation, SaturatesInsteadOfOverflowing) {
    EXPECT_EQ(truncateToInt32(2.9), 2);
    EXPECT_EQ(truncateToInt32(-2.9), -2);
    EXPECT_EQ(truncateToInt32(1e20), INT32_MAX);
    EXPECT_EQ(truncateToInt32(-1e20), INT32_MIN);
    EXPECT_EQ(truncateToInt32(0.0 / 0.0), 0);
}

TEST(Buttons, StrictBoundsFirstPushedWinsAndTruncation) {
    HostScript host;
    struct Case {
        const char* script;
        const char* output;
    } cases[] = {
        {"Korvel.clearButtons(); print(Korvel.checkButton(5, 5))", "0\n"},
        {"Korvel.clearButtons(); Korvel.pushButton(0, 10, 0, 10, 7); print(Korvel.checkButton(5, 5))", "7\n"},
        // On an edge is outside.
        {"Korvel.clearButtons(); Korvel.pushButton(0, 10, 0, 10, 7); print(Korvel.checkButton(0, 5))", "0\n"},
        {"Korvel.clearButtons(); Korvel.pushButton(0, 10, 0, 10, 7); print(Korvel.checkButton(5, 10))", "0\n"},
        // Bounds in either order.
        {"Korvel.clearButtons(); Korvel.pushButton(10, 0, 10, 0, 3); print(Korvel.checkButton(9, 1))", "3\n"},
        // Overlapping buttons: the first pushed wins.
        {"Korvel.clearButtons(); Korvel.pushButton(0, 10, 0, 10, 1); Korvel.pushButton(5, 20, 5, 20, 2); "
         "print(Korvel.checkButton(7, 7)); print(Korvel.checkButton(15, 15))",
         "1\n2\n"},
        // 2.9 is stored as 2 and -2.9 as -2: x = 2.5 truncates to 2, which is outside (2, 5).
        {"Korvel.clearButtons(); Korvel.pushButton(-2.9, 5, 0, 10, 4); print(Korvel.checkButton(-1.5, 5))", "4\n"},
        {"Korvel.clearButtons(); Korvel.pushButton(2.9, 5, 0, 10, 4); print(Korvel.checkButton(2.5, 5)); "
         "print(Korvel.checkButton(3, 5))",
         "0\n4\n"},
        {"Korvel.clearButtons(); Korvel.pushButton(0, 10, 0, 10, 9.7); print(Korvel.checkButton(1, 1))", "9\n"},
        {"Korvel.clearButtons(); Korvel.pushButton(0, 10, 0, 10, 1); Korvel.clearButtons(); "
         "print(Korvel.checkButton(5, 5))",
         "0\n"},
    };
    for (const Case& c : cases) EXPECT_EQ(host.run(c.script), c.output) << c.script;
}

TEST(SetVar, StoresWithTheRequestedKind) {
    HostScript host;
    struct Case {
        const char* call;
        const char* printed;  // typeOf and value of x afterwards
    } cases[] = {
        {"Korvel.setVar(\"x\", 5)", "int 5"},
        {"Korvel.setVar(\"x\", \"text\")", "string text"},
        {"Korvel.setVar(\"x\", KORVEL_INT, 3.9)", "int 3"},
        {"Korvel.setVar(\"x\", KORVEL_INT, -3.9)", "int -3"},
        {"Korvel.setVar(\"x\", KORVEL_FLOAT, 2)", "float 2.000000"},
        {"Korvel.setVar(\"x\", KORVEL_BOOL, 0)", "bool true"},
        {"Korvel.setVar(\"x\", KORVEL_BOOL, false)", "bool false"},
        {"Korvel.setVar(\"x\", KORVEL_BOOL, nothing)", "bool false"},
        {"Korvel.setVar(\"x\", KORVEL_STRING, \"s\")", "string s"},
        {"Korvel.setVar(\"x\", KORVEL_FUNCTION, 12)", "int 12"},
        {"Korvel.setVar(\"x\", KORVEL_POINTER, \"p\")", "string p"},
        {"Korvel.setVar(\"x\", 99, \"kept\")", "string kept"},
        // A second argument that is not a number is the value, whatever follows.
        {"Korvel.setVar(\"x\", \"first\", 1)", "string first"},
        // A float datatype is truncated: 1.7 is KORVEL_FLOAT.
        {"Korvel.setVar(\"x\", 1.7, 4)", "float 4.000000"},
    };
    for (const Case& c : cases) {
        std::string script = std::string(c.call) + "\nprint(typeOf(x) + \" \" + toString(x))";
        EXPECT_EQ(host.run(script), std::string(c.printed) + "\n") << c.call;
    }
    EXPECT_EQ(host.errorOf("Korvel.setVar(\"x\", KORVEL_STRING, 5)"), "Korvel.setVar: value must be a string");
    EXPECT_EQ(host.errorOf("Korvel.setVar(\"x\", KORVEL_INT, \"5\")"), "Korvel.setVar: value must be numeric");
    EXPECT_EQ(host.errorOf("Korvel.setVar(\"x\")"), "Korvel.setVar: missing argument 2");
    EXPECT_EQ(host.errorOf("Korvel.setVar(1, 2)"), "Korvel.setVar: name must be a string");
}

TEST(KorvelModule, VariablesScriptsFilesAndPaths) {
    HostScript host;
    path = "/games/quillfen/bin/";
    EXPECT_EQ(host.run("gold = 40\nprint(Korvel.getVar(\"gold\") + 2)"), "42\n");
    EXPECT_EQ(host.errorOf("Korvel.getVar(\"noSuchName\")"), "Korvel.getVar: Variable not found: noSuchName");
    EXPECT_EQ(host.run("print(Korvel.runScript(\"return 6 * 7\"))\nKorvel.runScript(\"shared = 5\")\nprint(shared)"),
              "42\n5\n");
    EXPECT_EQ(host.errorOf("Korvel.runScript(\"x = 1 / 0\")"), "Korvel.runScript: Division by zero");
    EXPECT_EQ(host.run("print(Korvel.getPath())"), "/games/quillfen/bin/\n");

    // Forward slashes: the path goes into a string literal, where "\\" would start an escape.
    std::string file = std::filesystem::path(::testing::TempDir()).generic_string() + "korvel_read_file.txt";
    std::ofstream(file, std::ios::binary) << "line one\nline two\n";
    EXPECT_EQ(host.run("print(#Korvel.readFile(\"" + file + "\"))"), "18\n");
    EXPECT_EQ(host.errorOf("Korvel.readFile(\"" + file + ".missing\")"),
              "Korvel.readFile: failed to read file: " + file + ".missing");
    std::remove(file.c_str());
}

TEST(KorvelModule, ArgumentErrorsNameTheFunction) {
    HostScript host;
    struct Case {
        const char* call;
        const char* message;
    } cases[] = {
        {"Korvel.sleep(\"soon\")", "Korvel.sleep: milliseconds must be numeric"},
        {"Korvel.sleep()", "Korvel.sleep: missing argument 1"},
        {"Korvel.checksum(5)", "Korvel.checksum: text must be a string"},
        {"Korvel.checkButton(1)", "Korvel.checkButton: missing argument 2"},
        {"Korvel.checkButton(\"x\", 1)", "Korvel.checkButton: x must be numeric"},
        {"Korvel.pushButton(1, 2, 3, 4)", "Korvel.pushButton: missing argument 5"},
        {"Korvel.pushButton(1, 2, \"3\", 4, 5)", "Korvel.pushButton: y1 must be numeric"},
        {"Korvel.hostLog(3)", "Korvel.hostLog: message must be a string"},
        {"Korvel.readFile()", "Korvel.readFile: missing argument 1"},
        {"Korvel.runScript(1)", "Korvel.runScript: scriptText must be a string"},
        {"Korvel.getVar()", "Korvel.getVar: missing argument 1"},
    };
    for (const Case& c : cases) EXPECT_EQ(host.errorOf(c.call), c.message) << c.call;
}

TEST(KorvelModule, ClocksSleepAndLog) {
    HostScript host;
    // getClock measures from the previous call; sleep blocks for at least the time asked.
    EXPECT_EQ(host.run("a = Korvel.getClock()\nstart = Korvel.getGlobalTime()\nKorvel.sleep(30)\n"
                       "lap = Korvel.getClock()\nprint(lap >= 30 && lap < 2000)\n"
                       "print(Korvel.getGlobalTime() - start >= 30)\nprint(typeOf(start))"),
              "true\ntrue\nint\n");
    // Time since the host started: this process has run for a while already.
    auto sinceStart = std::chrono::duration_cast<std::chrono::milliseconds>(HostClock::now() - hostStartTime).count();
    EXPECT_EQ(host.run("print(Korvel.getGlobalTime() <= " + std::to_string(sinceStart + 1000) + ")"), "true\n");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(host.run("print(\"out\")\nKorvel.hostLog(\"to the log\")"), "out\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "to the log\n");
}

TEST(GlobalHelpers, ArithmeticAndCountErrors) {
    HostScript host;
    struct Case {
        const char* expression;
        const char* printed;
    } cases[] = {
        {"add(1, 2)", "int 3"},
        {"add(1, 2.5)", "float 3.500000"},
        {"add(true, 2)", "int 3"},
        {"add(-1.5, 1)", "float -0.500000"},
        {"dFeet(5, 6)", "float 5.500000"},
        {"dMetres(1, 0)", "float 3.280840"},
        {"dMetres(0, 100)", "float 3.280840"},
        // Script floats are single precision, so whole feet keep the constants exact.
        {"calcHeight(6)", "float 21.731625"},
        {"calcHeight(5)", "float -163.218369"},
    };
    for (const Case& c : cases) {
        std::string script = std::string("v = ") + c.expression + "\nprint(typeOf(v) + \" \" + toString(v))";
        EXPECT_EQ(host.run(script), std::string(c.printed) + "\n") << c.expression;
    }
    EXPECT_EQ(host.errorOf("add(1)"), "add requires exactly 2 arguments");
    EXPECT_EQ(host.errorOf("add(1, 2, 3)"), "add requires exactly 2 arguments");
    EXPECT_EQ(host.errorOf("dFeet(1)"), "dFeet(feet, inches) requires exactly 2 arguments");
    EXPECT_EQ(host.errorOf("dMetres()"), "dMetres(metres, centimetres) requires exactly 2 arguments");
    EXPECT_EQ(host.errorOf("calcHeight(1, 2)"), "calcHeight(feet) requires exactly 1 argument");
    EXPECT_EQ(host.errorOf("add(\"1\", 2)"), "left must be numeric");
}

}  // namespace
}  // namespace quillfen
