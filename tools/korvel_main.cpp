// korvel: runs KorvelScript files, text and an interactive prompt; `korvel lua` runs the Lua
// dialect.
#include "core/file_io.h"
#include "core/korvel_script.h"
#include "tools/repl.h"

#if defined(KORVEL_HAS_LUA)
#include "lua/lua_command.h"
#endif

#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <string>

#if defined(_WIN32)
#include <io.h>
#define KORVEL_ISATTY _isatty
#define KORVEL_FILENO _fileno
#else
#include <unistd.h>
#define KORVEL_ISATTY isatty
#define KORVEL_FILENO fileno
#endif

namespace {

constexpr const char* kVersion = "korvel 0.1.0 (KorvelScript)";

void printUsage(std::FILE* to) {
    std::fputs(
        "usage: korvel [FILE.ks | run FILE.ks | -e CODE | compile IN OUT | lua FILE.lua ...]\n"
        "  korvel FILE.ks     run a script (also: korvel run FILE.ks)\n"
        "  korvel -e CODE     run the text CODE\n"
        "  korvel             on a terminal: an interactive prompt; otherwise run standard input\n"
        "  korvel lua FILE    run a file of the Lua dialect\n"
        "  korvel compile IN.ks OUT.ksbc   compile a script into a bytecode image (run it as korvel OUT.ksbc)\n"
        "  --help, --version\n"
        "exit status: 0 after a normal run, 1 after a script error, 2 for a usage error\n",
        to);
}

int report(const korvel::RunResult& result, korvel::KorvelScript& script) {
    script.flushOutput();
    if (result.ok) return 0;
    std::fputs(result.errorReport.c_str(), stderr);
    return 1;
}

// korvel compile IN.ks OUT.ksbc
int compile(korvel::KorvelScript& script, const std::string& input, const std::string& output) {
    std::vector<std::uint8_t> source;
    if (!korvel::readFileBytes(input, source)) {
        std::fprintf(stderr, "korvel: cannot read %s\n", input.c_str());
        return 1;
    }
    std::vector<std::uint8_t> image;
    try {
        image = script.serialiseBytecode(std::string_view(reinterpret_cast<const char*>(source.data()), source.size()), input);
    } catch (const korvel::ScriptError& error) {
        std::fputs(error.located() ? error.report().c_str() : (std::string("KorvelScript error: ") + error.what() + "\n").c_str(), stderr);
        return 1;
    }
    std::string why;
    if (!korvel::writeFileAtomically(output, image, why)) {
        std::fprintf(stderr, "korvel: cannot write %s: %s\n", output.c_str(), why.c_str());
        return 1;
    }
    return 0;
}

// A file that starts with the image magic runs as bytecode, anything else as source.
korvel::RunResult runPath(korvel::KorvelScript& script, const std::string& path) {
    std::vector<std::uint8_t> bytes;
    if (korvel::readFileBytes(path, bytes) && bytes.size() >= 4 && std::memcmp(bytes.data(), "KSBC", 4) == 0) {
        try {
            return script.runBytecode(script.deserialiseBytecode(bytes));
        } catch (const korvel::ScriptError& error) {
            korvel::RunResult result;
            result.ok = false;
            result.errorMessage = error.what();
            result.errorReport = "KorvelScript error: " + result.errorMessage + "\n";
            return result;
        }
    }
    return script.runFile(path);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "lua") == 0) {
#if defined(KORVEL_HAS_LUA)
        return korvel::lua::runLuaCommandLine(argc - 1, argv + 1);
#else
        std::fputs("korvel: this build has no Lua dialect\n", stderr);
        return 2;
#endif
    }
    korvel::KorvelScript script;
    if (argc == 1) {
        bool terminal = KORVEL_ISATTY(KORVEL_FILENO(stdin));
        if (terminal) {
            std::printf("%s; end of input (Ctrl-D) leaves\n", kVersion);
            return korvel::tools::runRepl(script, std::cin, std::cout, std::cerr, true);
        }
        std::string source((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
        return report(script.runScript(source, "stdin"), script);
    }
    std::string first = argv[1];
    if (first == "--help" || first == "-h") {
        printUsage(stdout);
        return 0;
    }
    if (first == "--version") {
        std::printf("%s\n", kVersion);
        return 0;
    }
    if (first == "-e") {
        if (argc != 3) {
            printUsage(stderr);
            return 2;
        }
        return report(script.runScript(argv[2], "(command line)"), script);
    }
    if (first == "compile") {
        if (argc != 4) {
            printUsage(stderr);
            return 2;
        }
        return compile(script, argv[2], argv[3]);
    }
    int fileArgument = 1;
    if (first == "run") fileArgument = 2;
    if (fileArgument >= argc || argv[fileArgument][0] == '-') {
        printUsage(stderr);
        return 2;
    }
    korvel::Variable arguments = korvel::Variable::makeArray();
    for (int i = fileArgument + 1; i < argc; ++i) arguments.arrayItems().push_back(korvel::Variable(argv[i]));
    script.pushVariable("arg", arguments);
    return report(runPath(script, argv[fileArgument]), script);
}
