// ASCII pictures of images: the image is fitted, centred, into a grid of character cells one
// unit wide and 1.5 units tall, each cell samples the nearest pixel at its centre, and the
// pixel's luminance picks a character from a ramp running from blank (dark) to "$" (bright).
#include "graphics/mirel_image.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <string_view>

namespace quillfen {

namespace {

constexpr double kCellHeight = 1.5;
// Darkest first: index 0 is the blank, 39 the densest character.
constexpr std::string_view kRamp = " .`\",;li~_?]}1(|/fjxuczYJCQOmwpbka*MW8B$";
static_assert(kRamp.size() == 40);
// Beyond this many characters the request is refused rather than built.
constexpr std::int64_t kMaxCharacters = std::int64_t{1} << 26;

// The colour-balance pairs (base × multiplier) of the renderer's luminance.
constexpr double kRedWeight = 0.55 * 1.0, kGreenWeight = 0.65 * 1.457, kBlueWeight = 0.475 * 2.0;

char rampCharacter(const std::uint8_t* pixel) {
    const double luminance = (pixel[0] * kRedWeight + pixel[1] * kGreenWeight + pixel[2] * kBlueWeight) / 3 * 39;
    const int index = std::clamp(static_cast<int>(luminance / 255 + 0.5), 0, 39);
    return kRamp[static_cast<std::size_t>(index)];
}

}  // namespace

std::string asciiArtText(const MirelImage* image, int columns, int rows) {
    if (!image || !image->pixels || image->width < 1 || image->height < 1 || columns < 1 || rows < 1) return {};
    if ((std::int64_t{columns} + 1) * rows > kMaxCharacters) return {};

    const double width = image->width, height = image->height;
    const double scale = std::min(columns * 1.0 / width, rows * kCellHeight / height);
    const double drawnWidth = width * scale, drawnHeight = height * scale;
    const double leftMargin = (columns - drawnWidth) / 2, topMargin = (rows * kCellHeight - drawnHeight) / 2;

    std::string text;
    try {
        text.reserve(static_cast<std::size_t>((std::int64_t{columns} + 1) * rows));
    } catch (const std::bad_alloc&) {
        return {};  // reserved in full, so nothing below allocates
    }
    for (int row = 0; row < rows; ++row) {
        const double sampleY = row * kCellHeight + kCellHeight / 2;
        if (sampleY < topMargin || sampleY >= topMargin + drawnHeight) {
            text.append(static_cast<std::size_t>(columns), ' ');
            text.push_back('\n');
            continue;
        }
        const int sourceY = static_cast<int>(std::round(std::clamp((sampleY - topMargin) / scale, 0.0, height - 1)));
        for (int column = 0; column < columns; ++column) {
            const double sampleX = column + 0.5;
            if (sampleX < leftMargin || sampleX >= leftMargin + drawnWidth) {
                text.push_back(' ');
                continue;
            }
            const int sourceX = static_cast<int>(std::round(std::clamp((sampleX - leftMargin) / scale, 0.0, width - 1)));
            text.push_back(rampCharacter(image->pixels.get() + pixelOffset(*image, sourceX, sourceY)));
        }
        text.push_back('\n');
    }
    return text;
}

void printAsciiArt(const MirelImage* image, int columns, int rows) {
    const std::string text = asciiArtText(image, columns, rows);
    if (text.empty()) {
        std::fputs("Invalid input parameters.\n", stderr);
        return;
    }
    std::printf("%s", text.c_str());
    std::fflush(stdout);
}

}  // namespace quillfen
