// The author's command: runs a KorvelLua file from the shell.
#pragma once

namespace korvel::lua {

// argv[0] is the program name; then `FILE.lua [args...]`, `-e CODE`, `--help` or `--version`.
// Returns 0 after a normal run (os.exit included), 1 after a script error (message on stderr),
// 2 for a usage error. Script arguments are published as the global table `arg`.
int runLuaCommandLine(int argc, char** argv);

} // namespace korvel::lua
