// .mmg files: layout, round trips, refusals, damaged and hostile bytes, and safe replacement.
#include "graphics/mmg_file.h"
#include "graphics/runtime_file.h"
#include "graphics_test_support.h"

#include "core/file_io.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace quillfen {
namespace {

using namespace testing_support;
namespace fs = std::filesystem;

class MmgFile : public ::testing::Test {
protected:
    void SetUp() override {
        m_directory = fs::temp_directory_path() /
                      ("korvel-mmg-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::remove_all(m_directory);
        fs::create_directories(m_directory);
    }
    void TearDown() override {
        korvel::setWriteFailureAfterBytesForTesting(-1);
        fs::remove_all(m_directory);
    }
    std::string path(const std::string& name) const { return (m_directory / name).generic_string(); }

    static std::vector<std::uint8_t> fileBytes(const std::string& path) {
        std::vector<std::uint8_t> bytes;
        EXPECT_TRUE(readRuntimeFile(path, bytes));
        return bytes;
    }
    static void writeBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

    fs::path m_directory;
};

// Little-endian size fields, as a file holds them.
std::vector<std::uint8_t> header(std::uint64_t width, std::uint64_t height) {
    std::vector<std::uint8_t> bytes;
    for (std::uint64_t value : {width, height})
        for (int index = 0; index < 8; ++index) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * index)));
    return bytes;
}

std::unique_ptr<MirelImage> imageWithReflection() {
    auto image = noiseImage(3, 2, 21);
    auto reflection = noiseImage(2, 5, 22);  // a different shape from the image
    image->reflectionWidth = 2;
    image->reflectionHeight = 5;
    image->reflectionPixels = std::move(reflection->pixels);
    return image;
}

TEST_F(MmgFile, EmptyImageIsThirtyTwoZeroBytes) {
    MirelImage empty;
    ASSERT_TRUE(saveMirelImage(&empty, path("empty.mmg").c_str()));
    EXPECT_EQ(fileBytes(path("empty.mmg")), std::vector<std::uint8_t>(32, 0));
    MirelImage* loaded = loadMirelImage(path("empty.mmg").c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_TRUE(cleanImage(loaded));
    EXPECT_EQ(loaded->pixels, nullptr);
    EXPECT_TRUE(killImage(loaded));
}

TEST_F(MmgFile, RoundTripKeepsPixelsAndReflectionByteForByte) {
    auto image = imageWithReflection();
    ASSERT_TRUE(saveMirelImage(image.get(), path("picture.mmg").c_str()));
    const std::vector<std::uint8_t> bytes = fileBytes(path("picture.mmg"));
    ASSERT_EQ(bytes.size(), 32u + 3 * 2 * 4 + 2 * 5 * 4);
    EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 16), header(3, 2));
    EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin() + 40, bytes.begin() + 56), header(2, 5));

    MirelImage* loaded = loadMirelImage(path("picture.mmg").c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_TRUE(isLiveImage(loaded));
    EXPECT_EQ(loaded->width, 3);
    EXPECT_EQ(loaded->height, 2);
    EXPECT_EQ(pixelBytes(*loaded), pixelBytes(*image));
    ASSERT_EQ(loaded->reflectionWidth, 2);
    ASSERT_EQ(loaded->reflectionHeight, 5);
    EXPECT_EQ(0, std::memcmp(loaded->reflectionPixels.get(), image->reflectionPixels.get(), 40));
    EXPECT_TRUE(killImage(loaded));
}

TEST_F(MmgFile, TrailingBytesAreIgnored) {
    auto image = noiseImage(2, 2, 23);
    auto bytes = encodeMirelImage(*image);
    ASSERT_TRUE(bytes);
    bytes->insert(bytes->end(), {1, 2, 3, 4, 5});
    writeBytes(path("long.mmg"), *bytes);
    MirelImage* loaded = loadMirelImage(path("long.mmg").c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(pixelBytes(*loaded), pixelBytes(*image));
    EXPECT_EQ(loaded->reflectionPixels, nullptr);
    EXPECT_TRUE(killImage(loaded));
}

TEST_F(MmgFile, ExtensionIsCaseSensitiveForSaveAndLoad) {
    auto image = noiseImage(2, 2, 24);
    EXPECT_FALSE(saveMirelImage(image.get(), path("upper.MMG").c_str()));
    EXPECT_FALSE(fs::exists(path("upper.MMG")));
    writeBytes(path("upper.MMG"), *encodeMirelImage(*image));
    EXPECT_EQ(loadMirelImage(path("upper.MMG").c_str()), nullptr);
    EXPECT_FALSE(hasMMGExtension(nullptr));
    EXPECT_FALSE(hasMMGExtension("mmg"));
    EXPECT_TRUE(hasMMGExtension(".mmg"));
    EXPECT_FALSE(hasMMGExtension("a.mmg.png"));
}

TEST_F(MmgFile, SaveRefusesRecordsThatCannotBeWritten) {
    MirelImage negative;
    negative.width = -1;
    MirelImage noBlock;
    noBlock.width = 2;
    noBlock.height = 2;
    MirelImage hugeArea;  // 70000 × 70000 × 4 does not fit in 32 bits
    hugeArea.width = 70000;
    hugeArea.height = 70000;
    auto noReflectionBlock = noiseImage(1, 1, 25);
    noReflectionBlock->reflectionWidth = 1;
    noReflectionBlock->reflectionHeight = 1;
    for (const MirelImage* image : std::initializer_list<const MirelImage*>{&negative, &noBlock, &hugeArea, noReflectionBlock.get()}) {
        EXPECT_FALSE(saveMirelImage(image, path("refused.mmg").c_str()));
        EXPECT_FALSE(fs::exists(path("refused.mmg")));
    }
    EXPECT_FALSE(saveMirelImage(nullptr, path("refused.mmg").c_str()));
    EXPECT_FALSE(saveMirelImage(noReflectionBlock.get(), nullptr));
    EXPECT_FALSE(saveMirelImage(noiseImage(1, 1, 1).get(), path("missing/dir/x.mmg").c_str()));
}

TEST_F(MmgFile, AFailedWriteLeavesTheOldFileWhole) {
    auto old = noiseImage(4, 4, 26);
    ASSERT_TRUE(saveMirelImage(old.get(), path("keep.mmg").c_str()));
    const auto before = fileBytes(path("keep.mmg"));
    korvel::setWriteFailureAfterBytesForTesting(20);  // the disk fills up after 20 bytes
    EXPECT_FALSE(saveMirelImage(noiseImage(8, 8, 27).get(), path("keep.mmg").c_str()));
    korvel::setWriteFailureAfterBytesForTesting(-1);
    EXPECT_EQ(fileBytes(path("keep.mmg")), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_directory), fs::directory_iterator()), 1) << "no temporary file left";
}

TEST_F(MmgFile, UnreadablePathsLoadNothing) {
    const std::size_t before = liveImageCount();
    EXPECT_EQ(loadMirelImage(path("absent.mmg").c_str()), nullptr);
    fs::create_directories(path("folder.mmg"));
    EXPECT_EQ(loadMirelImage(path("folder.mmg").c_str()), nullptr);
    EXPECT_EQ(loadMirelImage(nullptr), nullptr);
    EXPECT_EQ(liveImageCount(), before);
}

TEST(RuntimeFile, EmptyFileReadsAsNoBytesAndFailureLeavesTheOutputAlone) {
    const std::string path = (fs::temp_directory_path() / "korvel-runtime-empty.bin").generic_string();
    std::ofstream(path, std::ios::binary).close();
    std::vector<std::uint8_t> bytes{9, 9};
    EXPECT_TRUE(readRuntimeFile(path, bytes));
    EXPECT_TRUE(bytes.empty());
    fs::remove(path);
    bytes = {7};
    EXPECT_FALSE(readRuntimeFile(path, bytes));
    EXPECT_EQ(bytes, std::vector<std::uint8_t>{7});
}

// ---- hostile and damaged bytes -------------------------------------------------------------
struct DamagedCase {
    const char* name;
    std::vector<std::uint8_t> bytes;
};

std::vector<std::uint8_t> concat(std::vector<std::uint8_t> first, const std::vector<std::uint8_t>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class DamagedMmg : public ::testing::TestWithParam<DamagedCase> {};

TEST_P(DamagedMmg, IsRefused) {
    EXPECT_EQ(decodeMirelImage(GetParam().bytes), nullptr) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(
    Files, DamagedMmg,
    ::testing::Values(
        DamagedCase{"empty", {}}, DamagedCase{"fifteen bytes", std::vector<std::uint8_t>(15, 0)},
        DamagedCase{"width 2^31", concat(header(2147483648u, 1), std::vector<std::uint8_t>(100, 0))},
        DamagedCase{"height with upper bits", concat(header(1, 0x100000001ull), std::vector<std::uint8_t>(100, 0))},
        DamagedCase{"2^31 pixels in 100 bytes", concat(header(65536, 32768), std::vector<std::uint8_t>(84, 0))},
        DamagedCase{"area of exactly 2^32 bytes", concat(header(65536, 16384), std::vector<std::uint8_t>(100, 0))},
        // 2147352576 bytes of pixels announced in a 100-byte file: refused before allocating.
        DamagedCase{"pixels past the end", concat(header(32768, 16383), std::vector<std::uint8_t>(84, 0))},
        DamagedCase{"one pixel byte short", concat(header(1, 1), {1, 2, 3})},
        DamagedCase{"no reflection sizes", concat(header(1, 1), {1, 2, 3, 4})},
        DamagedCase{"half the reflection sizes", concat(concat(header(1, 1), {1, 2, 3, 4}), std::vector<std::uint8_t>(15, 0))},
        DamagedCase{"reflection past the end", concat(concat(header(0, 0), header(2, 2)), std::vector<std::uint8_t>(15, 0))},
        DamagedCase{"reflection width 2^31", concat(header(0, 0), header(2147483648u, 0))}),
    [](const auto& info) {
        std::string name;
        for (char c : std::string(info.param.name)) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
        return name;
    });

TEST(DamagedMmg, EveryTruncationOfAGoodFileIsRefused) {
    auto image = imageWithReflection();
    const auto bytes = *encodeMirelImage(*image);
    for (std::size_t length = 0; length < bytes.size(); ++length)
        EXPECT_EQ(decodeMirelImage(std::span(bytes.data(), length)), nullptr) << length;
    EXPECT_NE(decodeMirelImage(bytes), nullptr);
}

TEST(DamagedMmg, AZeroAreaWithOneNonZeroSideLoadsAsTheEmptyPicture) {
    const auto bytes = concat(header(5, 0), header(0, 7));
    auto image = decodeMirelImage(bytes);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->width, 0);
    EXPECT_EQ(image->height, 0);
    EXPECT_EQ(image->reflectionWidth, 0);
    EXPECT_EQ(image->reflectionHeight, 0);
}

}  // namespace
}  // namespace quillfen
