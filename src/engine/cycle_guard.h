#pragma once
// Once-per-cycle guard with a busy mark, shared by process, processInserts and processStrip.
//
// A component is pulled by whichever thread reaches it first. The busy mark records which thread holds
// it:
//  - the thread that holds it and meets it again has found a loop in the graph and returns at once, so
//    the component closing the loop contributes what it has at that moment;
//  - another thread waits (spinning with a pause) until the work is done, then uses the output, which
//    makes the parallel path give exactly the output of the single path;
//  - a wait that would close a loop across threads (A waits for what B holds while B waits for what A
//    holds) is broken like a loop on one thread, so the cycle never deadlocks.
// The done mark is cleared by beginCycle on the audio thread, before any worker is woken.

#include <atomic>

class CycleGuard;

// Per-thread mark that a guard's holder points to; it tells what the thread is waiting for.
struct ThreadMark {
    std::atomic<const CycleGuard*> waitingFor{nullptr};
};

class CycleGuard {
public:
    enum class Entry { run, skip };

    // run: the caller must do the work and then call leave(). skip: done already, a loop, or done by
    // another thread in the meantime.
    Entry enter();
    void leave();
    void reset() { done_.store(false, std::memory_order_relaxed); }
    bool done() const { return done_.load(std::memory_order_acquire); }
    bool busy() const { return holder_.load(std::memory_order_relaxed) != nullptr; }
    // Marks the work as done without running it, for components that finish by other means.
    void markDone() { done_.store(true, std::memory_order_release); }

private:
    bool waitWouldDeadlock(const ThreadMark* self) const;

    std::atomic<ThreadMark*> holder_{nullptr};
    std::atomic<bool> done_{false};
};

// Runs leave() on scope exit after a successful enter().
class CycleGuardScope {
public:
    explicit CycleGuardScope(CycleGuard& guard) : guard_(guard), entered_(guard.enter() == CycleGuard::Entry::run) {}
    ~CycleGuardScope() {
        if (entered_) guard_.leave();
    }
    CycleGuardScope(const CycleGuardScope&) = delete;
    CycleGuardScope& operator=(const CycleGuardScope&) = delete;
    bool entered() const { return entered_; }

private:
    CycleGuard& guard_;
    bool entered_;
};
