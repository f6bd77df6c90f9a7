#include "support/rt_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <thread>

namespace {

// Storing into a volatile keeps the compiler from removing an allocation whose block nobody uses.
const void* volatile escaped = nullptr;
void escape(const void* block) {
    escaped = block;
}

struct alignas(64) Wide {
    char bytes[64];
};

TEST(RtProbe, CountsEveryFormOfAllocationOnThisThread) {
    if (!rtprobe::available()) GTEST_SKIP() << "the sanitizer owns the allocator in this build";

    // Each step runs in the open scope and must add exactly one allocation.
    int64_t steps[9] = {};
    int64_t total = 0;
    int64_t onThisThread = 0;
    int alignedResult = -1;
    {
        const rtprobe::Scope probe;
        int step = 0;
        const auto mark = [&] { steps[step++] = probe.threadAllocations(); };

        int* number = new int(1);
        escape(number);
        delete number;
        mark();
        int* numbers = new int[8];
        escape(numbers);
        delete[] numbers;
        mark();
        Wide* wide = new Wide;
        escape(wide);
        delete wide;
        mark();
        void* block = std::malloc(32);
        escape(block);
        mark();
        block = std::realloc(block, 4096);
        escape(block);
        mark();
        std::free(block);
        block = std::calloc(4, 8);
        escape(block);
        std::free(block);
        mark();
        block = std::aligned_alloc(64, 128);
        escape(block);
        std::free(block);
        mark();
        alignedResult = posix_memalign(&block, 64, 128);
        escape(block);
        std::free(block);
        mark();
        int* spare = new (std::nothrow) int(2);
        escape(spare);
        delete spare;
        mark();
        total = probe.allocations();
        onThisThread = probe.threadAllocations();
    }
    EXPECT_EQ(alignedResult, 0);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(steps[i], i + 1) << "step " << i;
    EXPECT_EQ(onThisThread, 9);
    EXPECT_GE(total, 9);
}

TEST(RtProbe, CountsHiddenAllocationsAndNothingInPlainArithmetic) {
    if (!rtprobe::available()) GTEST_SKIP() << "the sanitizer owns the allocator in this build";

    std::string text = "short";
    int64_t growth = 0;
    {
        const rtprobe::Scope probe;
        text.append(200, 'x');
        escape(text.data());
        growth = probe.threadAllocations();
    }
    EXPECT_GE(growth, 1) << "a string that outgrows its inline buffer allocates";

    int64_t allocations = -1;
    int64_t locks = -1;
    volatile uint64_t seed = 12345;
    uint64_t state = seed;
    {
        const rtprobe::Scope probe;
        for (int i = 0; i < 100'000; ++i)
            state = state * 6364136223846793005u + 1442695040888963407u;
        allocations = probe.threadAllocations();
        locks = probe.locks();
    }
    seed = state;
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(locks, 0);
}

TEST(RtProbe, CountsLocksAndAllocationsOfOtherThreads) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe cannot replace pthread_mutex_lock in this build";

    std::mutex shared;
    std::atomic<bool> go{false};
    std::atomic<bool> done{false};
    // Started before the scope opens, so that creating the thread is not counted.
    std::thread other([&] {
        while (!go.load())
            std::this_thread::yield();
        {
            const std::lock_guard guard(shared);
            void* block = std::malloc(16);
            escape(block);
            std::free(block);
        }
        done = true;
    });

    int64_t locks = 0;
    int64_t foreign = 0;
    int64_t allocations = 0;
    int64_t onThisThread = 0;
    {
        const rtprobe::Scope probe;
        go = true;
        while (!done.load())
            std::this_thread::yield();
        locks = probe.locks();
        foreign = probe.locksOtherThan(shared.native_handle());
        allocations = probe.allocations();
        onThisThread = probe.threadAllocations();
    }
    other.join();

    EXPECT_EQ(locks, 1) << "the lock taken on the other thread";
    EXPECT_EQ(foreign, 0);
    EXPECT_EQ(allocations, 1) << "the malloc on the other thread";
    EXPECT_EQ(onThisThread, 0) << "nothing was allocated on the scope's own thread";
}

TEST(RtProbe, LocksOtherThanLeavesOutOnlyTheAllowedMutex) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe cannot replace pthread_mutex_lock in this build";

    std::mutex allowed;
    std::mutex other;
    int64_t all = 0;
    int64_t notAllowed = 0;
    int64_t notOther = 0;
    int64_t notNull = 0;
    {
        const rtprobe::Scope probe;
        for (int i = 0; i < 3; ++i) {
            const std::lock_guard guard(allowed);
        }
        for (int i = 0; i < 2; ++i) {
            const std::lock_guard guard(other);
        }
        if (allowed.try_lock()) allowed.unlock();
        all = probe.locks();
        notAllowed = probe.locksOtherThan(allowed.native_handle());
        notOther = probe.locksOtherThan(other.native_handle());
        notNull = probe.locksOtherThan(nullptr);
    }
    EXPECT_EQ(all, 6) << "lock and try_lock both count";
    EXPECT_EQ(notAllowed, 2);
    EXPECT_EQ(notOther, 4);
    EXPECT_EQ(notNull, 6);

    // A new scope starts from nothing.
    const rtprobe::Scope fresh;
    EXPECT_EQ(fresh.locksOtherThan(other.native_handle()), 0);
}

}  // namespace
