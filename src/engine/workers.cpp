#include "engine/workers.h"

#include <algorithm>

#include "engine/engine.h"

void CProcessThread::run() {
    while (!stop.load(std::memory_order_acquire)) {
        if (affinity == -1) {
            platform::pinCurrentThread((index + 1) & 31);
            affinity = (index + 1) & 31;
        }
        event.wait(-1);
        if (stop.load(std::memory_order_acquire)) break;
        pool.work();
    }
}

CWorkerPool::CWorkerPool(CQV& engine, int32_t processorsToUse, bool isPreview)
    : engine(engine), processors(processorsToUse > 0 ? processorsToUse : platform::processorCount()) {
    threadCount = isPreview ? 0 : std::clamp(processors - 1, 0, maxThreads);
    for (int32_t i = 0; i < threadCount; ++i) {
        threads[i] = new CProcessThread(*this, i);
        threads[i]->start(platform::ThreadPriority::timeCritical);
    }
}

CWorkerPool::~CWorkerPool() {
    for (int32_t i = 0; i < threadCount; ++i) delete threads[i];
}

CAudioCable* CWorkerPool::take(int32_t& frames) {
    platform::ScopedLock hold(lock);
    if (nextItem_ <= 0) return nullptr;
    --nextItem_;
    frames = frames_;
    return items[nextItem_];
}

void CWorkerPool::finishOne() {
    platform::ScopedLock hold(lock);
    pending_.fetch_sub(1, std::memory_order_release);
}

void CWorkerPool::runItem(CAudioCable* item, int32_t frames) {
    item->source->process(frames);
    item->source->processInserts(frames);
}

void CWorkerPool::work() {
    int32_t frames = 0;
    while (CAudioCable* item = take(frames)) {
        runItem(item, frames);
        finishOne();
    }
}

void CWorkerPool::run(int32_t itemCount, int32_t frames) {
    {
        platform::ScopedLock hold(lock);
        nextItem_ = itemCount;
        frames_ = frames;
        pending_.store(itemCount, std::memory_order_relaxed);
    }
    peakItems = std::max(peakItems, itemCount);
    if (itemCount >= 2)
        for (int32_t i = 0; i < threadCount; ++i) threads[i]->signal();

    int32_t own = 0;
    int32_t itemFrames = 0;
    while (pending_.load(std::memory_order_acquire) > 0) {
        if (CAudioCable* item = take(itemFrames)) {
            runItem(item, itemFrames);
            finishOne();
            ++own;
        } else {
            platform::cpuPause();
        }
    }
    ownItemsLastRun_ = own;
    peakOwnItems = own > 0 ? std::max(peakOwnItems, own) : 0;
}
