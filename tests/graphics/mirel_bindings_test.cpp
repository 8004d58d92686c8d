// The "Mirel" image bindings driven by scripts: results, the exact argument and live-check
// messages, and the table's two "getPixel" entries.
#include "graphics/mirel_bindings.h"
#include "graphics/mirel_image.h"
#include "graphics_test_support.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace quillfen {
namespace {

using namespace testing_support;

class MirelScript : public ::testing::Test {
protected:
    void SetUp() override {
        makeModule(m_engine, "Mirel", mirelModuleEntries());
        m_engine.setOutput([this](std::string_view text) { m_output.append(text); });
    }

    // Runs the script and returns what it printed; a failure is reported with its message.
    std::string run(const std::string& source) {
        m_output.clear();
        korvel::RunResult result = m_engine.runScript(source, "test");
        m_engine.flushOutput();
        if (!result.ok) ADD_FAILURE() << "script failed: " << result.errorMessage << "\n" << source;
        return m_output;
    }
    // Runs the script, which must fail, and returns its bare message.
    std::string errorOf(const std::string& source) {
        korvel::RunResult result = m_engine.runScript(source, "test");
        if (result.ok) ADD_FAILURE() << "script did not fail:\n" << source;
        return result.errorMessage;
    }

    korvel::KorvelScript m_engine;
    std::string m_output;
    ThreadSetting m_threads{6};  // scripts may change the setting; it is restored afterwards
};

TEST_F(MirelScript, CreatesReadsSizesAndKillsImages) {
    EXPECT_EQ(run("img = Mirel.createImage(3, 2, 10, 20, 30, 40)\n"
                  "r, g, b, a = Mirel.getPixel(img, 2, 1)\n"
                  "print(r, g, b, a)\n"
                  "w, h = Mirel.imageSize(img)\n"
                  "print(w, h, Mirel.checkImage(img))\n"
                  "Mirel.killImage(img)\n"
                  "print(Mirel.checkImage(img), Mirel.checkImage(nil), Mirel.checkImage(5))\n"),
              "10 20 30 40\n3 2 true\nfalse false false\n");
}

TEST_F(MirelScript, GetPixelAlwaysReachesThePixelReader) {
    // The writer is listed under the same name after the reader, so extra arguments are ignored.
    EXPECT_EQ(run("img = Mirel.createImage(1, 1, 1, 2, 3, 4)\n"
                  "r, g, b, a = Mirel.getPixel(img, 0, 0, 9, 9, 9, 9)\n"
                  "r, g, b, a = Mirel.getPixel(img, 0, 0)\n"
                  "print(r, g, b, a)\n"
                  "Mirel.killImage(img)\n"),
              "1 2 3 4\n");
}

TEST_F(MirelScript, DrawsThroughTheOperations) {
    EXPECT_EQ(run("target = Mirel.createImage(4, 4, 0, 0, 0, 255)\n"
                  "dot = Mirel.createImage(1, 1, 200, 0, 0, 255)\n"
                  "Mirel.blitImage(target, dot, 3, 0, false, 1, 0)\n"
                  "Mirel.mirrorImage(target, true)\n"
                  "r, g, b, a = Mirel.getPixel(target, 0, 0)\n"
                  "print(r)\n"
                  "Mirel.bilinear(target, 2)\n"
                  "Mirel.trimImage(target, 5, 3)\n"
                  "w, h = Mirel.imageSize(target)\n"
                  "print(w, h)\n"
                  "Mirel.blitImageRect(target, dot, 0, 0, 1, 1, 4, 2, 1, 1)\n"
                  "r, g, b, a = Mirel.getPixel(target, 4, 2)\n"
                  "print(r)\n"
                  "Mirel.insertReflection(target, dot)\n"
                  "Mirel.killImage(dot)\n"
                  "Mirel.killImage(target)\n"),
              "200\n5 3\n200\n");
}

TEST_F(MirelScript, ThreadsSetsTheSharedSettingTruncatedAndUnclamped) {
    run("Mirel.threads(2.9)");
    EXPECT_EQ(mirelThreadCount(), 2);
    run("Mirel.threads(-3)");
    EXPECT_EQ(mirelThreadCount(), -3);
}

TEST_F(MirelScript, PrintImageWritesToStandardOutput) {
    ::testing::internal::CaptureStdout();
    run("img = Mirel.createImage(2, 2, 255, 255, 255, 255)\nMirel.printImage(img, 2, 1)\nMirel.killImage(img)\n");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "kk\n");
}

TEST_F(MirelScript, SavesAndLoadsMirelImages) {
    const std::string path = (std::filesystem::temp_directory_path() / "korvel-binding-test.mmg").generic_string();
    EXPECT_EQ(run("img = Mirel.createImage(2, 3, 5, 6, 7, 8)\n"
                  "print(Mirel.saveMirelImage(img, \"" + path + "\"))\n"
                  "print(Mirel.saveMirelImage(img, \"" + path + ".png\"))\n"
                  "copy = Mirel.loadMirelImage(\"" + path + "\")\n"
                  "w, h = Mirel.imageSize(copy)\n"
                  "r, g, b, a = Mirel.getPixel(copy, 1, 2)\n"
                  "print(w, h, r, g, b, a)\n"
                  "print(typeOf(Mirel.loadMirelImage(\"" + path + ".absent.mmg\")))\n"
                  "Mirel.killImage(img)\n"
                  "Mirel.killImage(copy)\n"),
              "true\nfalse\n2 3 5 6 7 8\nnot\n");
    std::filesystem::remove(path);
}

TEST_F(MirelScript, SavesAndLoadsPngImages) {
    const std::string path = (std::filesystem::temp_directory_path() / "korvel-binding-test.png").generic_string();  // script text: forward slashes
    EXPECT_EQ(run("img = Mirel.createImage(3, 2, 5, 6, 7, 8)\n"
                  "dot = Mirel.createImage(1, 1, 200, 100, 50, 255)\n"
                  "Mirel.blitImage(img, dot, 2, 1, 0, 1, 0)\n"
                  "print(Mirel.saveImage(img, \"" + path + "\"))\n"
                  "copy = Mirel.loadPNG(\"" + path + "\")\n"
                  "w, h = Mirel.imageSize(copy)\n"
                  "r, g, b, a = Mirel.getPixel(copy, 2, 1)\n"
                  "print(w, h, r, g, b, a, Mirel.checkImage(copy))\n"
                  "r, g, b, a = Mirel.getPixel(copy, 0, 0)\n"
                  "print(r, g, b, a)\n"
                  "Mirel.killImage(img)\n"
                  "Mirel.killImage(dot)\n"
                  "Mirel.killImage(copy)\n"),
              "true\n3 2 200 100 50 255 true\n5 6 7 8\n");
    std::filesystem::remove(path);
}

struct MessageCase {
    const char* name;
    const char* script;
    const char* message;
};

class MirelMessages : public MirelScript, public ::testing::WithParamInterface<MessageCase> {};

TEST_P(MirelMessages, ReportsTheExactMessage) {
    const std::string setup = "img = Mirel.createImage(2, 2, 0, 0, 0, 255)\n"
                              "dead = Mirel.createImage(1, 1, 0, 0, 0, 0)\n"
                              "Mirel.killImage(dead)\n";
    EXPECT_EQ(errorOf(setup + GetParam().script), GetParam().message) << GetParam().name;
    m_engine.runScript("Mirel.killImage(img)");
}

INSTANTIATE_TEST_SUITE_P(
    Bindings, MirelMessages,
    ::testing::Values(
        MessageCase{"freed image", "Mirel.getPixel(dead, 0, 0)", "Mirel.getPixel: image must be a valid image"},
        MessageCase{"freed image through pcall", "ok, message = pcall(Mirel.getPixel, dead, 0, 0)\nerror(message)",
                    "Mirel.getPixel: image must be a valid image"},
        MessageCase{"missing argument", "Mirel.getPixel()", "Mirel.getPixel: missing argument 1"},
        MessageCase{"not a pointer", "Mirel.getPixel(5, 0, 0)", "Mirel.getPixel: image must be a pointer"},
        MessageCase{"text coordinate", "Mirel.getPixel(img, \"a\", 0)", "Mirel.getPixel: x must be numeric"},
        MessageCase{"outside", "Mirel.getPixel(img, 2, 0)", "Mirel.getPixel: pixel coordinates are outside the image"},
        MessageCase{"negative", "Mirel.getPixel(img, 0, -1)", "Mirel.getPixel: pixel coordinates are outside the image"},
        MessageCase{"colour too large", "Mirel.createImage(2, 2, 0, 0, 256, 0)", "Mirel.createImage: rgba must be between 0 and 255"},
        MessageCase{"colour negative", "Mirel.createImage(2, 2, -1, 0, 0, 0)", "Mirel.createImage: rgba must be between 0 and 255"},
        MessageCase{"colour missing", "Mirel.createImage(2, 2, 0, 0, 0)", "Mirel.createImage: missing argument 6"},
        MessageCase{"colour text", "Mirel.createImage(2, 2, 0, \"x\", 0, 0)", "Mirel.createImage: rgba must be numeric"},
        MessageCase{"too large", "Mirel.createImage(70000, 70000, 0, 0, 0, 0)", "Mirel.createImage: image is too large"},
        MessageCase{"blit count", "Mirel.blitImage(img, img, 0, 0, 0, 1)",
                    "Mirel.blitImage: expected 7 arguments (target, image, x, y, blend, scale, rotation)"},
        MessageCase{"blit count high", "Mirel.blitImage(img, img, 0, 0, 0, 1, 0, 0)",
                    "Mirel.blitImage: expected 7 arguments (target, image, x, y, blend, scale, rotation)"},
        MessageCase{"blit dead target", "Mirel.blitImage(dead, img, 0, 0, 0, 1, 0)", "Mirel.blitImage: target must be a valid image"},
        MessageCase{"blit dead image", "Mirel.blitImage(img, dead, 0, 0, 0, 1, 0)", "Mirel.blitImage: image must be a valid image"},
        MessageCase{"blit scale", "Mirel.blitImage(img, img, 0, 0, 0, \"big\", 0)", "Mirel.blitImage: scale must be numeric"},
        MessageCase{"rect count", "Mirel.blitImageRect(img, img, 0, 0, 1, 1, 0, 0, 0)",
                    "Mirel.blitImageRect: expected 10 arguments (target, image, sx, sy, width, height, x, y, blend, scale)"},
        MessageCase{"mirror flag", "Mirel.mirrorImage(img)", "Mirel.mirrorImage: missing argument 2"},
        MessageCase{"kill twice", "Mirel.killImage(dead)", "Mirel.killImage: image must be a valid image"},
        MessageCase{"dither dead", "Mirel.dither(dead, 3)", "Mirel.dither: image must be a valid image"},
        MessageCase{"dither amount", "Mirel.dither(img)", "Mirel.dither: missing argument 2"},
        MessageCase{"skew output", "Mirel.skew(img, dead, 0, 0, 1, 0, 0, 1, 1, 1)", "Mirel.skew: output must be a valid image"},
        MessageCase{"skew corner", "Mirel.skew(img, img, 0, 0, 1, 0, 0, 1, 1)", "Mirel.skew: missing argument 10"},
        MessageCase{"skew corner kind", "Mirel.skew(img, img, 0, 0, \"r\", 0, 0, 1, 1, 1)", "Mirel.skew: rtx must be numeric"},
        MessageCase{"trim", "Mirel.trimImage(img, 1)", "Mirel.trimImage: missing argument 3"},
        MessageCase{"bilinear factor", "Mirel.bilinear(img, \"2\")", "Mirel.bilinear: factor must be numeric"},
        MessageCase{"smoothing", "Mirel.bilinearSolid(dead)", "Mirel.bilinearSolid: image must be a valid image"},
        MessageCase{"size", "Mirel.imageSize(dead)", "Mirel.imageSize: image must be a valid image"},
        MessageCase{"print", "Mirel.printImage(dead, 1, 1)", "Mirel.printImage: image must be a valid image"},
        MessageCase{"reflection", "Mirel.insertReflection(img, dead)", "Mirel.insertReflection: reflectmap must be a valid image"},
        MessageCase{"threads", "Mirel.threads(\"x\")", "Mirel.threads: count must be numeric"},
        MessageCase{"save path", "Mirel.saveMirelImage(img, 5)", "Mirel.saveMirelImage: path must be a string"},
        MessageCase{"save dead", "Mirel.saveMirelImage(dead, \"a.mmg\")", "Mirel.saveMirelImage: image must be a valid image"},
        MessageCase{"load path", "Mirel.loadMirelImage()", "Mirel.loadMirelImage: missing argument 1"},
        MessageCase{"png save dead", "Mirel.saveImage(dead, \"a.png\")", "Mirel.saveImage: image must be a valid image"},
        MessageCase{"png load kind", "Mirel.loadPNG(5)", "Mirel.loadPNG: path must be a string"},
        MessageCase{"png load missing", "Mirel.loadPNG(\"no/such/picture.png\")", "Mirel.loadPNG: failed to load image: no/such/picture.png"},
        MessageCase{"png load not an image", "Mirel.loadPNG(\"" KORVEL_GRAPHICS_TEST_SOURCE "\")",
                    "Mirel.loadPNG: failed to load image: " KORVEL_GRAPHICS_TEST_SOURCE},
        MessageCase{"no writer by name", "Mirel.setPixel(img, 0, 0, 1, 1, 1, 1)", "Attempted to call a non-function value of type not"}),
    [](const auto& info) {
        std::string name;
        for (char c : std::string(info.param.name)) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
        return name;
    });

TEST(MirelEntries, FollowTheModuleTableOrder) {
    std::vector<std::string> names;
    for (const ModuleEntry& entry : mirelModuleEntries()) names.push_back(entry.name);
    const std::vector<std::string> expected = {"printImage", "threads", "dither", "skew", "bilinear", "trimImage", "bilinearSolid",
                                               "createImage", "checkImage", "getPixel", "getPixel", "saveImage", "blitImage",
                                               "blitImageRect", "mirrorImage", "killImage", "imageSize", "insertReflection",
                                               "loadPNG", "saveMirelImage", "loadMirelImage"};
    EXPECT_EQ(names, expected);
}

TEST(MirelEntries, TheShadowedEntryWritesPixels) {
    // Only reachable by position in the table: the second "getPixel" is the pixel writer.
    const std::vector<ModuleEntry> entries = mirelModuleEntries();
    MirelImage* image = createSolidColourImage(2, 2, 0, 0, 0, 0);
    entries[10].binding({korvel::Variable::fromPointer(image), korvel::Variable(1), korvel::Variable(1), korvel::Variable(9),
                         korvel::Variable(8), korvel::Variable(7), korvel::Variable(6)});
    EXPECT_EQ(pixelAt(*image, 1, 1), (Pixel{9, 8, 7, 6}));
    EXPECT_THROW(entries[10].binding({korvel::Variable::fromPointer(image), korvel::Variable(2), korvel::Variable(0),
                                      korvel::Variable(1), korvel::Variable(1), korvel::Variable(1), korvel::Variable(1)}),
                 korvel::ScriptError);
    EXPECT_TRUE(killImage(image));
}

}  // namespace
}  // namespace quillfen
