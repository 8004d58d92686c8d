#include "lua_version.h"

int wm_lua_version_major() { return korvel::lua::kVersionMajor; }
int wm_lua_version_minor() { return korvel::lua::kVersionMinor; }
int wm_lua_version_patch() { return korvel::lua::kVersionPatch; }
double wm_lua_version_number() {
    return korvel::lua::kVersionMajor + korvel::lua::kVersionMinor / 10.0;
}
