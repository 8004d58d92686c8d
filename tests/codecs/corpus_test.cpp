// PngSuite: every valid PNG, and the BMP made from it, decodes to the reference RGBA; every
// corrupt PNG (names starting with "x") is refused. The corpus is not copied into the
// repository: KORVEL_PNGSUITE_DIR points at it, and without it these tests skip.
#include "codec_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using codec_test::readBytes;

fs::path corpusDirectory() { return fs::path(KORVEL_PNGSUITE_DIR); }

// The references are flat JSON arrays of numbers.
std::vector<int> readJsonNumbers(const fs::path& path) {
    std::ifstream stream(path);
    std::vector<int> numbers;
    std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    int value = 0;
    bool inNumber = false;
    for (char c : text) {
        if (c >= '0' && c <= '9') {
            value = value * 10 + (c - '0');
            inNumber = true;
        } else if (inNumber) {
            numbers.push_back(value);
            value = 0;
            inNumber = false;
        }
    }
    return numbers;
}

int pngBitDepth(const std::vector<std::uint8_t>& file) { return file.size() > 24 ? file[24] : 0; }

// The 8-bit reference: the _to8 file where there is one, else the 16-bit values reduced the
// way the decoder does. Rounding may differ by one between the two reductions.
std::vector<std::uint8_t> referenceRgba(const std::string& name, bool sixteenBit) {
    const fs::path reduced = corpusDirectory() / "json" / (name + "_to8.json");
    if (sixteenBit && fs::exists(reduced)) {
        std::vector<int> numbers = readJsonNumbers(reduced);
        return std::vector<std::uint8_t>(numbers.begin(), numbers.end());
    }
    std::vector<int> numbers = readJsonNumbers(corpusDirectory() / "json" / (name + ".json"));
    std::vector<std::uint8_t> rgba;
    rgba.reserve(numbers.size());
    for (int number : numbers) rgba.push_back(sixteenBit ? static_cast<std::uint8_t>((number * 255 + 32767) / 65535)
                                                         : static_cast<std::uint8_t>(number));
    return rgba;
}

std::vector<fs::path> corpusFiles(const char* folder, const char* extension) {
    std::vector<fs::path> files;
    const fs::path directory = corpusDirectory() / folder;
    if (!fs::is_directory(directory)) return files;
    for (const auto& entry : fs::directory_iterator(directory))
        if (entry.path().extension() == extension) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

#define SKIP_WITHOUT_CORPUS()                                                                                          \
    if (!fs::is_directory(corpusDirectory() / "png"))                                                                  \
    GTEST_SKIP() << "PngSuite not found at " << corpusDirectory() << " (set KORVEL_PNGSUITE_DIR)"

TEST(PngSuite, ValidFilesDecodeToTheReference) {
    SKIP_WITHOUT_CORPUS();
    int checked = 0;
    for (const fs::path& path : corpusFiles("png", ".png")) {
        const std::string name = path.stem().string();
        if (name[0] == 'x') continue;
        const std::vector<std::uint8_t> file = readBytes(path);
        const bool sixteenBit = pngBitDepth(file) == 16;
        wm::png::DecodedImage image;
        std::string error;
        ASSERT_TRUE(wm::png::decodePng(file.data(), file.size(), image, error)) << name << ": " << error;
        const std::vector<std::uint8_t> reference = referenceRgba(name, sixteenBit);
        ASSERT_EQ(image.rgba.size(), reference.size()) << name;
        // Gamma chunks are not applied, and the references do not apply them either: the
        // g* files match exactly like the rest.
        EXPECT_LE(codec_test::largestDifference(image.rgba, reference), sixteenBit ? 1 : 0) << name;
        ++checked;
    }
    EXPECT_EQ(checked, 161);
}

TEST(PngSuite, CorruptFilesAreRefused) {
    SKIP_WITHOUT_CORPUS();
    int checked = 0;
    for (const fs::path& path : corpusFiles("png", ".png")) {
        const std::string name = path.stem().string();
        if (name[0] != 'x') continue;
        const std::vector<std::uint8_t> file = readBytes(path);
        wm::png::DecodedImage image;
        image.width = 7;
        std::string error;
        EXPECT_FALSE(wm::png::decodeImage(file.data(), file.size(), image, error)) << name;
        EXPECT_FALSE(error.empty()) << name;
        EXPECT_EQ(image.width, 7) << name << ": a refused file must leave the output alone";
        ++checked;
    }
    EXPECT_EQ(checked, 14);
}

TEST(PngSuite, BmpConversionsDecodeToTheReference) {
    SKIP_WITHOUT_CORPUS();
    int checked = 0;
    for (const fs::path& path : corpusFiles("bmp", ".bmp")) {
        const std::string name = path.stem().string();
        const std::vector<std::uint8_t> file = readBytes(path);
        const std::vector<std::uint8_t> png = readBytes(corpusDirectory() / "png" / (name + ".png"));
        const bool sixteenBit = pngBitDepth(png) == 16;
        wm::png::DecodedImage image;
        std::string error;
        ASSERT_TRUE(wm::png::decodeImage(file.data(), file.size(), image, error)) << name << ": " << error;
        std::vector<std::uint8_t> reference = referenceRgba(name, sixteenBit);
        // The converter wrote fully transparent pixels as 0,0,0,0 whatever their colour in the
        // PNG; only their alpha is compared.
        ASSERT_EQ(image.rgba.size(), reference.size()) << name;
        for (std::size_t pixel = 0; pixel < reference.size(); pixel += 4)
            if (reference[pixel + 3] == 0 && image.rgba[pixel + 3] == 0)
                std::copy_n(&image.rgba[pixel], 3, &reference[pixel]);
        EXPECT_LE(codec_test::largestDifference(image.rgba, reference), sixteenBit ? 1 : 0) << name;
        ++checked;
    }
    EXPECT_EQ(checked, 161);
}

}  // namespace
