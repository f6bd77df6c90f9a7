#include "support/rt_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <new>
#include <string>
#include <thread>

namespace {

// Storing into a volatile keeps the compiler from removing an allocation whose block nobody uses.
const void* volatile escaped = nullptr;
template <class T> T* escape(T* block) {
    escaped = block;
    return block;
}

struct alignas(64) Wide { char bytes[64]; };

void* posixAligned() {
    void* block = nullptr;
    return posix_memalign(&block, 64, 128) == 0 ? block : nullptr;
}

TEST(RtProbe, CountsEveryFormOfAllocationOnThisThread) {
    if (!rtprobe::available()) GTEST_SKIP() << "the sanitizer owns the allocator in this build";

    const struct { const char* what; void (*allocate)(); int64_t expected; } forms[] = {
        {"new", [] { delete escape(new int(1)); }, 1},
        {"new[]", [] { delete[] escape(new int[8]); }, 1},
        {"aligned new", [] { delete escape(new Wide); }, 1},
        {"nothrow new", [] { delete escape(new (std::nothrow) int(2)); }, 1},
        {"malloc, realloc", [] { std::free(escape(std::realloc(escape(std::malloc(32)), 4096))); }, 2},
        {"calloc", [] { std::free(escape(std::calloc(4, 8))); }, 1},
        {"aligned_alloc", [] { std::free(escape(std::aligned_alloc(64, 128))); }, 1},
        {"posix_memalign", [] { std::free(escape(posixAligned())); }, 1},
        {"string past its inline buffer", [] { escape(std::string("short").append(200, 'x').data()); }, 1},
    };
    // Counted inside the scope, checked after it.
    int64_t counted[std::size(forms)] = {};
    int64_t total = 0;
    {
        const rtprobe::Scope probe;
        for (size_t i = 0; i < std::size(forms); ++i) {
            const int64_t before = probe.threadAllocations();
            forms[i].allocate();
            counted[i] = probe.threadAllocations() - before;
        }
        total = probe.allocations();
    }
    for (size_t i = 0; i < std::size(forms); ++i) {
        EXPECT_EQ(counted[i], forms[i].expected) << forms[i].what;
        total -= counted[i];
    }
    EXPECT_EQ(total, 0) << "allocations() counts this thread's, and nothing else allocated meanwhile";
}

TEST(RtProbe, CountsLocksPerMutexAndAllocationsOfOtherThreads) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe cannot replace pthread_mutex_lock in this build";

    std::mutex allowed, foreign;
    std::atomic<bool> go{false}, done{false};
    // Started before the scope opens, so that creating the thread is not counted.
    std::thread worker([&] {
        while (!go.load()) std::this_thread::yield();
        {
            const std::lock_guard guard(foreign);
            std::free(escape(std::malloc(16)));
        }
        done = true;
    });

    int64_t all = 0, notAllowed = 0, notForeign = 0, allocations = 0, onThisThread = 0;
    {
        const rtprobe::Scope probe;
        go = true;
        while (!done.load()) std::this_thread::yield();
        for (int i = 0; i < 3; ++i) {
            const std::lock_guard guard(allowed);
        }
        if (allowed.try_lock()) allowed.unlock();
        all = probe.locks();
        notAllowed = probe.locksOtherThan(allowed.native_handle());
        notForeign = probe.locksOtherThan(foreign.native_handle());
        allocations = probe.allocations();
        onThisThread = probe.threadAllocations();
    }
    worker.join();

    EXPECT_EQ(all, 5) << "lock and try_lock both count, on every thread";
    EXPECT_EQ(notAllowed, 1);
    EXPECT_EQ(notForeign, 4);
    EXPECT_EQ(allocations, 1) << "the malloc on the other thread";
    EXPECT_EQ(onThisThread, 0) << "nothing was allocated on the scope's own thread";

    const rtprobe::Scope fresh;
    EXPECT_EQ(fresh.locksOtherThan(allowed.native_handle()), 0) << "a new scope starts from nothing";
}

}  // namespace
