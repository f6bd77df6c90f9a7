#include "engine/deferred.h"

#include "platform/platform.h"

bool CDeferredQueue::defer(CDeferredAction action, void* argument) {
    uint32_t tail = tail_.load(std::memory_order_relaxed);
    if (tail - head_.load(std::memory_order_acquire) >= static_cast<uint32_t>(maxEntries)) return false;
    entries_[tail % slots] = Entry{action, argument};
    tail_.store(tail + 1, std::memory_order_release);
    return true;
}

void CDeferredQueue::runAll() {
    uint32_t head = head_.load(std::memory_order_relaxed);
    const uint32_t tail = tail_.load(std::memory_order_acquire);
    for (; head != tail; ++head) {
        const Entry& entry = entries_[head % slots];
        if (entry.action) entry.action.call(entry.action.object, entry.argument);
    }
    head_.store(head, std::memory_order_release);
}

void CDeferredQueue::drainFromAudio() {
    if (busy_.exchange(true, std::memory_order_acquire)) return;
    audioAsleep_ = false;
    idleTicks_ = 0;
    runAll();
    busy_.store(false, std::memory_order_release);
}

void CDeferredQueue::drainNow() {
    while (busy_.exchange(true, std::memory_order_acquire)) platform::cpuPause();
    runAll();
    busy_.store(false, std::memory_order_release);
}

bool CDeferredQueue::drainFromTick() {
    if (busy_.exchange(true, std::memory_order_acquire)) return false;
    ++idleTicks_;
    if (!audioAsleep_ && idleTicks_ <= idleTicksBeforeTakeover) {
        busy_.store(false, std::memory_order_release);
        return false;
    }
    audioAsleep_ = true;
    runAll();
    busy_.store(false, std::memory_order_release);
    return true;
}
