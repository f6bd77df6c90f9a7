#pragma once
// CDeferredQueue: the bridge from the GUI thread to the audio thread.
//
// Only the GUI thread appends. Two readers drain it: the audio thread at the end of each cycle, and the
// GUI tick when no cycle has come for 10 ticks. The busy mark keeps the two readers apart; the queue is a
// ring so that an entry appended during a drain is kept for the next one. It never allocates.

#include <atomic>
#include <cstdint>

// A member function and its object, as a plain value: copying it never allocates.
struct CDeferredAction {
    void (*call)(void* object, void* argument) = nullptr;
    void* object = nullptr;

    template <auto Member, class T>
    static CDeferredAction of(T* object) {
        return {[](void* self, void* argument) { (static_cast<T*>(self)->*Member)(argument); }, object};
    }
    explicit operator bool() const { return call != nullptr; }
};

class CDeferredQueue {
public:
    static constexpr int32_t slots = 128;
    static constexpr int32_t maxEntries = slots - 1;
    // Idle GUI ticks after which the GUI thread drains a queue the audio thread has stopped draining.
    static constexpr int32_t idleTicksBeforeTakeover = 10;

    // GUI thread only. False when the queue is full and the entry was dropped.
    bool defer(CDeferredAction action, void* argument);
    // Audio thread, at the end of a cycle.
    void drainFromAudio();
    // GUI tick. True when it ran the entries.
    bool drainFromTick();
    // Runs what waits now, on the calling thread, once any other reader has let go. Only while the audio
    // thread stays out of the cycle (a project being replaced), so that no step is left to run on a model
    // that has gone.
    void drainNow();

    int32_t count() const {
        return static_cast<int32_t>(tail_.load(std::memory_order_acquire) - head_.load(std::memory_order_acquire));
    }
    bool audioAsleep() const { return audioAsleep_; }

private:
    void runAll();

    struct Entry {
        CDeferredAction action;
        void* argument = nullptr;
    };
    Entry entries_[slots];
    std::atomic<uint32_t> head_{0};
    std::atomic<uint32_t> tail_{0};
    std::atomic<bool> busy_{false};
    // Touched only by the reader that holds busy_.
    bool audioAsleep_ = true;
    int32_t idleTicks_ = 0;
};
