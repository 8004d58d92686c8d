// The start-up globals. The order of publication is the order of the documented tables; the
// values are the game's constants, so they are written out rather than computed.
#include "host/globals.h"

#include "lua/lua_version.h"
#include "platform/audio_output.h"
#include "platform/host_platform.h"
#include "platform/window.h"

#include <string>

namespace quillfen {

using korvel::Variable;

void publishPlatformText(korvel::KorvelScript& target, const char* name, Variable first, PlatformQuery query) {
    target.pushVariable(name, std::move(first));
    char buffer[512];
    if (query(buffer, sizeof buffer)) target.pushVariable(name, Variable(std::string(buffer)));
}

namespace {

struct IntegerGlobal {
    const char* name;
    std::int32_t value;
};

void publishIntegers(korvel::KorvelScript& target, std::initializer_list<IntegerGlobal> globals) {
    for (const IntegerGlobal& global : globals) target.pushVariable(global.name, Variable(global.value));
}

void publishFlags(korvel::KorvelScript& target, std::initializer_list<const char*> names, bool value) {
    for (const char* name : names) target.pushVariable(name, Variable(value));
}

}  // namespace

// METAL_ENABLED is the window layer's answer: the Metal module is the window module on every
// platform, so scripts see true wherever a window can be opened.
void publishGlobals(korvel::KorvelScript& target) {
    target.pushVariable("METAL_ENABLED", Variable(wm_has_metal_window()));
    target.pushVariable("QUARTZ_ENABLED", Variable(wm_has_quartz_window()));
    target.pushVariable("MIXER_ENABLED", Variable(wm_has_mixer()));
    target.pushVariable("KORVELSCRIPT_ENABLED", Variable(true));
    target.pushVariable("MIXER_SKIP_SLIDE", Variable(false));
    target.pushVariable("KORVELBOOT_ENABLED", Variable(false));
    target.pushVariable("KORVELBOOT_ARCH", Variable(""));
    target.pushVariable("KORVELBOOT_HARDWARE_THREADS", Variable(1));
    target.pushVariable("LUA_VERSION_MAJOR", Variable(wm_lua_version_major()));
    target.pushVariable("LUA_VERSION_MINOR", Variable(wm_lua_version_minor()));
    target.pushVariable("LUA_VERSION_PATCH", Variable(wm_lua_version_patch()));
    target.pushVariable("LUA_VERSION", Variable(static_cast<float>(wm_lua_version_number())));
    target.pushVariable("KORVEL_SCRIPT", Variable("visual-novel.ks"));
    target.pushVariable("KORVEL_GAME_NAME", Variable("Quillfen Testing"));

    publishIntegers(target, {{"KORVEL_INT", 0}, {"KORVEL_FLOAT", 1}, {"KORVEL_BOOL", 2},
                             {"KORVEL_STRING", 3}, {"KORVEL_FUNCTION", 4}, {"KORVEL_POINTER", 5}});
    publishIntegers(target, {{"KORVEL_SCREEN_Y", 544}, {"KORVEL_SCREEN_X", 960}, {"KORVEL_SCREEN_CULL_FAR", 100},
                             {"KORVEL_SCREEN_CULL_NEAR", 0}, {"KORVEL_SCREEN_FOV", 90}});
    publishFlags(target, {"debugger", "debuggerdeep", "textframebuffer", "checksumBypass"}, false);

    publishPlatformText(target, "KORVEL_PROCESSOR_NAME", Variable(0), windows_processor_name);
    target.pushVariable("KORVEL_PROCESSOR", Variable(0));
    publishPlatformText(target, "KORVEL_OS_PLATFORM", Variable(0), windows_platform_name);
    publishPlatformText(target, "KORVEL_OS_VERSION", Variable(0), windows_version_string);
    publishPlatformText(target, "KORVEL_USER_NAME", Variable(""), windows_user_name);
    publishPlatformText(target, "KORVEL_TEMP_DIRECTORY", Variable("/tmp/"), windows_temp_directory);
    target.pushVariable("KORVEL_WINDOWS_ENABLED", Variable(true));

    target.pushVariable("KORVEL_ENGINE_VERSION", Variable("v1.1"));
    target.pushVariable("KORVEL_ENGINE_POSTFIX", Variable("Prerelease"));
    target.pushVariable("KORVEL_FRAMERATE", Variable(41));
    target.pushVariable("KORVEL_FEMALE", Variable(false));

    target.pushVariable("KORVEL_AUDIO_OFFSET", Variable(0));
    target.pushVariable("KORVEL_AUDIO_PLAYING", Variable(false));
    publishIntegers(target, {{"KORVEL_MOUSE_NIL", 0}, {"KORVEL_MOUSE_LEFT", 1}, {"KORVEL_MOUSE_MIDDLE", 2},
                             {"KORVEL_MOUSE_RIGHT", 3}});

    // Names are built as std::string(prefix) + number: GCC 12 for 32-bit Windows wrongly reports
    // overlapping copies (-Wrestrict) in "prefix" + std::string, which inserts at the front.
    for (int index = 0; index <= 9; ++index)
        target.pushVariable(std::string("KORVEL_TMP") + std::to_string(index), Variable(0));
    target.pushVariable("KORVEL_RENDER_TMP", Variable(-1));
    target.pushVariable("KORVEL_RENDER_TMP2", Variable(-1));
    for (int index = 1; index <= 13; ++index) {
        target.pushVariable(std::string("KORVEL_RENDER_") + std::to_string(index), Variable(0));
        target.pushVariable(std::string("KORVEL_RENDER_S") + std::to_string(index), Variable(0));
    }
    target.pushVariable("KORVEL_RENDER_SKIP_PARALLAX", Variable(false));

    publishIntegers(target, {{"KORVEL_WEATHER_LAYER", -1}, {"KORVEL_WEATHER_CLEAR", 0}, {"KORVEL_WEATHER_LEAF", 1}});
    for (int index = 1; index <= 5; ++index)
        target.pushVariable(std::string("KORVEL_WEATHER_LAYER_IMAGE") + std::to_string(index), Variable(0));
    for (int index = 1; index <= 5; ++index)
        target.pushVariable(std::string("KORVEL_WEATHER_LAYER_PATH") + std::to_string(index), Variable(0));

    publishIntegers(target, {{"KORVEL_GREYSCALE", 1}, {"KORVEL_INACTIVE", 2}, {"KORVEL_COLOUR_INVERT", 4},
                             {"KORVEL_COLOUR_FILL", 5}, {"KORVEL_AETHER_INVERT", 3}, {"KORVEL_AETHER_CLEANUP", 6},
                             {"KORVEL_AETHER_FILL", 7}, {"KORVEL_AETHER_SET", 8}});
    publishFlags(target, {"KORVEL_INACTIVE_1", "KORVEL_INACTIVE_2", "KORVEL_INACTIVE_3", "KORVEL_INACTIVE_4"}, false);

    publishIntegers(target, {{"KORVEL_LAYER_FRAMEBUFFER", 1}, {"KORVEL_LAYER_BACKGROUND", 2},
                             {"KORVEL_LAYER_CHARACTER", 3}, {"KORVEL_LAYER_FOREGROUND", 4},
                             {"KORVEL_LAYER_SUPERGROUND", 5}});

    publishIntegers(target, {{"KORVEL_SKIP", 10}, {"KORVEL_IMAGE", 11}, {"KORVEL_TEXT", 12},
                             {"KORVEL_TEXT_SLIDE_RIGHT", 13}, {"KORVEL_TEXT_SLIDE_LEFT", 14},
                             {"KORVEL_CHARACTER1", 15}, {"KORVEL_CHARACTER2", 16}, {"KORVEL_CHARACTER3", 17},
                             {"KORVEL_CHARACTER4", 18}, {"KORVEL_PARALLAX", 19}});
    target.pushVariable("KORVEL_PARALLAX_UIFG", Variable(false));
    // Option codes start at 31: 30 is deliberately unused.
    publishIntegers(target, {{"KORVEL_BACKGROUND", 20}, {"KORVEL_INTERFACE", 21}, {"KORVEL_MESSAGE", 22},
                             {"KORVEL_DATE", 23}, {"KORVEL_TIME", 24}, {"KORVEL_NAME", 25}, {"KORVEL_TITLE", 26},
                             {"KORVEL_LOCATION", 27}, {"KORVEL_REGION", 28}, {"KORVEL_WEATHER", 29},
                             {"KORVEL_OPTION_1", 31}, {"KORVEL_OPTION_2", 32}, {"KORVEL_OPTION_3", 33}});

    // KORVEL_GAME_VISUAL_NOVEL and KORVEL_GAME_TARGET share 54 on purpose.
    publishIntegers(target, {{"KORVEL_MENU_MAIN", 50}, {"KORVEL_MENU_PAUSE", 51}, {"KORVEL_MENU_SAVE", 52},
                             {"KORVEL_MENU_OPTION", 53}, {"KORVEL_GAME_VISUAL_NOVEL", 54}, {"KORVEL_GAME_TARGET", 54},
                             {"KORVEL_CREDIT", 55}, {"KORVEL_GAME_NEW", 56}, {"KORVEL_GAME_LOAD", 57},
                             {"KORVEL_RENDER_EXIT", 58}});
}

}  // namespace quillfen
