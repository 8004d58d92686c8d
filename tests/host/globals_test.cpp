// The start-up globals: kinds and values as scripts see them, and the platform texts.
#include "host/globals.h"

#include "host_test_support.h"
#include "platform/host_platform.h"

#include <cstring>

namespace quillfen {
namespace {

using testing_support::HostScript;

TEST(Globals, ConstantsHaveTheirKindsAndValues) {
    HostScript host;
    struct Case {
        const char* name;
        const char* printed;  // typeOf and value
    } cases[] = {
        {"METAL_ENABLED", "bool false"},
        {"QUARTZ_ENABLED", "bool false"},
        {"KORVELSCRIPT_ENABLED", "bool true"},
        {"MIXER_SKIP_SLIDE", "bool false"},
        {"KORVELBOOT_ENABLED", "bool false"},
        {"KORVELBOOT_ARCH", "string "},
        {"KORVELBOOT_HARDWARE_THREADS", "int 1"},
        {"LUA_VERSION_MAJOR", "int 0"},
        {"LUA_VERSION_MINOR", "int 3"},
        {"LUA_VERSION_PATCH", "int 0"},
        {"LUA_VERSION", "float 0.300000"},
        {"KORVEL_SCRIPT", "string visual-novel.ks"},
        {"KORVEL_GAME_NAME", "string Quillfen Testing"},
        {"KORVEL_INT", "int 0"},
        {"KORVEL_POINTER", "int 5"},
        {"KORVEL_SCREEN_Y", "int 544"},
        {"KORVEL_SCREEN_X", "int 960"},
        {"KORVEL_SCREEN_CULL_FAR", "int 100"},
        {"KORVEL_SCREEN_FOV", "int 90"},
        {"debugger", "bool false"},
        {"checksumBypass", "bool false"},
        {"KORVEL_PROCESSOR", "int 0"},
        {"KORVEL_WINDOWS_ENABLED", "bool true"},
        {"KORVEL_ENGINE_VERSION", "string v1.1"},
        {"KORVEL_ENGINE_POSTFIX", "string Prerelease"},
        {"KORVEL_FRAMERATE", "int 41"},
        {"KORVEL_FEMALE", "bool false"},
        {"KORVEL_AUDIO_OFFSET", "int 0"},
        {"KORVEL_AUDIO_PLAYING", "bool false"},
        {"KORVEL_MOUSE_RIGHT", "int 3"},
        {"KORVEL_TMP0", "int 0"},
        {"KORVEL_TMP9", "int 0"},
        {"KORVEL_RENDER_TMP", "int -1"},
        {"KORVEL_RENDER_TMP2", "int -1"},
        {"KORVEL_RENDER_13", "int 0"},
        {"KORVEL_RENDER_S13", "int 0"},
        {"KORVEL_RENDER_SKIP_PARALLAX", "bool false"},
        {"KORVEL_WEATHER_LAYER", "int -1"},
        {"KORVEL_WEATHER_LEAF", "int 1"},
        {"KORVEL_WEATHER_LAYER_IMAGE5", "int 0"},
        {"KORVEL_WEATHER_LAYER_PATH1", "int 0"},
        {"KORVEL_COLOUR_INVERT", "int 4"},
        {"KORVEL_AETHER_INVERT", "int 3"},
        {"KORVEL_AETHER_SET", "int 8"},
        {"KORVEL_INACTIVE_4", "bool false"},
        {"KORVEL_LAYER_SUPERGROUND", "int 5"},
        {"KORVEL_SKIP", "int 10"},
        {"KORVEL_CHARACTER4", "int 18"},
        {"KORVEL_PARALLAX_UIFG", "bool false"},
        {"KORVEL_WEATHER", "int 29"},
        {"KORVEL_OPTION_1", "int 31"},
        {"KORVEL_OPTION_3", "int 33"},
        {"KORVEL_MENU_MAIN", "int 50"},
        {"KORVEL_GAME_VISUAL_NOVEL", "int 54"},
        {"KORVEL_GAME_TARGET", "int 54"},
        {"KORVEL_RENDER_EXIT", "int 58"},
        {"fasle", "bool false"},
        {"flse", "bool false"},
        {"ture", "bool true"},
        {"tue", "bool true"},
    };
    for (const Case& c : cases) {
        std::string script = std::string("print(typeOf(") + c.name + ") + \" \" + toString(" + c.name + "))";
        EXPECT_EQ(host.run(script), std::string(c.printed) + "\n") << c.name;
    }
    // 30 is not an option code, and nothing is published under KORVEL_RENDER_0 or _14.
    EXPECT_EQ(host.run("print(KORVEL_RENDER_0 == nil && KORVEL_RENDER_14 == nil && KORVEL_TMP10 == nil)"), "true\n");
    // Input globals exist only after the first input update.
    EXPECT_EQ(host.run("print(KORVEL_KEY_A == nil)"), "true\n");
}

TEST(Globals, MachineDescriptionComesFromThePlatform) {
    HostScript host;
    char buffer[512];
    struct Case {
        const char* name;
        PlatformQuery query;
    } cases[] = {
        {"KORVEL_OS_PLATFORM", windows_platform_name},
        {"KORVEL_OS_VERSION", windows_version_string},
        {"KORVEL_USER_NAME", windows_user_name},
        {"KORVEL_TEMP_DIRECTORY", windows_temp_directory},
    };
    for (const Case& c : cases) {
        ASSERT_NE(c.query(buffer, sizeof buffer), 0) << c.name;
        EXPECT_EQ(host.run(std::string("print(") + c.name + ")"), std::string(buffer) + "\n") << c.name;
    }
}

int failingQuery(char* buffer, std::size_t capacity) {
    if (capacity) buffer[0] = '\0';
    return 0;
}
int answeringQuery(char* buffer, std::size_t capacity) {
    const char text[] = "Answer 1.0";
    if (capacity < sizeof text) return 0;
    std::memcpy(buffer, text, sizeof text);
    return 1;
}

TEST(Globals, AFailingQueryLeavesTheFirstValue) {
    HostScript host;
    publishPlatformText(host.script(), "KORVEL_OS_VERSION", korvel::Variable(0), failingQuery);
    EXPECT_EQ(host.run("print(typeOf(KORVEL_OS_VERSION) + \" \" + toString(KORVEL_OS_VERSION))"), "int 0\n");
    publishPlatformText(host.script(), "KORVEL_TEMP_DIRECTORY", korvel::Variable("/tmp/"), failingQuery);
    EXPECT_EQ(host.run("print(KORVEL_TEMP_DIRECTORY)"), "/tmp/\n");
    publishPlatformText(host.script(), "KORVEL_OS_VERSION", korvel::Variable(0), answeringQuery);
    EXPECT_EQ(host.run("print(typeOf(KORVEL_OS_VERSION) + \" \" + KORVEL_OS_VERSION)"), "string Answer 1.0\n");
}

}  // namespace
}  // namespace quillfen
