#pragma once
// CThread: the one thread class. A worker sleeps on its own auto-reset event and runs when somebody
// signals it or on a time-out of its own choosing. The thread starts with start(), after the object is
// fully built, so that run() never sees a half-constructed object.

#include <atomic>
#include <cstdint>

#include "core/object.h"
#include "platform/platform.h"

class CThread : public CObject {
public:
    CThread();
    ~CThread() override;

    // Starts the system thread, which calls run() and sets stop when run() returns.
    // The priority is applied from inside the new thread, best effort.
    void start(platform::ThreadPriority priority = platform::ThreadPriority::normal);
    // Wakes the worker.
    void signal() { event.signal(); }
    // Asks the worker to end, wakes it and, when waitOnDestroy is set, waits for it. Idempotent.
    // Subclasses call it first thing in their destructor, so run() never outlives their fields.
    void shutdown();

    // The system's id of the worker; known from the return of start() on, and inside run().
    uint32_t threadId() const { return handle.id(); }

    std::atomic<bool> stop{false};
    bool waitOnDestroy = true;
    platform::Event event;

protected:
    virtual void run() {}

private:
    static void entry(void* self);
    platform::ThreadPriority priority_ = platform::ThreadPriority::normal;
    // Declared after event: members are destroyed in reverse order, so the event outlives the thread.
    platform::Thread handle;
};
