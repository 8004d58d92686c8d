// The feeder threads and the mixer allocate nothing while they play: this program replaces the
// global operator new with one that counts, and checks that the count stands still while
// looping tracks are refilled many times over.
#include "audio_test_support.h"
#include "platform/sdl/sdl_mixer_internal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::uint64_t> allocations{0};
int* volatile keptAlive = nullptr;  // stops the compiler from eliding the probe's allocation
}

// The replacements pair malloc with free by design; GCC, seeing a replaced new inlined next to
// a replaced delete, mistakes them for a mismatched pair.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* pointer = std::malloc(size ? size : 1)) return pointer;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* pointer) noexcept { std::free(pointer); }
void operator delete[](void* pointer) noexcept { std::free(pointer); }
void operator delete(void* pointer, std::size_t) noexcept { std::free(pointer); }
void operator delete[](void* pointer, std::size_t) noexcept { std::free(pointer); }

namespace {

using namespace std::chrono_literals;
using namespace audiotest;

TEST(AudioAllocation, CountingWorks) {
    const std::uint64_t before = allocations.load();
    keptAlive = new int(5);
    delete keptAlive;
    EXPECT_EQ(allocations.load(), before + 1);
}

TEST(AudioAllocation, PlayingAllocatesNothing) {
    const auto path = workDirectory() / "out.raw";
    useDiskOutput(path);
    ASSERT_TRUE(wm_has_mixer());
    // One track at the device's rate (block copies), one at another (resampled), both shorter
    // than a buffer so that every refill wraps.
    const Samples first = numberedTrack(1500);
    const Samples second = constantTrack(700, 300, -300);
    AudioHandle a = OpenPCMTrack(first.data(), first.size(), 44100, 2);
    AudioHandle b = OpenPCMTrack(second.data(), second.size(), 32000, 2);
    ASSERT_TRUE(Play(a, 0, true));
    ASSERT_TRUE(Play(b, 0, true));
    std::this_thread::sleep_for(50ms);  // past start-up
    auto& statistics = korvel::audio_output::mixerStatistics();
    const std::uint64_t mixedBefore = statistics.framesMixed.load();
    const std::uint64_t before = allocations.load();
    std::uint64_t offsets = 0;
    for (int round = 0; round < 40; ++round) {  // 400 ms: about nine buffers of each track
        std::this_thread::sleep_for(10ms);
        offsets += GetCurrentOffset(a) + GetCurrentOffset(b);
    }
    const std::uint64_t during = allocations.load() - before;
    const std::uint64_t mixed = statistics.framesMixed.load() - mixedBefore;
    Close(a);
    Close(b);
    const Samples output = finishDiskOutput(path);
    EXPECT_EQ(during, 0u) << "allocations while playing";
    EXPECT_GT(offsets, 0u);
    EXPECT_GT(mixed, 4u * 2048) << "fewer than four buffers were played during the check";
    EXPECT_FALSE(isSilentFrom(output, 0));
}

}  // namespace
