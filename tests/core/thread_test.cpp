#include "core/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// Upper bound for anything that should happen at once; only a hang reaches it.
constexpr int32_t hangMs = 10'000;

// Polls until `done` holds or the hang limit passes.
template <class Condition> bool eventually(Condition done) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(hangMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A worker as the process workers (no time limit) and the disk and peak workers (a timed loop) have it:
// it serves one request per round and, with a time limit, also comes round on its own. rounds counts
// the waits begun.
class Worker : public CThread {
public:
    explicit Worker(int32_t timeoutMs) : timeoutMs(timeoutMs) {}
    ~Worker() override { shutdown(); }

    const int32_t timeoutMs;
    std::atomic<uint32_t> idInside{0};
    std::atomic<int> requested{0}, served{0}, rounds{0}, idleWakeUps{0};
    std::atomic<bool> sawStop{false};
    platform::Event answered;

protected:
    void run() override {
        idInside = platform::currentThreadId();
        while (!stop) {
            rounds.fetch_add(1);
            const bool signalled = event.wait(timeoutMs);
            if (stop) break;
            if (served.load() < requested.load()) {
                served.fetch_add(1);
                answered.signal();
            } else if (signalled) {
                idleWakeUps.fetch_add(1);
            }
        }
        sawStop = true;
    }
};

TEST(CThread, WorkersServeSignalsAndShutdownWaitsForRunToEnd) {
    constexpr int requests = 20;
    for (const int32_t timeoutMs : {-1, 5}) {
        Worker worker(timeoutMs);
        using platform::ThreadPriority;
        worker.start(timeoutMs < 0 ? ThreadPriority::belowNormal : ThreadPriority::aboveNormal);
        EXPECT_FALSE(worker.stop);
        for (int request = 1; request <= requests; ++request) {
            worker.requested = request;
            worker.signal();
            ASSERT_TRUE(worker.answered.wait(hangMs)) << "request " << request;
            EXPECT_EQ(worker.served.load(), request);
        }
        EXPECT_EQ(worker.idInside.load(), worker.threadId());
        EXPECT_NE(worker.threadId(), platform::currentThreadId());
        // Without any signal a timed loop still comes round at its time-out; one without a limit goes back
        // to sleep, so that only shutdown's own wake-up can end it.
        const int rounds = timeoutMs > 0 ? worker.rounds.load() + 3 : requests + 1;
        EXPECT_TRUE(eventually([&] { return worker.rounds.load() >= rounds; }));

        // Stop is set before the worker is woken, and run() is over by the time shutdown returns.
        worker.shutdown();
        EXPECT_TRUE(worker.sawStop);
        if (timeoutMs < 0) {
            EXPECT_EQ(worker.idleWakeUps.load(), 0) << "one wake-up per signal, stop included";
        }
    }  // the destructor shuts down again
}

TEST(CThread, AThreadWhoseRunReturnedOrNeverStartedPassesStraightThrough) {
    {
        CThread idle;  // the base run() does nothing and returns at once
        idle.start();
        EXPECT_TRUE(eventually([&] { return idle.stop.load(); })) << "the entry sets stop when run() returns";
        idle.signal();  // nobody waits; the signal is simply left in the event
    }
    CThread neverStarted;
    neverStarted.shutdown();
    EXPECT_TRUE(neverStarted.stop);
}

}  // namespace
