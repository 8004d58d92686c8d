// PNG files from arbitrary bytes. Mutations rarely keep chunk CRCs right, which would stop
// nearly every input at the first check, so inputs that start with the signature get their
// CRCs recomputed before decoding. Other inputs are turned into a PNG: the first bytes pick
// size, colour type, bit depth and interlacing and the rest become the filtered rows, which
// our own compressor packs; that reaches unfiltering and every pixel conversion with valid
// checksums. A decoded image is written with our writer and read back: it must come back equal.
#include "image_fuzz_check.h"
#include "platform/image_codecs_internal.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

using wm::png::detail::crc32;
using wm::png::detail::readBe32;

void appendBe32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void appendChunk(std::vector<std::uint8_t>& out, const char* type, const std::vector<std::uint8_t>& body) {
    appendBe32(out, static_cast<std::uint32_t>(body.size()));
    const std::size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), body.begin(), body.end());
    appendBe32(out, crc32(out.data() + start, body.size() + 4));
}

void fixCrcs(std::vector<std::uint8_t>& file) {
    std::size_t position = 8;
    while (file.size() - position >= 12) {
        const std::uint32_t length = readBe32(file.data() + position);
        if (length > file.size() - position - 12) return;
        const std::uint32_t crc = crc32(file.data() + position + 4, std::size_t(length) + 4);
        for (int index = 0; index < 4; ++index)
            file[position + 8 + length + index] = static_cast<std::uint8_t>(crc >> (24 - 8 * index));
        position += 12 + std::size_t(length);
    }
}

std::vector<std::uint8_t> synthesise(const std::uint8_t* data, std::size_t size) {
    static constexpr std::array<std::array<std::uint8_t, 2>, 15> kFormats = {{
        {0, 1}, {0, 2}, {0, 4}, {0, 8}, {0, 16}, {2, 8}, {2, 16}, {3, 1}, {3, 2}, {3, 4}, {3, 8}, {4, 8}, {4, 16}, {6, 8}, {6, 16},
    }};
    if (size < 4) return {};
    const std::uint32_t width = 1 + data[0] % 40, height = 1 + data[1] % 40;
    const auto& format = kFormats[data[2] % kFormats.size()];
    std::vector<std::uint8_t> header(13, 0);
    for (int index = 0; index < 4; ++index) {
        header[std::size_t(index)] = static_cast<std::uint8_t>(width >> (24 - 8 * index));
        header[std::size_t(index) + 4] = static_cast<std::uint8_t>(height >> (24 - 8 * index));
    }
    header[8] = format[1];
    header[9] = format[0];
    header[12] = data[3] & 1;
    std::vector<std::uint8_t> file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    appendChunk(file, "IHDR", header);
    if (format[0] == 3) {
        std::vector<std::uint8_t> palette(3u << format[1]);
        for (std::size_t index = 0; index < palette.size(); ++index) palette[index] = static_cast<std::uint8_t>(index * 37);
        appendChunk(file, "PLTE", palette);
        appendChunk(file, "tRNS", std::vector<std::uint8_t>{0, 128});
    } else if (format[0] == 0 && (data[3] & 2)) {
        appendChunk(file, "tRNS", std::vector<std::uint8_t>{0, 1});
    }
    const std::vector<std::uint8_t> stream = wm::png::zlibCompress(data + 4, size - 4);
    appendChunk(file, "IDAT", stream);
    appendChunk(file, "IEND", {});
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> file(data, data + size);
    if (wm::png::detectImageFormat(data, size) == wm::png::ImageFormat::Png) fixCrcs(file);
    else file = synthesise(data, size);
    wm::png::DecodedImage image;
    std::string error;
    const bool decoded = wm::png::decodePng(file.data(), file.size(), image, error);
    checkDecodeResult(decoded, image, error);
    if (decoded && image.rgba.size() <= 1 << 16) {
        const std::vector<std::uint8_t> written = wm::png::encodePng(image.width, image.height, image.rgba.data());
        wm::png::DecodedImage again;
        if (!wm::png::decodePng(written.data(), written.size(), again, error)) std::abort();
        if (again.width != image.width || again.height != image.height || again.rgba != image.rgba) std::abort();
    }
    return 0;
}
