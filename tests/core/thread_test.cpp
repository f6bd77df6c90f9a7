#include "core/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
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

// Sleeps on its event without a time limit, as the process workers do.
class Sleeper : public CThread {
public:
    ~Sleeper() override { shutdown(); }

    platform::Event entered;
    std::atomic<bool> sawStop{false};
    std::atomic<int> wakeUps{0};
    std::atomic<uint32_t> idInside{0};

protected:
    void run() override {
        idInside = platform::currentThreadId();
        entered.signal();
        while (!stop) {
            event.wait(-1);
            if (stop) break;
            wakeUps.fetch_add(1);
        }
        sawStop = true;
    }
};

TEST(CThread, SignalWakesTheWorkerAndShutdownWaitsForIt) {
    auto sleeper = std::make_unique<Sleeper>();
    sleeper->start();
    ASSERT_TRUE(sleeper->entered.wait(hangMs));
    EXPECT_NE(sleeper->threadId(), 0u);
    EXPECT_EQ(sleeper->idInside.load(), sleeper->threadId());
    EXPECT_NE(sleeper->threadId(), platform::currentThreadId());
    EXPECT_FALSE(sleeper->stop);

    sleeper->signal();
    EXPECT_TRUE(eventually([&] { return sleeper->wakeUps.load() == 1; }));

    // Stop is set, the worker is woken and joined: by the time shutdown returns, run() is over.
    sleeper->shutdown();
    EXPECT_TRUE(sleeper->sawStop);
    EXPECT_TRUE(sleeper->stop);
    EXPECT_EQ(sleeper->wakeUps.load(), 1) << "the stop signal is no work";
    sleeper->shutdown();  // again, as the destructor will
    sleeper.reset();
}

TEST(CThread, DestroyingAWaitingWorkerReturnsOnceItSawStop) {
    std::atomic<bool> returned{false};
    {
        struct Flagging : Sleeper {
            explicit Flagging(std::atomic<bool>& flag) : flag(flag) {}
            ~Flagging() override {
                shutdown();
                flag = sawStop.load();
            }
            std::atomic<bool>& flag;
        } worker(returned);
        worker.start(platform::ThreadPriority::belowNormal);
        ASSERT_TRUE(worker.entered.wait(hangMs));
    }
    EXPECT_TRUE(returned) << "the destructor returned only after run() had seen stop";
}

TEST(CThread, AThreadWhoseRunReturnedOrNeverStartedPassesStraightThrough) {
    {
        CThread idle;  // the base run() does nothing and returns at once
        idle.start();
        EXPECT_TRUE(eventually([&] { return idle.stop.load(); })) << "the entry sets stop when run() returns";
        idle.signal();  // nobody waits; the signal is simply left in the event
    }
    {
        CThread neverStarted;
        EXPECT_EQ(neverStarted.threadId(), 0u);
        neverStarted.shutdown();
        EXPECT_TRUE(neverStarted.stop);
    }
}

// A worker with a timed loop, as the disk and peak workers have: it works when signalled and also
// comes round on its own when the time-out passes.
class Ticker : public CThread {
public:
    ~Ticker() override { shutdown(); }

    std::atomic<int> requested{0};
    std::atomic<int> served{0};
    std::atomic<int> rounds{0};
    platform::Event answered;

protected:
    void run() override {
        while (!stop) {
            event.wait(5);
            rounds.fetch_add(1);
            while (served.load() < requested.load()) {
                served.fetch_add(1);
                answered.signal();
            }
        }
    }
};

TEST(CThread, TimedLoopWorksOnSignalAndOnTimeOut) {
    Ticker ticker;
    ticker.start(platform::ThreadPriority::aboveNormal);

    for (int request = 1; request <= 20; ++request) {
        ticker.requested = request;
        ticker.signal();
        ASSERT_TRUE(ticker.answered.wait(hangMs)) << "request " << request;
        EXPECT_EQ(ticker.served.load(), request);
    }

    // Without any signal the loop still comes round at its time-out.
    const int before = ticker.rounds.load();
    EXPECT_TRUE(eventually([&] { return ticker.rounds.load() >= before + 3; }));
}

}  // namespace
