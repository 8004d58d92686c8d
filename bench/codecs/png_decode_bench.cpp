// Decoding a 1920x1080 photograph-like PNG: our reader against libpng's, on the same file in
// the same run.
//
//   png_decode_bench [RUNS]
//
// The picture is made here, deterministically: smooth colour gradients with waves and a little
// noise, as a photograph has. With libpng present it writes the file (RGB, its default
// adaptive filters and zlib level 6, like most tools); otherwise our writer does and the peer is
// skipped. Both decodes produce 8-bit RGBA and must agree before any time counts. Prints the
// median of each and their ratio; timing never fails anything.
#include "platform/image_codecs.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#if KORVEL_HAVE_LIBPNG
#include <png.h>
#endif

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

std::vector<std::uint8_t> photographLikeRgb() {
    std::mt19937 random(12345);
    std::vector<std::uint8_t> rgb(std::size_t(kWidth) * kHeight * 3);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const double u = double(x) / kWidth, v = double(y) / kHeight;
            const double base[3] = {90 + 120 * u + 30 * std::sin(7 * v + 3 * u), 60 + 100 * v + 25 * std::sin(11 * u),
                                    140 - 80 * u * v + 35 * std::cos(5 * u + 9 * v)};
            for (int channel = 0; channel < 3; ++channel) {
                const int noise = static_cast<int>(random() % 7) - 3;
                rgb[(std::size_t(y) * kWidth + x) * 3 + channel] =
                    static_cast<std::uint8_t>(std::clamp(static_cast<int>(base[channel]) + noise, 0, 255));
            }
        }
    return rgb;
}

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

template <typename Work>
double millisecondsFor(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

#if KORVEL_HAVE_LIBPNG
std::vector<std::uint8_t> writeWithLibpng(const std::vector<std::uint8_t>& rgb) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = kWidth;
    image.height = kHeight;
    image.format = PNG_FORMAT_RGB;
    png_alloc_size_t size = 0;
    if (!png_image_write_to_memory(&image, nullptr, &size, 0, rgb.data(), 0, nullptr)) return {};
    std::vector<std::uint8_t> file(size);
    if (!png_image_write_to_memory(&image, file.data(), &size, 0, rgb.data(), 0, nullptr)) return {};
    file.resize(size);
    return file;
}

bool decodeWithLibpng(const std::vector<std::uint8_t>& file, std::vector<std::uint8_t>& rgba) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, file.data(), file.size())) return false;
    image.format = PNG_FORMAT_RGBA;
    rgba.resize(PNG_IMAGE_SIZE(image));
    return png_image_finish_read(&image, nullptr, rgba.data(), 0, nullptr) != 0;
}
#endif

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 15;
    const std::vector<std::uint8_t> rgb = photographLikeRgb();
    std::vector<std::uint8_t> expected(std::size_t(kWidth) * kHeight * 4);
    for (std::size_t pixel = 0; pixel < std::size_t(kWidth) * kHeight; ++pixel) {
        std::copy_n(&rgb[pixel * 3], 3, &expected[pixel * 4]);
        expected[pixel * 4 + 3] = 255;
    }
#if KORVEL_HAVE_LIBPNG
    const std::vector<std::uint8_t> file = writeWithLibpng(rgb);
    const char* writer = "libpng (RGB, adaptive filters, zlib level 6)";
#else
    const std::vector<std::uint8_t> file = wm::png::encodePng(kWidth, kHeight, expected.data());
    const char* writer = "our writer (RGBA)";
#endif
    if (file.empty()) {
        std::fprintf(stderr, "png_decode_bench: could not write the test picture\n");
        return 1;
    }
    std::printf("%dx%d picture, %zu bytes of PNG written by %s; %d runs each\n", kWidth, kHeight, file.size(), writer, runs);

    std::vector<double> ours, peer;
    for (int run = 0; run < runs; ++run) {
        wm::png::DecodedImage image;
        std::string error;
        bool decoded = false;
        const double elapsed = millisecondsFor([&] { decoded = wm::png::decodePng(file.data(), file.size(), image, error); });
        if (!decoded || image.rgba != expected) {
            std::fprintf(stderr, "png_decode_bench: our decode is wrong: %s\n", error.c_str());
            return 1;
        }
        ours.push_back(elapsed);
#if KORVEL_HAVE_LIBPNG
        std::vector<std::uint8_t> rgba;
        const double peerElapsed = millisecondsFor([&] { decoded = decodeWithLibpng(file, rgba); });
        if (!decoded || rgba != expected) {
            std::fprintf(stderr, "png_decode_bench: libpng's decode differs\n");
            return 1;
        }
        peer.push_back(peerElapsed);
#endif
    }
    std::printf("ours:   median %.2f ms\n", medianOf(ours));
    if (peer.empty()) {
        std::printf("libpng: skipped (libpng-dev was not found when this was built)\n");
        return 0;
    }
    std::printf("libpng: median %.2f ms\n", medianOf(peer));
    std::printf("ratio ours/libpng: %.2f (goal: at most 1.5)\n", medianOf(ours) / medianOf(peer));
    return 0;
}
