#include "engine/cycle_guard.h"

#include "platform/platform.h"

namespace {

ThreadMark& currentMark() {
    thread_local ThreadMark mark;
    return mark;
}

// Longest chain of waiting threads that is followed; longer chains cannot exist with 129 threads at most.
constexpr int maxChain = 256;

}  // namespace

bool CycleGuard::waitWouldDeadlock(const ThreadMark* self) const {
    const CycleGuard* guard = this;
    for (int step = 0; step < maxChain && guard; ++step) {
        const ThreadMark* holder = guard->holder_.load(std::memory_order_acquire);
        if (!holder) return false;
        if (holder == self) return true;
        guard = holder->waitingFor.load(std::memory_order_acquire);
    }
    return false;
}

CycleGuard::Entry CycleGuard::enter() {
    if (done_.load(std::memory_order_acquire)) return Entry::skip;
    ThreadMark* self = &currentMark();
    ThreadMark* expected = nullptr;
    if (holder_.compare_exchange_strong(expected, self, std::memory_order_acquire, std::memory_order_relaxed)) {
        if (done_.load(std::memory_order_acquire)) {
            holder_.store(nullptr, std::memory_order_release);
            return Entry::skip;
        }
        return Entry::run;
    }
    if (expected == self) return Entry::skip;  // a loop on this thread

    self->waitingFor.store(this, std::memory_order_release);
    while (!done_.load(std::memory_order_acquire)) {
        if (holder_.load(std::memory_order_acquire) == nullptr) {
            // The holder left without finishing (it met a loop of its own); take over the work.
            expected = nullptr;
            if (holder_.compare_exchange_strong(expected, self, std::memory_order_acquire, std::memory_order_relaxed)) {
                self->waitingFor.store(nullptr, std::memory_order_release);
                if (done_.load(std::memory_order_acquire)) {
                    holder_.store(nullptr, std::memory_order_release);
                    return Entry::skip;
                }
                return Entry::run;
            }
        } else if (waitWouldDeadlock(self)) {
            break;
        }
        platform::cpuPause();
    }
    self->waitingFor.store(nullptr, std::memory_order_release);
    return Entry::skip;
}

void CycleGuard::leave() {
    done_.store(true, std::memory_order_release);
    holder_.store(nullptr, std::memory_order_release);
}
