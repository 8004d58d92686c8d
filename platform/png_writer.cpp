// The PNG writer: 8-bit RGBA, not interlaced, each row filtered with whichever of the five
// filters gives the smallest sum of absolute differences (the usual heuristic, which suits
// both photographs and flat art), then one zlib stream split over IDAT chunks.
#include "platform/image_codecs_internal.h"

#include <algorithm>
#include <array>

namespace wm::png {

namespace {

using namespace detail;

constexpr std::size_t kIdatChunkSize = 1 << 20;

void appendBe32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void appendChunk(std::vector<std::uint8_t>& out, const char* type, const std::uint8_t* data, std::size_t size) {
    appendBe32(out, static_cast<std::uint32_t>(size));
    const std::size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    if (size) out.insert(out.end(), data, data + size);
    appendBe32(out, crc32(out.data() + start, size + 4));
}

std::uint8_t paethPredictor(int left, int above, int upperLeft) {
    const int estimate = left + above - upperLeft;
    const int distanceLeft = std::abs(estimate - left);
    const int distanceAbove = std::abs(estimate - above);
    const int distanceUpperLeft = std::abs(estimate - upperLeft);
    if (distanceLeft <= distanceAbove && distanceLeft <= distanceUpperLeft) return static_cast<std::uint8_t>(left);
    return static_cast<std::uint8_t>(distanceAbove <= distanceUpperLeft ? above : upperLeft);
}

// Filters row (with previous the row above, or null for the first) into target with each
// filter type and keeps the one whose bytes, read as signed, sum smallest in magnitude. Each
// filter has its own straight loop so that the compiler can vectorise the simple ones.
void filterRow(const std::uint8_t* row, const std::uint8_t* previous, std::size_t length, std::uint8_t* target,
               std::vector<std::uint8_t>& scratch) {
    constexpr std::size_t kPixel = 4;
    std::vector<std::uint8_t> zeroRow;
    if (!previous) {
        zeroRow.assign(length, 0);
        previous = zeroRow.data();
    }
    std::uint8_t* candidate = scratch.data();
    std::uint64_t bestCost = ~0ull;
    auto consider = [&](std::uint8_t filter) {
        std::uint64_t cost = 0;
        for (std::size_t index = 0; index < length; ++index) {
            const std::uint8_t value = candidate[index];
            cost += value < 128 ? value : 256 - value;
        }
        if (cost < bestCost) {
            bestCost = cost;
            target[0] = filter;
            std::copy(candidate, candidate + length, target + 1);
        }
    };
    std::copy(row, row + length, candidate);
    consider(0);
    for (std::size_t index = 0; index < length; ++index)
        candidate[index] = static_cast<std::uint8_t>(row[index] - (index >= kPixel ? row[index - kPixel] : 0));
    consider(1);
    for (std::size_t index = 0; index < length; ++index) candidate[index] = static_cast<std::uint8_t>(row[index] - previous[index]);
    consider(2);
    for (std::size_t index = 0; index < length; ++index) {
        const int left = index >= kPixel ? row[index - kPixel] : 0;
        candidate[index] = static_cast<std::uint8_t>(row[index] - ((left + previous[index]) >> 1));
    }
    consider(3);
    for (std::size_t index = 0; index < length; ++index) {
        const int left = index >= kPixel ? row[index - kPixel] : 0;
        const int upperLeft = index >= kPixel ? previous[index - kPixel] : 0;
        candidate[index] = static_cast<std::uint8_t>(row[index] - paethPredictor(left, previous[index], upperLeft));
    }
    consider(4);
}

std::vector<std::uint8_t> encodePngUnguarded(std::int32_t width, std::int32_t height, const std::uint8_t* rgba) {
    if (width <= 0 || height <= 0 || !rgba) return {};
    if (static_cast<std::uint32_t>(width) > kMaxSide || static_cast<std::uint32_t>(height) > kMaxSide ||
        std::uint64_t(width) * std::uint64_t(height) > kMaxPixels)
        return {};
    const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
    std::vector<std::uint8_t> filtered((rowBytes + 1) * static_cast<std::size_t>(height));
    std::vector<std::uint8_t> scratch(rowBytes);
    for (std::size_t y = 0; y < static_cast<std::size_t>(height); ++y) {
        const std::uint8_t* row = rgba + y * rowBytes;
        filterRow(row, y ? row - rowBytes : nullptr, rowBytes, filtered.data() + y * (rowBytes + 1), scratch);
    }
    const std::vector<std::uint8_t> stream = deflateZlib(filtered.data(), filtered.size());

    std::vector<std::uint8_t> out = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    out.reserve(stream.size() + 64 + 12 * (stream.size() / kIdatChunkSize));
    std::array<std::uint8_t, 13> header{};
    for (int shift = 24, index = 0; shift >= 0; shift -= 8, ++index) {
        header[static_cast<std::size_t>(index)] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(width) >> shift);
        header[static_cast<std::size_t>(index) + 4] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(height) >> shift);
    }
    header[8] = 8;  // bit depth
    header[9] = 6;  // colour type: RGBA; compression, filter and interlace methods stay 0
    appendChunk(out, "IHDR", header.data(), header.size());
    for (std::size_t offset = 0; offset < stream.size(); offset += kIdatChunkSize)
        appendChunk(out, "IDAT", stream.data() + offset, std::min(kIdatChunkSize, stream.size() - offset));
    appendChunk(out, "IEND", nullptr, 0);
    return out;
}

}  // namespace

std::vector<std::uint8_t> encodePng(std::int32_t width, std::int32_t height, const std::uint8_t* rgba) {
    try {
        return encodePngUnguarded(width, height, rgba);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

}  // namespace wm::png
