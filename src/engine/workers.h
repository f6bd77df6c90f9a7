#pragma once
// The worker pool of the cycle's parallel path.
//
// The graph is divided at the cables that end at the hardware outputs: one work item for each distinct
// source, whose whole upstream subgraph is pulled inside the item. The audio thread takes items too, so
// workers are woken only for two or more. The pool's critical section is held only to take an item or to
// count one done; it is the only lock the cycle takes.

#include <atomic>
#include <cstdint>

#include "core/thread.h"
#include "platform/platform.h"

class CAudioCable;
class CQV;
class CWorkerPool;

class CProcessThread : public CThread {
public:
    CProcessThread(CWorkerPool& pool, int32_t index) : pool(pool), index(index) {}
    ~CProcessThread() override { shutdown(); }

    CWorkerPool& pool;
    const int32_t index;
    int32_t affinity = -1;

protected:
    void run() override;
};

class CWorkerPool {
public:
    static constexpr int32_t maxThreads = 128;
    static constexpr int32_t maxItems = 256;

    // processors: logical processors to plan for (0: this machine's). No workers for a preview engine.
    CWorkerPool(CQV& engine, int32_t processors, bool isPreview);
    ~CWorkerPool();
    CWorkerPool(const CWorkerPool&) = delete;
    CWorkerPool& operator=(const CWorkerPool&) = delete;

    // Publishes the items gathered in items[0..count), runs them with the workers and returns once all
    // are finished. Audio thread only.
    void run(int32_t itemCount, int32_t frames);
    // Worker side: takes and runs items until none is left.
    void work();
    // Items the audio thread ran itself in the last run.
    int32_t ownItemsLastRun() const { return ownItemsLastRun_; }

    CQV& engine;
    platform::CriticalSection lock;
    bool pinned = false;
    int32_t peakItems = 0;
    int32_t peakOwnItems = 0;
    const int32_t processors;
    int32_t threadCount = 0;
    CProcessThread* threads[maxThreads] = {};
    CAudioCable* items[maxItems] = {};

private:
    // Takes the next item under the lock; null when none is left.
    CAudioCable* take(int32_t& frames);
    void finishOne();
    void runItem(CAudioCable* item, int32_t frames);

    int32_t nextItem_ = 0;   // guarded by lock
    int32_t frames_ = 0;     // guarded by lock
    std::atomic<int32_t> pending_{0};  // decremented under lock, read by the spinning audio thread
    int32_t ownItemsLastRun_ = 0;
};
