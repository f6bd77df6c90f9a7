#pragma once
// CEventQueue: events the GUI thread posts to a sampler (editor keyboard, preview), which its process
// moves into the input port at the head of the next cycle. One writer (the GUI thread) and one reader
// (whichever thread processes the sampler), no lock: the slot count is a power of two, the two indices
// are the only shared words, and a full queue refuses the event rather than block. It holds 511 events.

#include <atomic>
#include <cstdint>

#include "engine/midi.h"

class CEventQueue {
public:
    static constexpr uint32_t slotCount = 512;
    static constexpr uint32_t capacity = slotCount - 1;

    // Writer side. False when the queue is full; the event is then lost.
    bool post(const CMIDIEvent& event) {
        const uint32_t tail = tail_.load(std::memory_order_relaxed);
        const uint32_t next = (tail + 1) & (slotCount - 1);
        if (next == head_.load(std::memory_order_acquire)) return false;
        slots_[tail] = event;
        slots_[tail].next = nullptr;
        tail_.store(next, std::memory_order_release);
        return true;
    }

    // Reader side: adds every waiting event to the port, time stamp and data kept, and empties the queue.
    void drainInto(CMIDIQ& port) {
        uint32_t head = head_.load(std::memory_order_relaxed);
        const uint32_t tail = tail_.load(std::memory_order_acquire);
        while (head != tail) {
            port.addEvent(slots_[head]);
            head = (head + 1) & (slotCount - 1);
        }
        head_.store(head, std::memory_order_release);
    }

    bool empty() const { return head_.load(std::memory_order_acquire) == tail_.load(std::memory_order_acquire); }

private:
    CMIDIEvent slots_[slotCount];
    std::atomic<uint32_t> head_{0};
    std::atomic<uint32_t> tail_{0};
};
