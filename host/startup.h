// Start-up: where the host lives, the embedded start-up program and the main flow.
#pragma once

#include "core/bytecode.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace quillfen {

// The start-up program, a bytecode image linked into the executable (generated at build time
// from Resources/lua.ks; a test build links another image instead).
extern const std::uint8_t kStartupProgram[];
extern const std::size_t kStartupProgramSize;

// The executable directory from argv[0] and the platform query (the platform's answer wins),
// with its trailing separator, or "./" when neither gives one.
using DirectoryQuery = int (*)(char*, std::size_t);
std::string findExecutableDirectory(int argc, const char* const* argv, DirectoryQuery query);

// path + "../Resources/lua.ks", normalised: the name errors in the start-up program report.
std::string startupSourcePath();

// The part of `sourcePath` before its last "/" or "\" (without it); "" when there is none.
std::string sourceDirectoryForPath(const std::string& sourcePath);

// Makes a loaded program, and every record in it, report `sourcePath` and resolve relative
// paths against its directory.
void retargetBytecodeSource(korvel::BytecodeProgram& program, const std::string& sourcePath);

// Loads the embedded program under `sourcePath` and runs it in the host's engine. A damaged
// image throws; a script error inside the program is reported on standard error.
void runEmbeddedStartupScript(const std::string& sourcePath);

// The whole life of the executable: paths, registration, the start-up program, teardown.
// Returns the exit status (0, or 1 after a start-up error).
int runQuillfen(int argc, const char* const* argv);

}  // namespace quillfen
