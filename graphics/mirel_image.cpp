// The image record's allocation, the live-image registry, the shared settings, the pixel
// primitives and the row-splitting helper every parallel operation uses.
#include "graphics/mirel_image.h"

#include "graphics/mirel_internal.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

namespace quillfen {

namespace {

// The registry owns the live images; the map's key is the address scripts hold. All bindings
// run on the script thread, but the lock keeps tests and future worker use honest.
struct ImageRegistry {
    std::mutex lock;
    std::unordered_map<const void*, std::unique_ptr<MirelImage>> images;
};

ImageRegistry& registry() {
    static ImageRegistry instance;  // constructed on first use, so static initialisers may create images
    return instance;
}

std::atomic<int> g_threadCount{6};
std::atomic<int> g_accuracy{4};

// Where getPixel points when there is no pixel. Worker threads may read it at the same time,
// so it is never written.
std::uint8_t g_fallbackPixel[4] = {0, 0, 0, 0};

bool isValid(const MirelImage& image) {
    if (image.width < 0 || image.height < 0) return false;
    if (image.width == 0 && image.height == 0) return true;
    return image.width > 0 && image.height > 0 && image.pixels != nullptr;
}

}  // namespace

std::unique_ptr<std::uint8_t[]> allocatePixels(std::int64_t width, std::int64_t height) {
    if (width <= 0 || height <= 0) return nullptr;
    if (width > std::numeric_limits<std::int32_t>::max() || height > std::numeric_limits<std::int32_t>::max()) return nullptr;
    const std::uint64_t bytes = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) * 4u;
    if (bytes > kMaxImageBytes || bytes > std::numeric_limits<std::size_t>::max()) return nullptr;
    return std::unique_ptr<std::uint8_t[]>(new (std::nothrow) std::uint8_t[static_cast<std::size_t>(bytes)]());
}

MirelImage* registerImage(std::unique_ptr<MirelImage> image) {
    if (!image) return nullptr;
    MirelImage* address = image.get();
    ImageRegistry& live = registry();
    std::lock_guard guard(live.lock);
    live.images.emplace(address, std::move(image));
    return address;
}

bool isLiveImage(const void* pointer) {
    if (!pointer) return false;
    ImageRegistry& live = registry();
    std::lock_guard guard(live.lock);
    return live.images.find(pointer) != live.images.end();
}

bool killImage(const void* pointer) {
    std::unique_ptr<MirelImage> doomed;  // freed after the lock is released
    ImageRegistry& live = registry();
    std::lock_guard guard(live.lock);
    auto found = live.images.find(pointer);
    if (found == live.images.end()) return false;
    doomed = std::move(found->second);
    live.images.erase(found);
    return true;
}

std::size_t liveImageCount() {
    ImageRegistry& live = registry();
    std::lock_guard guard(live.lock);
    return live.images.size();
}

bool cleanImage(const void* pointer) {
    ImageRegistry& live = registry();
    std::lock_guard guard(live.lock);
    auto found = live.images.find(pointer);
    if (found == live.images.end()) return false;
    MirelImage& image = *found->second;
    if (isValid(image)) return true;
    image.width = 0;
    image.height = 0;
    image.pixels.reset();
    return false;
}

int mirelThreadCount() { return g_threadCount.load(std::memory_order_relaxed); }
void setMirelThreadCount(int count) { g_threadCount.store(count, std::memory_order_relaxed); }
int mirelAccuracy() { return g_accuracy.load(std::memory_order_relaxed); }
void setMirelAccuracy(int accuracy) { g_accuracy.store(accuracy, std::memory_order_relaxed); }

void setPixel(MirelImage* image, int x, int y, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a) {
    if (!image || !image->pixels || x < 0 || y < 0 || x >= image->width || y >= image->height) return;
    std::uint8_t* pixel = image->pixels.get() + pixelOffset(*image, x, y);
    pixel[0] = r;
    pixel[1] = g;
    pixel[2] = b;
    pixel[3] = a;
}

std::uint8_t* getPixel(MirelImage* image, int x, int y) {
    if (!image || !image->pixels || x < 0 || y < 0 || x >= image->width || y >= image->height) return g_fallbackPixel;
    return image->pixels.get() + pixelOffset(*image, x, y);
}

MirelImage* createSolidColourImage(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a) {
    width = std::max(width, 1);
    height = std::max(height, 1);
    auto image = std::make_unique<MirelImage>();
    image->pixels = allocatePixels(width, height);
    if (!image->pixels) return nullptr;
    image->width = width;
    image->height = height;
    // Fill the first row pixel by pixel, then copy it down: a row copy is far faster than
    // per-pixel stores for wide images.
    const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
    std::uint8_t* first = image->pixels.get();
    for (std::size_t offset = 0; offset < rowBytes; offset += 4) {
        first[offset] = r;
        first[offset + 1] = g;
        first[offset + 2] = b;
        first[offset + 3] = a;
    }
    for (int row = 1; row < height; ++row) std::memcpy(first + rowBytes * static_cast<std::size_t>(row), first, rowBytes);
    return registerImage(std::move(image));
}

namespace mirel_detail {

int truncateToInt(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483647.0) return std::numeric_limits<int>::max();
    if (value <= -2147483648.0) return std::numeric_limits<int>::min();
    return static_cast<int>(value);
}

int threadsForRows(int rows) {
    return std::max(1, std::min(mirelThreadCount(), rows));
}

void forEachRowRange(int rows, int threads, RowSplit split, const std::function<void(int, int)>& work) {
    if (rows <= 0) return;
    threads = std::min(threads, rows);
    if (threads < 2) {
        work(0, rows);
        return;
    }
    std::vector<std::pair<int, int>> ranges;
    ranges.reserve(static_cast<std::size_t>(threads));
    if (split == RowSplit::Chunked) {
        const int chunk = rows / threads + (rows % threads != 0 ? 1 : 0);
        for (int index = 0; index < threads; ++index) {
            const int first = std::min(rows, index * chunk);
            const int end = index == threads - 1 ? rows : std::min(rows, first + chunk);
            if (first < end) ranges.emplace_back(first, end);
        }
    } else {
        const int base = rows / threads, extra = rows % threads;
        int first = 0;
        for (int index = 0; index < threads; ++index) {
            const int end = first + base + (index < extra ? 1 : 0);
            ranges.emplace_back(first, end);
            first = end;
        }
    }
    std::vector<std::thread> workers;
    workers.reserve(ranges.size());
    for (std::size_t index = 1; index < ranges.size(); ++index) {
        const auto [first, end] = ranges[index];
        try {
            workers.emplace_back(work, first, end);
        } catch (const std::system_error&) {
            work(first, end);  // no thread to be had: do this range here
        }
    }
    work(ranges[0].first, ranges[0].second);
    for (std::thread& worker : workers) worker.join();
}

}  // namespace mirel_detail

}  // namespace quillfen
