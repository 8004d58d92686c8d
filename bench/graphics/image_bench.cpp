// Image operations timed on 960 × 544 pictures (the engine's usual back buffer): the opaque
// blit against a memcpy of the same bytes, the alpha blit against pixman's OVER composite, and
// the upscale, dither and block smoothing filters in megapixels per second with 1 and 2 threads.
// Prints medians and ratios; never fails on timing.
#include "graphics/mirel_image.h"
#include "graphics/mirel_internal.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#if defined(KORVEL_HAVE_PIXMAN)
#include <pixman.h>
#endif

namespace {

using quillfen::MirelImage;
using Clock = std::chrono::steady_clock;

constexpr int kWidth = 960, kHeight = 544;
constexpr int kRuns = 31;

std::unique_ptr<MirelImage> noiseImage(int width, int height, std::uint32_t seed, bool opaque) {
    auto image = std::make_unique<MirelImage>();
    image->width = width;
    image->height = height;
    image->pixels = quillfen::allocatePixels(width, height);
    std::uint32_t state = seed;
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(width) * height * 4; ++offset) {
        state = state * 1103515245u + 12345u;
        image->pixels[offset] = static_cast<std::uint8_t>(state >> 16);
        if (opaque && offset % 4 == 3) image->pixels[offset] = 255;
    }
    return image;
}

// Median seconds of kRuns calls of `run`, each after an untimed `prepare`.
double medianSeconds(const std::function<void()>& run, const std::function<void()>& prepare = [] {}) {
    std::vector<double> times;
    for (int index = 0; index < kRuns; ++index) {
        prepare();
        const auto start = Clock::now();
        run();
        times.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
    std::nth_element(times.begin(), times.begin() + kRuns / 2, times.end());
    return times[kRuns / 2];
}

// Median seconds of two functions timed in alternation, so that a busy machine slows both alike.
std::pair<double, double> alternatingMedians(const std::function<void()>& first, const std::function<void()>& second) {
    std::vector<double> firstTimes, secondTimes;
    for (int index = 0; index < kRuns; ++index) {
        for (auto* run : {&first, &second}) {
            const auto start = Clock::now();
            (*run)();
            (run == &first ? firstTimes : secondTimes).push_back(std::chrono::duration<double>(Clock::now() - start).count());
        }
    }
    for (auto* times : {&firstTimes, &secondTimes}) std::nth_element(times->begin(), times->begin() + kRuns / 2, times->end());
    return {firstTimes[kRuns / 2], secondTimes[kRuns / 2]};
}

void report(const char* name, double seconds, double pixels) {
    std::printf("  %-44s %9.1f us  %8.1f Mpixel/s\n", name, seconds * 1e6, pixels / seconds / 1e6);
}

void benchBlits() {
    auto target = noiseImage(kWidth, kHeight, 1, true);
    auto opaque = noiseImage(kWidth, kHeight, 2, true);
    auto translucent = noiseImage(kWidth, kHeight, 3, false);
    const double pixels = double{kWidth} * kHeight;
    const std::size_t bytes = static_cast<std::size_t>(kWidth) * kHeight * 4;

    std::printf("blits, %d x %d onto %d x %d:\n", kWidth, kHeight, kWidth, kHeight);
    std::vector<std::uint8_t> copyTarget(bytes);
    auto copyBytes = [&] { std::memcpy(copyTarget.data(), opaque->pixels.get(), bytes); };
    for (int threads : {1, 2, 6}) {
        quillfen::setMirelThreadCount(threads);
        const auto [memcpySeconds, seconds] =
            alternatingMedians(copyBytes, [&] { blitImage(*target, *opaque, 0, 0, quillfen::Blend::Copy, 1, 0); });
        char name[64];
        std::snprintf(name, sizeof name, "opaque blit, %d thread%s", threads, threads == 1 ? "" : "s");
        report(name, seconds, pixels);
        report("  memcpy of the same bytes, alternating", memcpySeconds, pixels);
        std::printf("    ratio to memcpy: %.2f\n", seconds / memcpySeconds);
    }
    // What the thread split costs by itself: starting and joining the workers of a call whose
    // rows do nothing. Against the memcpy above this is the floor of a threaded blit.
    for (int threads : {2, 6}) {
        const double seconds = medianSeconds([&] {
            quillfen::mirel_detail::forEachRowRange(kHeight, threads, quillfen::mirel_detail::RowSplit::Claimed, [](int, int) {});
        });
        char name[64];
        std::snprintf(name, sizeof name, "start and join %d threads, no work", threads);
        std::printf("  %-44s %9.1f us\n", name, seconds * 1e6);
    }

    auto alphaBlit = [&] { blitImage(*target, *translucent, 0, 0, quillfen::Blend::Alpha, 1, 0); };
#if defined(KORVEL_HAVE_PIXMAN)
    // pixman composites premultiplied pixels on one thread; the work per pixel is comparable.
    pixman_image_t* source = pixman_image_create_bits(PIXMAN_a8b8g8r8, kWidth, kHeight,
                                                      reinterpret_cast<std::uint32_t*>(translucent->pixels.get()), kWidth * 4);
    std::vector<std::uint8_t> pixmanTarget(target->pixels.get(), target->pixels.get() + bytes);
    pixman_image_t* destination = pixman_image_create_bits(PIXMAN_a8b8g8r8, kWidth, kHeight,
                                                           reinterpret_cast<std::uint32_t*>(pixmanTarget.data()), kWidth * 4);
    auto pixmanOver = [&] { pixman_image_composite32(PIXMAN_OP_OVER, source, nullptr, destination, 0, 0, 0, 0, 0, 0, kWidth, kHeight); };
#endif
    for (int threads : {1, 2, 6}) {
        quillfen::setMirelThreadCount(threads);
        char name[64];
        std::snprintf(name, sizeof name, "alpha blit, %d thread%s", threads, threads == 1 ? "" : "s");
#if defined(KORVEL_HAVE_PIXMAN)
        const auto [seconds, pixmanSeconds] = alternatingMedians(alphaBlit, pixmanOver);
        report(name, seconds, pixels);
        report("  pixman OVER composite (1 thread), alternating", pixmanSeconds, pixels);
        std::printf("    ratio to pixman: %.2f\n", seconds / pixmanSeconds);
#else
        report(name, medianSeconds(alphaBlit), pixels);
#endif
    }
#if defined(KORVEL_HAVE_PIXMAN)
    pixman_image_unref(source);
    pixman_image_unref(destination);
#else
    std::printf("  pixman not found (libpixman-1-dev): the OVER composite comparison is skipped\n");
#endif

    // The row kernels alone, one thread, whole picture: what the vector paths buy.
    {
        using quillfen::mirel_detail::BlendPath;
        auto scratch = noiseImage(kWidth, kHeight, 1, true);
        for (auto [path, label] : {std::pair{BlendPath::Best, "best for this processor"}, std::pair{BlendPath::Sse2, "SSE2"},
                                   std::pair{BlendPath::Scalar, "one pixel at a time"}}) {
            const double seconds = medianSeconds([&, path = path] {
                quillfen::mirel_detail::blendRow(scratch->pixels.get(), translucent->pixels.get(), static_cast<std::size_t>(pixels), path);
            });
            char name[64];
            std::snprintf(name, sizeof name, "blend rows only, %s", label);
            report(name, seconds, pixels);
        }
    }

    quillfen::setMirelThreadCount(1);
    auto small = noiseImage(256, 256, 4, false);
    const double turned = medianSeconds([&] { blitImage(*target, *small, 300, 100, quillfen::Blend::Alpha, 1.5, 30); });
    report("256 x 256 alpha blit at scale 1.5, turned 30", turned, 256.0 * 256 * 1.5 * 1.5);
}

void benchFilters() {
    std::printf("filters on %d x %d:\n", kWidth, kHeight);
    const auto original = noiseImage(kWidth, kHeight, 5, false);
    const std::size_t bytes = static_cast<std::size_t>(kWidth) * kHeight * 4;
    MirelImage work;
    // Every timed run starts from the same picture at the same size.
    auto reset = [&] {
        work.width = kWidth;
        work.height = kHeight;
        work.pixels = quillfen::allocatePixels(kWidth, kHeight);
        std::memcpy(work.pixels.get(), original->pixels.get(), bytes);
    };
    struct Filter {
        const char* name;
        double pixels;  // destination pixels written
        std::function<void()> run;
    };
    const Filter filters[] = {
        {"bilinear upscale x2", 4.0 * kWidth * kHeight, [&] { quillfen::upscaleMirelImage(&work, 2.0); }},
        {"dither, amount 8", double{kWidth} * kHeight, [&] { quillfen::ditherImage(&work, 8, false); }},
        {"block smoothing, block 4", double{kWidth} * kHeight, [&] { quillfen::bilinearInPlace(&work); }},
    };
    for (const Filter& filter : filters) {
        double secondsByThreads[2] = {};
        for (int threads : {1, 2}) {
            quillfen::setMirelThreadCount(threads);
            const double seconds = medianSeconds(filter.run, reset);
            secondsByThreads[threads - 1] = seconds;
            char name[64];
            std::snprintf(name, sizeof name, "%s, %d thread%s", filter.name, threads, threads == 1 ? "" : "s");
            report(name, seconds, filter.pixels);
        }
        std::printf("    speed-up with 2 threads: %.2f\n", secondsByThreads[0] / secondsByThreads[1]);
    }
}

}  // namespace

int main() {
    std::printf("medians of %d runs\n", kRuns);
    benchBlits();
    benchFilters();
    return 0;
}
