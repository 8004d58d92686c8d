// The main flow of the executable.
#include "host/startup.h"

#include "host/host.h"
#include "host/registry.h"
#include "platform/host_platform.h"

#include <cstdio>
#include <exception>
#include <vector>

namespace quillfen {

std::string findExecutableDirectory(int argc, const char* const* argv, DirectoryQuery query) {
    std::string executable;
    if (argc > 0 && argv && argv[0]) executable = korvel::KorvelScript::normalisePath(argv[0]);
    // The platform knows better than argv[0]. The file name appended is never used: only the
    // directory part of the result matters.
    std::vector<char> buffer(4096);
    if (query(buffer.data(), buffer.size()))
        executable = korvel::KorvelScript::normalisePath(std::string(buffer.data()) + "Quillfen.exe");
    std::size_t separator = executable.find_last_of("\\/");
    if (separator == std::string::npos) return "./";
    return executable.substr(0, separator + 1);
}

std::string startupSourcePath() { return korvel::KorvelScript::normalisePath(path + "../Resources/lua.ks"); }

std::string sourceDirectoryForPath(const std::string& sourcePath) {
    std::size_t separator = sourcePath.find_last_of("\\/");
    return separator == std::string::npos ? std::string() : sourcePath.substr(0, separator);
}

void retargetBytecodeSource(korvel::BytecodeProgram& program, const std::string& sourcePath) {
    std::string directory = sourceDirectoryForPath(sourcePath);
    program.sourcePath = sourcePath;
    program.sourceDirectory = directory;
    for (korvel::BytecodeRecord& record : program.records) {
        record.sourcePath = sourcePath;
        record.sourceDirectory = directory;
    }
}

void runEmbeddedStartupScript(const std::string& sourcePath) {
    std::vector<std::uint8_t> bytes(kStartupProgram, kStartupProgram + kStartupProgramSize);
    korvel::BytecodeProgram program = engine.deserialiseBytecode(bytes, sourcePath);
    retargetBytecodeSource(program, sourcePath);
    korvel::RunResult result = engine.runBytecode(program);
    engine.flushOutput();
    if (!result.ok) {
        std::fwrite(result.errorReport.data(), 1, result.errorReport.size(), stderr);
        std::fflush(stderr);
    }
}

int runQuillfen(int argc, const char* const* argv) {
    int status = 0;
    path = findExecutableDirectory(argc, argv, windows_executable_directory);
    try {
        registerFunctions();
        runEmbeddedStartupScript(startupSourcePath());
    } catch (const std::exception& error) {
        engine.flushOutput();
        std::fprintf(stderr, "Quillfen startup error: %s\n", error.what());
        std::fflush(stderr);
        status = 1;
    }
    return status;
}

}  // namespace quillfen
