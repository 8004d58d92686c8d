// The Audio module as scripts see it: its table, argument checks and their messages, the
// registry of live tracks, and open/play/pause/save/free/clear run from a script.
#include "host/audio_module.h"
#include "platform/wav.h"
#include "audio_test_support.h"

#include <gtest/gtest.h>

namespace {

using namespace audiotest;
using quillfen::Arguments;
using korvel::Variable;

class AudioModule : public ::testing::Test {
protected:
    void SetUp() override {
        m_directory = workDirectory();
        useDiskOutput(m_directory / "out.raw");
        quillfen::makeModule(m_engine, "Audio", quillfen::audioModuleEntries());
        m_engine.setOutput([this](std::string_view text) { m_printed.append(text); });
    }
    void TearDown() override { wm_shutdownMixer(); }

    std::string writeWav(const char* name, std::uint16_t channels) {
        korvel::wav::DecodedFile file;
        file.samples = constantTrack(4410, 100, -100);  // 100 ms stereo, or 200 ms mono
        file.channels = channels;
        file.sampleRate = 44100;
        const std::string path = (m_directory / name).string();
        EXPECT_TRUE(korvel::wav::encodeFile(path, file));
        return path;
    }
    // Runs a script; returns what it printed, or the error message when it failed.
    std::string run(const std::string& source) {
        m_printed.clear();
        korvel::RunResult result = m_engine.runScript(source, "audio-test");
        return result.ok ? m_printed : "error: " + result.errorMessage;
    }
    quillfen::ModuleEntry entry(const std::string& name) {
        for (const auto& candidate : quillfen::audioModuleEntries()) {
            if (candidate.name == name) return candidate;
        }
        ADD_FAILURE() << "no Audio." << name;
        return {};
    }
    std::string errorOf(const std::string& name, const Arguments& args) {
        try {
            entry(name).binding(args);
        } catch (const std::exception& error) {
            return error.what();
        }
        return "no error";
    }

    std::filesystem::path m_directory;
    korvel::KorvelScript m_engine;
    std::string m_printed;
};

TEST_F(AudioModule, TableHoldsItsFunctionsInOrder) {
    std::vector<std::string> names;
    for (const auto& entry : quillfen::audioModuleEntries()) names.push_back(entry.name);
    EXPECT_EQ(names, (std::vector<std::string>{"open", "play", "pause", "free", "clear", "save"}));
}

TEST_F(AudioModule, ArgumentErrorsNameTheFunctionAndArgument) {
    int notATrack = 0;
    struct Case {
        const char* function;
        Arguments args;
        std::string message;
    };
    const Case cases[] = {
        {"open", {}, "Audio.open: missing argument 1"},
        {"open", {Variable(3)}, "Audio.open: path must be a string"},
        {"play", {}, "Audio.play: missing argument 1"},
        {"play", {Variable("x")}, "Audio.play: track must be a pointer"},
        {"play", {Variable::fromPointer(&notATrack), Variable(0)}, "Audio.play: track is not an open track"},
        {"pause", {Variable(1)}, "Audio.pause: track must be a pointer"},
        {"free", {}, "Audio.free: missing argument 1"},
        {"free", {Variable::fromPointer(nullptr)}, "Audio.free: track is not an open track"},
        {"save", {Variable(true)}, "Audio.save: track must be a pointer"},
    };
    for (const Case& test : cases) EXPECT_EQ(errorOf(test.function, test.args), test.message);
}

TEST_F(AudioModule, OffsetAndPathAreCheckedAfterTheTrack) {
    const std::string path = writeWav("a.wav", 2);
    Variable track = entry("open").binding({Variable(path)});
    ASSERT_EQ(track.type(), korvel::VarType::Pointer);
    EXPECT_EQ(errorOf("play", {track}), "Audio.play: missing argument 2");
    EXPECT_EQ(errorOf("play", {track, Variable("soon")}), "Audio.play: offset must be numeric");
    EXPECT_EQ(errorOf("save", {track}), "Audio.save: missing argument 2");
    EXPECT_EQ(errorOf("save", {track, Variable(1)}), "Audio.save: path must be a string");
    entry("free").binding({track});
    EXPECT_EQ(errorOf("play", {track, Variable(0)}), "Audio.play: track is not an open track");
    EXPECT_EQ(errorOf("free", {track}), "Audio.free: track is not an open track");
}

TEST_F(AudioModule, OpenFailuresNameThePath) {
    const std::string missing = (m_directory / "missing.wav").string();
    EXPECT_EQ(errorOf("open", {Variable(missing)}), "Audio.open: cannot open " + missing + ": cannot read the file");
    const auto text = m_directory / "text.wav";
    std::ofstream(text) << "RIFF....WAVEnothing here";
    EXPECT_EQ(errorOf("open", {Variable(text.string())}).rfind("Audio.open: cannot open " + text.string() + ": ", 0), 0u);
}

TEST_F(AudioModule, ScriptOpensPlaysPausesSavesAndFrees) {
    const std::string stereo = writeWav("stereo.wav", 2);
    const std::string mono = writeWav("mono.wav", 1);
    const std::string saved = (m_directory / "saved.wav").string();
    const std::string script =
        "s = Audio.open(\"" + stereo + "\")\n"
        "m = Audio.open(\"" + mono + "\")\n"
        "print(typeOf(s), Audio.play(s, 0), Audio.play(s, 50, true), Audio.play(m, 0))\n"
        "Audio.pause(s)\n"
        "Audio.clear()\n"
        "print(Audio.save(m, \"" + saved + "\"))\n"
        "Audio.free(s)\n"
        "ok, message = pcall(Audio.pause, s)\n"
        "print(ok, message)\n"
        "Audio.free(m)\n";
    EXPECT_EQ(run(script), "pointer true true false\ntrue\nfalse Audio.pause: track is not an open track\n");
    korvel::wav::DecodedFile reread;
    std::vector<std::uint8_t> bytes;
    ASSERT_TRUE(korvel::wav::readFileBytes(saved, bytes));
    ASSERT_TRUE(korvel::wav::decode(bytes.data(), bytes.size(), &reread));
    EXPECT_EQ(reread.channels, 1u);
    EXPECT_EQ(reread.samples, constantTrack(4410, 100, -100));
}

TEST_F(AudioModule, SaveToAnUnwritablePlaceIsAnError) {
    Variable track = entry("open").binding({Variable(writeWav("a.wav", 2))});
    const std::string target = (m_directory / "no-such-folder" / "x.wav").string();
    EXPECT_EQ(errorOf("save", {track, Variable(target)}), "Audio.save: cannot write " + target);
    entry("free").binding({track});
}

}  // namespace
