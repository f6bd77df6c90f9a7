// Linux backend of the event and the critical section.

#include "platform/platform.h"

#include <linux/futex.h>
#include <new>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace platform {

namespace {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free,
              "the futex word is the atomic itself");

constexpr uint32_t signalled = 1;
constexpr uint32_t oneWaiter = 2;

uint32_t* futexWord(std::atomic<uint32_t>& state) {
    return reinterpret_cast<uint32_t*>(&state);
}

// Sleeps while the word still holds `expected`; returns early on a wake, a change or a signal.
void futexWait(std::atomic<uint32_t>& state, uint32_t expected, const timespec* relativeTimeout) {
    syscall(SYS_futex, futexWord(state), FUTEX_WAIT_PRIVATE, expected, relativeTimeout, nullptr, 0);
}

void futexWakeOne(std::atomic<uint32_t>& state) {
    syscall(SYS_futex, futexWord(state), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

constexpr int64_t nanosPerSecond = 1'000'000'000;

int64_t monotonicNanos() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * nanosPerSecond + now.tv_nsec;
}

}  // namespace

// The signal publishes what the signaller wrote before it (release); the wait that consumes it
// acquires. Every change of the word is a read-modify-write, so a signal that finds the event already
// signalled still belongs to the release sequence that the consumer reads.
void Event::signal() {
    const uint32_t before = state_.fetch_or(signalled, std::memory_order_release);
    // Only a fresh signal wakes a sleeper: for an earlier one a waiter was woken already or finds the bit
    // on its way in, and with no waiter counted the next wait finds it.
    if ((before & signalled) == 0 && before >= oneWaiter) futexWakeOne(state_);
}

bool Event::wait(int32_t timeoutMs) {
    uint32_t state = state_.load(std::memory_order_relaxed);
    while (state & signalled) {
        if (state_.compare_exchange_weak(state, state & ~signalled, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return true;
        }
    }
    if (timeoutMs == 0) return false;

    const bool limited = timeoutMs > 0;
    const int64_t deadline = limited ? monotonicNanos() + int64_t{timeoutMs} * 1'000'000 : 0;

    // From here on this thread is counted as a waiter, so that a signal wakes it.
    state = state_.fetch_add(oneWaiter, std::memory_order_relaxed) + oneWaiter;
    for (;;) {
        if (state & signalled) {
            if (state_.compare_exchange_weak(state, (state & ~signalled) - oneWaiter,
                                             std::memory_order_acquire, std::memory_order_relaxed)) {
                return true;
            }
            continue;
        }
        timespec remaining{};
        if (limited) {
            const int64_t left = deadline - monotonicNanos();
            if (left <= 0) {
                if (state_.compare_exchange_weak(state, state - oneWaiter, std::memory_order_relaxed))
                    return false;
                continue;
            }
            remaining.tv_sec = static_cast<time_t>(left / nanosPerSecond);
            remaining.tv_nsec = static_cast<long>(left % nanosPerSecond);
        }
        // The kernel compares the word with `state` before sleeping: a signal that came in between
        // changed it, and the call returns at once.
        futexWait(state_, state, limited ? &remaining : nullptr);
        state = state_.load(std::memory_order_relaxed);
    }
}

// --- CriticalSection ---

namespace {

pthread_mutex_t* mutexIn(unsigned char* storage) {
    return std::launder(reinterpret_cast<pthread_mutex_t*>(storage));
}

}  // namespace

CriticalSection::CriticalSection() {
    static_assert(sizeof(pthread_mutex_t) <= sizeof storage_ && alignof(pthread_mutex_t) <= 8,
                  "storage_ holds a pthread_mutex_t");
    pthread_mutex_init(new (storage_) pthread_mutex_t, nullptr);
}

CriticalSection::~CriticalSection() {
    pthread_mutex_destroy(mutexIn(storage_));
}

void CriticalSection::enter() {
    pthread_mutex_lock(mutexIn(storage_));
}

void CriticalSection::leave() {
    pthread_mutex_unlock(mutexIn(storage_));
}

const void* CriticalSection::identity() const {
    return storage_;
}

}  // namespace platform
