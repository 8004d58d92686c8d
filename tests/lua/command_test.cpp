// The korvel-lua command: exit statuses and what it writes.
#include "lua_command.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace korvel::lua::testing {
namespace {

struct CommandRun {
    int status = -1;
    std::string output;
    std::string errors;
};

CommandRun runCommand(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    std::string program = "korvel-lua";
    argv.push_back(program.data());
    for (std::string& argument : arguments) argv.push_back(argument.data());
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    CommandRun run;
    run.status = runLuaCommandLine(static_cast<int>(argv.size()), argv.data());
    std::fflush(stdout);
    run.output = ::testing::internal::GetCapturedStdout();
    run.errors = ::testing::internal::GetCapturedStderr();
    return run;
}

TEST(Command, ExitStatusFollowsTheOutcome) {
    struct StatusCase {
        std::vector<std::string> arguments;
        int status;
        const char* output;
        const char* errorPart;
    };
    const StatusCase cases[] = {
        {{"--version"}, 0, "KorvelLua 0.3\n", ""},
        {{}, 2, "", "usage:"},
        {{"--unknown"}, 2, "", "unknown option"},
        {{"-e"}, 2, "", "usage:"},
        {{"-e", "print(6 / 2)"}, 0, "3\n", ""},
        {{"-e", "print('a') os.exit(7) print('b')"}, 0, "a\n", ""},
        {{"-e", "error('boom')"}, 1, "", "(command line):1: boom"},
        {{"-e", "x = ("}, 1, "", "(command line):1:6: expected expression"},
        {{"/nonexistent/file.lua"}, 1, "", "unable to open script file: /nonexistent/file.lua"},
    };
    for (const StatusCase& c : cases) {
        CommandRun run = runCommand(c.arguments);
        std::string label = c.arguments.empty() ? "(none)" : c.arguments[0];
        EXPECT_EQ(run.status, c.status) << label;
        EXPECT_EQ(run.output, c.output) << label;
        EXPECT_NE(run.errors.find(c.errorPart), std::string::npos) << label << ": " << run.errors;
    }
}

TEST(Command, PassesScriptArguments) {
    std::string path = ::testing::TempDir() + "korvel_command_args.lua";
    std::ofstream(path) << "print(#arg, arg[1], arg[2])\n";
    CommandRun run = runCommand({path, "first", "second"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "2\tfirst\tsecond\n");
    std::remove(path.c_str());
}

} // namespace
} // namespace korvel::lua::testing
