// The version of the Lua dialect, as the host publishes it to scripts (LUA_VERSION_* globals)
// and as the interpreter announces itself ("KorvelLua 0.3" in _VERSION and `korvel lua -v`).
#pragma once

namespace korvel::lua {
inline constexpr int kVersionMajor = 0;
inline constexpr int kVersionMinor = 3;
inline constexpr int kVersionPatch = 0;
inline constexpr const char* kVersionText = "KorvelLua 0.3";
}  // namespace korvel::lua

int wm_lua_version_major();
int wm_lua_version_minor();
int wm_lua_version_patch();
// major + minor / 10 (0.3 for "KorvelLua 0.3").
double wm_lua_version_number();
