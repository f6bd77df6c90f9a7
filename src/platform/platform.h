#pragma once
// The platform layer: the only place that talks to the operating system. Everything above it sees
// these operations and nothing else, so that another backend can stand beside the Linux one.
//
// Services here: threads with priority and processor pinning, an auto-reset event, a critical section,
// the millisecond clock and the debug line output.

#include <atomic>
#include <cstdint>
#include <functional>

namespace platform {

// Milliseconds from a monotonic clock; wraps at 2^32 like the multimedia timer it stands for.
uint32_t milliseconds();

// One diagnostic line that the user does not see. Goes to stderr when VANTRELL_DEBUG is set in the
// environment, and to the sink installed by setDebugSink (tests) when there is one. The sink is called
// under a lock, one line at a time; once setDebugSink returns, the old sink is no longer called.
void debugLine(const char* text);
using DebugSink = std::function<void(const char* line)>;
void setDebugSink(DebugSink sink);

// Logical processors this process may run on, at least 1.
int32_t processorCount();

// A pause instruction for spin-waits.
void cpuPause();

uint32_t currentThreadId();

// Whether a file descriptor (0 input, 1 output, 2 error) is a terminal, so that a tool may draw progress.
bool isTerminal(int fd);

// Relative priorities as the engine names them: -2 lowest ... 2 highest, 15 time-critical.
enum class ThreadPriority : int32_t {
    lowest = -2,
    belowNormal = -1,
    normal = 0,
    aboveNormal = 1,
    highest = 2,
    timeCritical = 15,
};

// Best effort: when the system refuses (no real-time rights), the thread carries on at its priority and
// one debug line says so for the whole process. Returns whether the priority was applied.
bool setCurrentThreadPriority(ThreadPriority priority);

// Best effort pinning of the calling thread to one processor (taken modulo the processor count).
bool pinCurrentThread(int32_t processor);

// Auto-reset event: signal wakes one waiter, or the next wait if nobody waits. signal never blocks,
// never allocates and takes no lock, so the audio thread may call it.
class Event {
public:
    Event() = default;
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void signal();
    // Waits until signalled or until timeoutMs ran out (-1: no limit). True when it was signalled.
    bool wait(int32_t timeoutMs);

private:
    // Bit 0: signalled. The bits above count the threads that sleep, or are about to sleep, in the
    // kernel's futex on this word, so that signal makes no system call when nobody waits.
    std::atomic<uint32_t> state_{0};
};

// A short mutual-exclusion section, held for a few instructions at a time.
class CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void enter();
    void leave();
    // The address of the underlying system lock, so that tests can tell this lock from any other.
    const void* identity() const;

private:
    alignas(8) unsigned char storage_[64];
};

class ScopedLock {
public:
    explicit ScopedLock(CriticalSection& section) : section_(section) { section_.enter(); }
    ~ScopedLock() { section_.leave(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    CriticalSection& section_;
};

// A joinable system thread with the default stack. The body runs at once after start.
class Thread {
public:
    Thread() = default;
    ~Thread();  // joins when still joinable
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // False when the system refuses a new thread, or when this one was started already.
    // On success id() is already known when start returns.
    bool start(void (*entry)(void* argument), void* argument);
    // Waits for the body to return. Called on the thread itself, it detaches instead.
    void join();
    // Lets the thread run on unowned; nobody waits for it any more.
    void detach();
    bool joinable() const { return started_; }
    // The system's id of the thread, 0 before start. Safe to read from any thread.
    uint32_t id() const { return id_.load(std::memory_order_acquire); }

private:
    alignas(8) unsigned char handle_[8]{};
    bool started_ = false;
    std::atomic<uint32_t> id_{0};
    void (*entry_)(void*) = nullptr;
    void* argument_ = nullptr;
    static void* trampoline(void* self);
};

}  // namespace platform
