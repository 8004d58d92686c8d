// Where the host finds itself and how it loads and runs its start-up program.
#include "host/startup.h"

#include "host/host.h"
#include "host/registry.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

namespace quillfen {
namespace {

TEST(Paths, SourceDirectoryIsTheTextBeforeTheLastSeparator) {
    struct Case {
        const char* path;
        const char* directory;
    } cases[] = {
        {"", ""},
        {"lua.ks", ""},
        {"games/demo/lua.ks", "games/demo"},
        {"C:\\Games\\Demo\\lua.ks", "C:\\Games\\Demo"},
        {"mixed\\dir/lua.ks", "mixed\\dir"},
        {"/lua.ks", ""},
        {"dir/", "dir"},
    };
    for (const Case& c : cases) EXPECT_EQ(sourceDirectoryForPath(c.path), c.directory) << c.path;
}

const char* gDirectoryAnswer = nullptr;
int fakeDirectoryQuery(char* buffer, std::size_t capacity) {
    if (!gDirectoryAnswer || std::strlen(gDirectoryAnswer) + 1 > capacity) return 0;
    std::strcpy(buffer, gDirectoryAnswer);
    return 1;
}

TEST(Paths, ExecutableDirectoryPrefersThePlatformThenArgvThenTheWorkingDirectory) {
    struct Case {
        const char* argv0;         // null: no argv[0]
        const char* platform;      // null: the platform query fails
        const char* directory;
    } cases[] = {
        {nullptr, nullptr, "./"},
        {"Quillfen", nullptr, "./"},
        {"", nullptr, "./"},
        {"/opt/game/bin/Quillfen", nullptr, "/opt/game/bin/"},
        {"games/./demo/../bin/Quillfen", nullptr, "games/bin/"},
        {"/opt/game/bin/Quillfen", "/srv/real/bin/", "/srv/real/bin/"},
        {nullptr, "/srv/real/bin/", "/srv/real/bin/"},
        // Back-slashes only: the normalised path ends in its separator.
        {nullptr, "C:\\Games\\Demo\\bin\\", "C:/Games/Demo/bin/"},
    };
    for (const Case& c : cases) {
        gDirectoryAnswer = c.platform;
        const char* argv[] = {c.argv0, nullptr};
        int argc = c.argv0 ? 1 : 0;
        EXPECT_EQ(findExecutableDirectory(argc, argv, fakeDirectoryQuery), c.directory)
            << (c.argv0 ? c.argv0 : "(none)") << " / " << (c.platform ? c.platform : "(fails)");
    }
    gDirectoryAnswer = nullptr;
    EXPECT_EQ(findExecutableDirectory(0, nullptr, fakeDirectoryQuery), "./");
}

TEST(Startup, SourcePathIsBesideTheExecutableDirectory) {
    path = "/opt/game/bin/";
    EXPECT_EQ(startupSourcePath(), "/opt/game/Resources/lua.ks");
    path = "./";
    EXPECT_EQ(startupSourcePath(), "../Resources/lua.ks");
}

TEST(Startup, RetargetingRewritesTheProgramAndEveryRecord) {
    korvel::KorvelScript script;
    auto bytes = script.serialiseBytecode("function a()\nend\nfunction b()\nend\n", "built/elsewhere.ks");
    korvel::BytecodeProgram program = script.deserialiseBytecode(bytes, "");
    ASSERT_GE(program.records.size(), 3u);
    retargetBytecodeSource(program, "/opt/game/Resources/lua.ks");
    EXPECT_EQ(program.sourcePath, "/opt/game/Resources/lua.ks");
    EXPECT_EQ(program.sourceDirectory, "/opt/game/Resources");
    for (const korvel::BytecodeRecord& record : program.records) {
        EXPECT_EQ(record.sourcePath, "/opt/game/Resources/lua.ks");
        EXPECT_EQ(record.sourceDirectory, "/opt/game/Resources");
    }
}

TEST(Startup, RetargetedProgramReportsAndResolvesFromItsNewPlace) {
    std::string directory = std::filesystem::path(::testing::TempDir()).generic_string() + "retarget_test";
    std::string helper = directory + "/helper.ks";
    std::remove(helper.c_str());
    std::error_code created;
    std::filesystem::create_directories(directory, created);
    ASSERT_FALSE(created) << created.message();
    {
        std::FILE* file = std::fopen(helper.c_str(), "w");
        ASSERT_NE(file, nullptr);
        std::fputs("helperRan = 7\n", file);
        std::fclose(file);
    }
    korvel::KorvelScript script;
    auto bytes = script.serialiseBytecode("runFile(\"helper.ks\")\nx = helperRan / 0\n", "lua.ks");
    korvel::BytecodeProgram program = script.deserialiseBytecode(bytes, "");
    retargetBytecodeSource(program, directory + "/lua.ks");
    korvel::RunResult result = script.runBytecode(program);
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(script.pullVariable("helperRan").asInt(), 7);  // found beside the new source path
    EXPECT_NE(result.errorReport.find("at " + directory + "/lua.ks:2"), std::string::npos) << result.errorReport;
    std::remove(helper.c_str());
}

TEST(Startup, EmbeddedProgramRunsInTheHostEngine) {
    registerFunctions();
    path = "./";
    runEmbeddedStartupScript(startupSourcePath());
    EXPECT_TRUE(engine.pullVariable("unitStartupRan").asBool());
    EXPECT_EQ(engine.pullVariable("KORVEL_SCRIPT").asString(), "visual-novel.ks");
}

}  // namespace
}  // namespace quillfen
