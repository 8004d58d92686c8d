// Bytecode images: what a program remembers about its source, and what a damaged image does.
#include "core/byte_stream.h"
#include "core/bytecode_internal.h"
#include "core/korvel_script.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace korvel {
namespace {

constexpr const char* kProgram = R"(total = 0
function add(a, b)
  local sum = a + b
  return sum
end
function outer.inner(x)
  return x * 2
end
for i = 1, 10
  total = add(total, i)
end
t = {name: "crate", sizes: [1, 2, 3]}
print(total, t.name, #t.sizes)
value = 1 / 0
)";

std::vector<std::uint8_t> imageOf(const char* source, const char* name = "game/main.ks") {
    KorvelScript compiler;
    compiler.runScript("outer = {}");
    return compiler.serialiseBytecode(source, name);
}

struct ImageRun {
    RunResult result;
    std::string output;
};

ImageRun runImage(const std::vector<std::uint8_t>& image, std::string_view path = {}) {
    KorvelScript script;
    ImageRun run;
    script.setOutput([&](std::string_view text) { run.output += text; });
    script.runScript("outer = {}");
    BytecodeProgram program = script.deserialiseBytecode(image, path);
    run.result = script.runBytecode(program);
    return run;
}

TEST(BytecodeTest, ImageBeginsWithItsMagicAndRunsLikeItsSource) {
    std::vector<std::uint8_t> image = imageOf(kProgram);
    ASSERT_GE(image.size(), 12u);
    EXPECT_EQ(std::string(image.begin(), image.begin() + 4), "KSBC");
    ImageRun run = runImage(image);
    EXPECT_EQ(run.output, "55 crate 3\n");
    EXPECT_FALSE(run.result.ok);
    EXPECT_EQ(run.result.errorMessage, "Division by zero");
    EXPECT_NE(run.result.errorReport.find("at game/main.ks:14"), std::string::npos) << run.result.errorReport;
    EXPECT_NE(run.result.errorReport.find("value = 1 / 0"), std::string::npos) << run.result.errorReport;
}

TEST(BytecodeTest, ProgramRecordsNameTheProgramAndEachFunction) {
    KorvelScript script;
    BytecodeProgram program = script.deserialiseBytecode(imageOf(kProgram));
    EXPECT_EQ(program.sourcePath, "game/main.ks");
    EXPECT_EQ(program.sourceDirectory, "game/");
    ASSERT_EQ(program.records.size(), 3u);
    EXPECT_EQ(program.records[0].name, "game/main.ks");
    EXPECT_EQ(program.records[1].name, "add");
    EXPECT_EQ(program.records[2].name, "outer.inner");
    for (const BytecodeRecord& record : program.records) EXPECT_EQ(record.sourceDirectory, "game/");
}

TEST(BytecodeTest, LoadingUnderAnotherPathReportsThatPath) {
    ImageRun run = runImage(imageOf(kProgram), "C:\\games\\quest\\start.ks");
    EXPECT_NE(run.result.errorReport.find("at C:\\games\\quest\\start.ks:14"), std::string::npos) << run.result.errorReport;
    KorvelScript script;
    BytecodeProgram program = script.deserialiseBytecode(imageOf(kProgram), "C:\\games\\quest\\start.ks");
    EXPECT_EQ(program.sourceDirectory, "C:/games/quest/");
}

TEST(BytecodeTest, SourceThatDoesNotParseHasNoImage) {
    KorvelScript script;
    try {
        script.serialiseBytecode("x = 1\ny = \"unterminated\n", "bad.ks");
        FAIL() << "an image was made";
    } catch (const ScriptError& error) {
        EXPECT_NE(error.report().find("bad.ks"), std::string::npos) << error.report();
    }
}

struct DamagedImage {
    const char* what;
    std::vector<std::uint8_t> bytes;
    const char* message;
};

TEST(BytecodeTest, DamagedImagesAreRefusedWithAReason) {
    std::vector<std::uint8_t> good = imageOf(kProgram);
    std::vector<std::uint8_t> wrongVersion = good;
    wrongVersion[4] = 99;
    std::vector<std::uint8_t> flipped = good;
    flipped[good.size() / 2] ^= 0x40;
    std::vector<std::uint8_t> foreign(good.size(), 'x');
    std::vector<DamagedImage> cases = {
        {"empty", {}, "Invalid bytecode image: not a KSBC image"},
        {"foreign", foreign, "Invalid bytecode image: not a KSBC image"},
        {"version", wrongVersion, "Invalid bytecode image: format version 99 (this engine reads version 1)"},
        {"flipped bit", flipped, "Invalid bytecode image: checksum mismatch (the file is damaged)"},
        {"header only", std::vector<std::uint8_t>(good.begin(), good.begin() + 12),
         "Invalid bytecode image: checksum mismatch (the file is damaged)"},
    };
    for (const DamagedImage& c : cases) {
        KorvelScript script;
        try {
            script.deserialiseBytecode(c.bytes);
            ADD_FAILURE() << c.what << ": accepted";
        } catch (const ScriptError& error) {
            EXPECT_STREQ(error.what(), c.message) << c.what;
        }
    }
}

TEST(BytecodeTest, EveryTruncationIsRefused) {
    std::vector<std::uint8_t> good = imageOf(kProgram);
    for (std::size_t length = 12; length < good.size(); ++length) {
        std::vector<std::uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
        korvel::sealChecksum(cut);
        KorvelScript script;
        EXPECT_THROW(script.deserialiseBytecode(cut), ScriptError) << "length " << length;
    }
}

TEST(BytecodeTest, CorruptionBehindAValidChecksumNeverCrashes) {
    // Each byte of the body replaced by 0 and by 255: the loader refuses, or the program
    // runs (under a step budget) and ends one way or another. Nothing may crash.
    std::vector<std::uint8_t> good = imageOf(kProgram);
    int refused = 0, ran = 0;
    for (std::size_t at = 12; at < good.size(); ++at) {
        for (std::uint8_t value : {std::uint8_t{0}, std::uint8_t{0xff}}) {
            std::vector<std::uint8_t> bad = good;
            if (bad[at] == value) continue;
            bad[at] = value;
            korvel::sealChecksum(bad);
            KorvelScript script;
            script.setOutput([](std::string_view) {});
            script.setStepBudget(10000);
            script.runScript("outer = {}");
            try {
                BytecodeProgram program = script.deserialiseBytecode(bad);
                script.runBytecode(program);
                ++ran;
            } catch (const ScriptError&) {
                ++refused;
            }
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(ran, 0);
}

// The loader gives nodes their scalar fast paths in one pass over the image rather than by
// walking each statement's tree as the compiler does: both must choose the same for every
// node of every test script.
void expectSameTree(const FastExpression* compiled, const FastExpression* loaded, const std::string& where) {
    ASSERT_EQ(compiled == nullptr, loaded == nullptr) << where;
    if (!compiled) return;
    EXPECT_EQ(compiled->op, loaded->op) << where;
    EXPECT_EQ(compiled->height, loaded->height) << where;
    EXPECT_EQ(compiled->scalar, loaded->scalar) << where << " op " << static_cast<int>(compiled->op);
    EXPECT_EQ(compiled->constantBits, loaded->constantBits) << where;
    expectSameTree(compiled->left, loaded->left, where);
    expectSameTree(compiled->right, loaded->right, where);
    ASSERT_EQ(compiled->items.size(), loaded->items.size()) << where;
    for (std::size_t i = 0; i < compiled->items.size(); ++i) expectSameTree(compiled->items[i], loaded->items[i], where);
}

TEST(BytecodeTest, LoadedTreesGetTheCompilersScalarPaths) {
    namespace fs = std::filesystem;
    std::vector<std::string> sources = {kProgram};
    std::vector<std::string> names = {"program"};
    for (const auto& entry : fs::recursive_directory_iterator(KORVEL_SCRIPT_TEST_DIR)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".ks") continue;
        std::ifstream file(entry.path(), std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        sources.push_back(text.str());
        names.push_back(entry.path().filename().string());
    }
    // A chain taller than the scalar paths take, with short branches that still get them.
    std::string chain = "x = 1\ny = x";
    for (int i = 0; i < 40; ++i) chain += " + x * " + std::to_string(i);
    sources.push_back(chain + "\nprint(y)\n");
    names.push_back("tall chain");
    std::size_t compared = 0;
    for (std::size_t s = 0; s < sources.size(); ++s) {
        KorvelScript script;
        Interpreter& vm = script.impl().vm;
        ScriptError error("");
        std::shared_ptr<Chunk> compiled = vm.compileChunk(sources[s], names[s], &error);
        if (!compiled) continue;  // does not parse: no image to compare
        std::vector<std::uint8_t> image = encodeBytecodeImage(*compiled);
        std::shared_ptr<Chunk> loaded = decodeBytecodeImage(vm, image.data(), image.size());
        ASSERT_EQ(compiled->lines.size(), loaded->lines.size()) << names[s];
        for (std::size_t i = 0; i < compiled->lines.size(); ++i) {
            const CompiledLine& a = compiled->lines[i];
            const CompiledLine& b = loaded->lines[i];
            std::string where = names[s] + " line " + std::to_string(i + 1);
            // Declarations' targets get no fast paths from either (the loader marks their
            // constants, which nothing reads there).
            if (a.kind == StmtKind::FunctionDecl) continue;
            expectSameTree(a.expr, b.expr, where);
            expectSameTree(a.stop, b.stop, where);
            expectSameTree(a.step, b.step, where);
            ASSERT_EQ(a.targets.size(), b.targets.size()) << where;
            for (std::size_t t = 0; t < a.targets.size(); ++t) {
                ASSERT_EQ(a.targets[t].keys.size(), b.targets[t].keys.size()) << where;
                for (std::size_t k = 0; k < a.targets[t].keys.size(); ++k)
                    expectSameTree(a.targets[t].keys[k], b.targets[t].keys[k], where);
            }
        }
        ++compared;
        if (::testing::Test::HasFailure()) return;
    }
    EXPECT_GT(compared, 50u);
}

// Numbers of every encoded length, read where the reader has plenty of bytes left and where
// the number ends exactly at the end of the data (the two paths of the reader).
TEST(ByteStreamTest, VarintsOfEveryLengthReadBackAnywhere) {
    const std::vector<std::uint64_t> values = {0, 1, 127, 128, 300, 16383, 16384, 0xffffffffu,
                                               std::uint64_t{1} << 56, ~std::uint64_t{0}};
    for (std::uint64_t value : values) {
        for (std::size_t padding : {std::size_t{0}, std::size_t{12}}) {
            ByteWriter out;
            out.varint(value);
            out.svarint(-static_cast<std::int64_t>(value >> 1));
            for (std::size_t i = 0; i < padding; ++i) out.u8(0);
            ByteReader in(out.bytes().data(), out.bytes().size());
            EXPECT_EQ(in.varint(), value) << value << " padding " << padding;
            EXPECT_EQ(in.svarint(), -static_cast<std::int64_t>(value >> 1)) << value << " padding " << padding;
            EXPECT_EQ(in.remaining(), padding);
        }
    }
}

TEST(ByteStreamTest, BadNumbersCountsAndTextsAreRefused) {
    struct Case {
        const char* what;
        std::vector<std::uint8_t> bytes;
        const char* message;
    };
    std::vector<std::uint8_t> endless(16, 0x80);  // never ends within 64 bits, with room to spare
    std::vector<std::uint8_t> endlessShort(10, 0xff);
    std::vector<Case> cases = {
        {"number cut short", {0x80, 0x80}, "truncated"},
        {"number cut short, long data", {0xff}, "truncated"},
        {"endless number", endless, "malformed number"},
        {"endless number at the end", endlessShort, "malformed number"},
        {"text longer than the data", {5, 'a', 'b'}, "impossible text length count"},
        {"huge text length", {0xff, 0xff, 0xff, 0xff, 0x0f}, "impossible text length count"},
    };
    for (const Case& c : cases) {
        ByteReader in(c.bytes.data(), c.bytes.size());
        try {
            if (std::string_view(c.message).find("text") != std::string_view::npos) in.textView();
            else in.varint();
            ADD_FAILURE() << c.what << ": accepted";
        } catch (const ByteReadError& error) {
            EXPECT_EQ(error.message, c.message) << c.what;
        }
    }
    const std::uint8_t three[] = {1, 2, 3};
    ByteReader in(three, sizeof three);
    EXPECT_EQ(in.view(2), std::string_view("\x01\x02", 2));
    EXPECT_THROW(in.view(2), ByteReadError);
    EXPECT_EQ(in.remaining(), 1u);
}

}  // namespace
}  // namespace korvel
