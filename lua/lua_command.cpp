// korvel-lua / "korvel lua": argument handling around LuaVM::runScriptFile.
#include "lua_command.h"

#include "lua_version.h"
#include "lua_vm.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace korvel::lua {

namespace {


void printUsage(std::FILE* stream, const char* program) {
    std::fprintf(stream,
                 "usage: %s FILE.lua [args...]\n"
                 "       %s -e CODE\n"
                 "       %s --help | --version\n"
                 "Runs a KorvelLua script. Exit status: 0 on success, 1 on a script error, 2 on a usage error.\n",
                 program, program, program);
}

int finish(const LuaResult& result) {
    std::fflush(stdout);
    if (result.success) return 0;
    std::fprintf(stderr, "%s\n", result.error.c_str());
    return 1;
}

} // namespace

int runLuaCommandLine(int argc, char** argv) {
    const char* program = argc > 0 && argv[0] ? argv[0] : "korvel-lua";
    if (argc < 2) {
        printUsage(stderr, program);
        return 2;
    }
    std::string_view first = argv[1];
    if (first == "--help" || first == "-h") {
        printUsage(stdout, program);
        return 0;
    }
    if (first == "--version" || first == "-v") {
        std::printf("%s\n", kVersionText);
        return 0;
    }
    LuaVM vm;
    if (first == "-e") {
        if (argc != 3) {
            printUsage(stderr, program);
            return 2;
        }
        vm.setGlobal("arg", LuaValue::makeArray());
        return finish(vm.runScriptString(argv[2], "(command line)"));
    }
    if (first.size() > 1 && first[0] == '-') {
        std::fprintf(stderr, "%s: unknown option '%s'\n", program, argv[1]);
        printUsage(stderr, program);
        return 2;
    }
    LuaValue::Array arguments;
    for (int i = 2; i < argc; ++i) arguments.emplace_back(std::string(argv[i]));
    vm.setGlobal("arg", LuaValue(std::move(arguments)));
    return finish(vm.runScriptFile(argv[1]));
}

} // namespace korvel::lua
