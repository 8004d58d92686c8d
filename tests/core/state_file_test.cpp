// State files on disk and between interpreters: round trips, crash-safe saving, and damaged
// files that must leave the globals exactly as they were.
#include "core/file_io.h"
#include "core/byte_stream.h"
#include "core/korvel_script.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace korvel {
namespace {

class StateFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_directory = fs::temp_directory_path() / ("korvel-state-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                                                 "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(m_directory);
        fs::create_directories(m_directory);
    }
    void TearDown() override {
        setWriteFailureAfterBytesForTesting(-1);
        fs::remove_all(m_directory);
    }
    std::string path(const char* name) const { return (m_directory / name).generic_string(); }
    std::size_t filesInDirectory() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(m_directory), fs::directory_iterator()));
    }

    fs::path m_directory;
};

std::string output(KorvelScript& script, const char* source) {
    std::string text;
    script.setOutput([&](std::string_view part) { text += part; });
    RunResult result = script.runScript(source);
    EXPECT_TRUE(result.ok) << result.errorReport;
    return text;
}

constexpr const char* kGame = R"(
hero = {name: "Ann", hp: 12, bag: ["lamp", "key"], pos: {x: 3.5, y: -2}}
hero.home = hero
visited = [hero.pos, hero.pos]
function describe(h)
  return h.name + " has " + toString(h.hp)
end
hero.describe = describe
tally = load("return level * 2")
level = 4
)";

TEST_F(StateFileTest, AFreshInterpreterGetsTheSavedGlobalsBack) {
    {
        KorvelScript game;
        output(game, kGame);
        std::string save = path("slot1.ksst");
        EXPECT_EQ(output(game, ("print(exportState(\"" + save + "\"))").c_str()), "true\n");
    }
    KorvelScript fresh;
    std::string text = output(fresh, ("importState(\"" + path("slot1.ksst") + "\")\n"
                                      "print(hero.describe(hero), hero.home.home.bag[2], hero.pos.x, level, tally())\n"
                                      "visited[1].y = 7\n"
                                      "print(visited[2].y, hero.pos.y)\n").c_str());
    EXPECT_EQ(text, "Ann has 12 key 3.500000 4 8\n7 7\n");
}

TEST_F(StateFileTest, NativesComeBackByNameOrAsNothing) {
    std::vector<std::uint8_t> bytes;
    {
        KorvelScript game;
        game.pushFunction("hostOnly", [](const std::vector<Variable>&) { return Variable(1); });
        output(game, "printer = print\nlater = hostOnly\nsplit = string.sub\n");
        Variable state = game.callCallable(game.pullVariable("exportState"), {});
        bytes = state.asRaw();
    }
    KorvelScript fresh;
    fresh.pushVariable("saved", Variable::makeRaw(bytes));
    EXPECT_EQ(output(fresh, "importState(saved)\nprinter(split(\"castle\", 1, 3), typeOf(later))\n"), "cas not\n");
}

TEST_F(StateFileTest, AFailedSaveLeavesTheOldSaveWhole) {
    KorvelScript game;
    std::string save = path("slot.ksst");
    output(game, ("level = 1\nexportState(\"" + save + "\")").c_str());
    std::vector<std::uint8_t> before;
    ASSERT_TRUE(readFileBytes(save, before));

    // The disk fills up halfway through the next save.
    setWriteFailureAfterBytesForTesting(16);
    RunResult result = game.runScript(("level = 2\nexportState(\"" + save + "\")").c_str());
    setWriteFailureAfterBytesForTesting(-1);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.errorMessage, "Failed to open state file for writing: " + save + " (No space left on device)");

    std::vector<std::uint8_t> after;
    ASSERT_TRUE(readFileBytes(save, after));
    EXPECT_EQ(after, before);
    EXPECT_EQ(filesInDirectory(), 1u) << "the temporary file is cleaned up";
    EXPECT_EQ(output(game, ("importState(\"" + save + "\")\nprint(level)").c_str()), "1\n");
}

TEST_F(StateFileTest, DamagedStatesLeaveTheGlobalsExactlyAsTheyWere) {
    KorvelScript game;
    output(game, kGame);
    std::vector<std::uint8_t> good = game.callCallable(game.pullVariable("exportState"), {}).asRaw();
    output(game, "level = 9\nhero = \"changed\"\n");
    game.pushVariable("incoming", Variable());
    std::vector<std::uint8_t> current = game.callCallable(game.pullVariable("exportState"), {}).asRaw();

    std::vector<std::vector<std::uint8_t>> damaged;
    for (std::size_t length = 0; length < good.size(); length += 3) {
        damaged.emplace_back(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
        if (length >= 12) korvel::sealChecksum(damaged.back());
    }
    std::vector<std::uint8_t> unsigned_ = good;
    unsigned_[good.size() - 1] ^= 1;
    damaged.push_back(unsigned_);
    std::vector<std::uint8_t> foreign = good;
    foreign[3] = 'X';
    damaged.push_back(foreign);

    int refused = 0;
    for (const auto& bytes : damaged) {
        game.pushVariable("incoming", Variable::makeRaw(bytes));
        RunResult result = game.runScript("importState(incoming)");
        game.pushVariable("incoming", Variable());
        if (result.ok) continue;
        ++refused;
        EXPECT_EQ(result.errorMessage.rfind("importState: the raw value is not a usable state file (", 0), 0u) << result.errorMessage;
        EXPECT_EQ(game.callCallable(game.pullVariable("exportState"), {}).asRaw(), current) << "size " << bytes.size();
    }
    EXPECT_EQ(refused, static_cast<int>(damaged.size()));
}

}  // namespace
}  // namespace korvel
