// The image record's allocation, the live-image registry, the shared settings, the pixel
// primitives and the row-splitting helper every parallel operation uses.
#include "graphics/mirel_image.h"

#include "graphics/mirel_internal.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#if !defined(_WIN32) && (defined(__unix__) || defined(__APPLE__))
#define KORVEL_POSIX_WORKERS 1
#include <pthread.h>
#include <sched.h>
#else
#define KORVEL_POSIX_WORKERS 0
#endif

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

namespace {

// One call's row work, shared by the threads that do it. Every participant takes the next
// unclaimed range from `nextRange` until none is left, so which thread does a range does not
// matter and a thread that starts after the work is gone returns at once.
struct RowJob {
    RowWork work = nullptr;
    void* context = nullptr;
    RowSplit split = RowSplit::Claimed;
    std::int64_t rows = 0;
    std::int64_t threads = 0;
    std::int64_t rangeCount = 0;
    std::int64_t claimRows = 1;  // rows per range for RowSplit::Claimed
    std::atomic<std::int64_t> nextRange{0};
};

// Rows [first, end) of range `index`: the per-thread ranges of the fixed splits, or the small
// runs of a claimed split.
std::pair<std::int64_t, std::int64_t> rangeOf(const RowJob& job, std::int64_t index) {
    switch (job.split) {
    case RowSplit::Chunked: {
        const std::int64_t chunk = (job.rows + job.threads - 1) / job.threads;
        const std::int64_t first = std::min(job.rows, index * chunk);
        return {first, index == job.threads - 1 ? job.rows : std::min(job.rows, first + chunk)};
    }
    case RowSplit::Balanced: {
        const std::int64_t base = job.rows / job.threads, extra = job.rows % job.threads;
        const std::int64_t first = index * base + std::min(index, extra);
        return {first, first + base + (index < extra ? 1 : 0)};
    }
    case RowSplit::Claimed:
        break;
    }
    const std::int64_t first = index * job.claimRows;
    return {first, std::min(job.rows, first + job.claimRows)};
}

void drainRows(RowJob& job) {
    for (;;) {
        const std::int64_t index = job.nextRange.fetch_add(1, std::memory_order_relaxed);
        if (index >= job.rangeCount) return;
        const auto [first, end] = rangeOf(job, index);
        if (first < end) job.work(job.context, static_cast<int>(first), static_cast<int>(end));
    }
}

// The threads of one call: the calling thread starts the workers one after another, takes rows
// itself, and joins them. (Starting them as a tree, each worker starting two more, was tried:
// on a two-core machine concurrent thread starts contend in the kernel and the whole took
// longer, with occasional stalls of a scheduler tick.)
struct Workers {
#if KORVEL_POSIX_WORKERS
    pthread_t* handles = nullptr;
#else
    std::thread* handles = nullptr;
#endif
    int started = 0;
};

#if KORVEL_POSIX_WORKERS
// Workers run only row loops; a small explicit stack keeps their footprint low (sanitizer builds
// need more room per frame).
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kWorkerStackBytes = 1024 * 1024;
#else
constexpr std::size_t kWorkerStackBytes = 256 * 1024;
#endif
#endif

#if KORVEL_POSIX_WORKERS
void* workerEntry(void* job) {
    drainRows(*static_cast<RowJob*>(job));
    return nullptr;
}

// Starts up to `count` workers on `job`, stopping at the first the system refuses.
void startWorkers(Workers& workers, int count, RowJob& job) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return;
    pthread_attr_setstacksize(&attributes, kWorkerStackBytes);
    while (workers.started < count && pthread_create(&workers.handles[workers.started], &attributes, workerEntry, &job) == 0)
        ++workers.started;
    pthread_attr_destroy(&attributes);
}

void joinWorkers(Workers& workers) {
#if defined(__GLIBC__)
    // A worker ends a few microseconds after its last row. Blocking in pthread_join puts this
    // thread to sleep and its wake-up costs more than that on a virtual machine, so poll (giving
    // the core away each time, in case a worker waits for it) for a short while first.
    const auto giveUpAt = std::chrono::steady_clock::now() + std::chrono::microseconds(200);
    for (int index = 0; index < workers.started; ++index) {
        while (pthread_tryjoin_np(workers.handles[index], nullptr) != 0) {
            if (std::chrono::steady_clock::now() > giveUpAt) {
                pthread_join(workers.handles[index], nullptr);
                break;
            }
            sched_yield();
        }
    }
#else
    for (int index = 0; index < workers.started; ++index) pthread_join(workers.handles[index], nullptr);
#endif
}
#else
void startWorkers(Workers& workers, int count, RowJob& job) {
    try {
        for (; workers.started < count; ++workers.started) workers.handles[workers.started] = std::thread(drainRows, std::ref(job));
    } catch (const std::system_error&) {
    }
}

void joinWorkers(Workers& workers) {
    for (int index = 0; index < workers.started; ++index) workers.handles[index].join();
}
#endif

}  // namespace

void runRowRanges(int rows, int threads, RowSplit split, RowWork work, void* context) {
    if (rows <= 0) return;
    threads = std::min(threads, rows);
    if (threads < 2) {
        work(context, 0, rows);
        return;
    }
    RowJob job;
    job.work = work;
    job.context = context;
    job.split = split;
    job.rows = rows;
    job.threads = threads;
    job.rangeCount = threads;
    if (split == RowSplit::Claimed) {
        // About four runs per thread: enough to even out threads that start late or share a
        // core, few enough that claiming costs nothing next to a run's work.
        job.claimRows = std::max<std::int64_t>(1, rows / (std::int64_t{threads} * 4));
        job.rangeCount = (job.rows + job.claimRows - 1) / job.claimRows;
    }
    // The usual thread settings need no allocation: their handles live on this stack.
    constexpr int kInlineHandles = 16;
    using Handle = std::remove_pointer_t<decltype(Workers::handles)>;
    Handle inlineHandles[kInlineHandles] = {};
    std::unique_ptr<Handle[]> extraHandles;
    Workers workers;
    workers.handles = inlineHandles;
    if (threads - 1 > kInlineHandles) {
        extraHandles = std::make_unique<Handle[]>(static_cast<std::size_t>(threads - 1));
        workers.handles = extraHandles.get();
    }
    // A refused thread is no loss: the threads that did start, and this one, take its rows.
    startWorkers(workers, threads - 1, job);
    drainRows(job);
    joinWorkers(workers);
}

}  // namespace mirel_detail

}  // namespace quillfen
