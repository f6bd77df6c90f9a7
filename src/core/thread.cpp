#include "core/thread.h"

CThread::CThread() = default;

CThread::~CThread() {
    shutdown();
}

void CThread::start(platform::ThreadPriority priority) {
    if (handle.joinable()) return;
    priority_ = priority;
    if (!handle.start(&CThread::entry, this)) {
        // Without a thread there is no run() that could set it; set it here so loops waiting on it end.
        stop.store(true, std::memory_order_relaxed);
        platform::debugLine("CThread: the system refused a new thread");
    }
}

void CThread::entry(void* self) {
    auto* thread = static_cast<CThread*>(self);
    // A worker with no priority of its own keeps the one it inherited from its creator.
    if (thread->priority_ != platform::ThreadPriority::normal)
        platform::setCurrentThreadPriority(thread->priority_);
    thread->run();
    thread->stop.store(true, std::memory_order_relaxed);
}

void CThread::shutdown() {
    stop.store(true, std::memory_order_relaxed);
    event.signal();
    if (waitOnDestroy) {
        handle.join();
    } else {
        handle.detach();
    }
}
