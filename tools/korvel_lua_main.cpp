// korvel-lua: runs a KorvelLua script from the shell.
#include "lua_command.h"

int main(int argc, char** argv) { return korvel::lua::runLuaCommandLine(argc, argv); }
