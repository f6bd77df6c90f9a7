#include "platform/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/rt_probe.h"

namespace {

// Upper bound for anything that should happen at once; only a hang reaches it.
constexpr int32_t hangMs = 10'000;

// Runs a callable on a platform::Thread.
class Runner {
public:
    template <class Body> explicit Runner(Body body) : body_(std::move(body)) {
        started_ = thread_.start([](void* self) { static_cast<Runner*>(self)->body_(); }, this);
    }
    void join() { thread_.join(); }
    bool started() const { return started_; }
    uint32_t id() const { return thread_.id(); }

private:
    std::function<void()> body_;
    platform::Thread thread_;
    bool started_ = false;
};

TEST(Event, SignalWakesAWaiterOnAnotherThread) {
    platform::Event event;
    std::atomic<bool> woke{false};
    Runner waiter([&] { woke = event.wait(-1); });
    ASSERT_TRUE(waiter.started());
    // Gives the waiter time to go to sleep in the kernel, so that the wake-up path is the one tested.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    event.signal();
    waiter.join();
    EXPECT_TRUE(woke);

    std::atomic<bool> wokeInTime{false};
    Runner timedWaiter([&] { wokeInTime = event.wait(hangMs); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    event.signal();
    timedWaiter.join();
    EXPECT_TRUE(wokeInTime);
}

TEST(Event, AutoResetAndSignalBeforeWait) {
    platform::Event event;
    EXPECT_FALSE(event.wait(0));

    event.signal();
    EXPECT_TRUE(event.wait(-1)) << "a signal given before the wait is kept for it";
    EXPECT_FALSE(event.wait(0)) << "the wait that consumed the signal reset the event";

    event.signal();
    event.signal();
    EXPECT_TRUE(event.wait(0));
    EXPECT_FALSE(event.wait(0)) << "signals do not add up";

    event.signal();
    EXPECT_TRUE(event.wait(hangMs)) << "a timed wait finds a pending signal";
}

TEST(Event, TimesOutWhenNobodySignals) {
    platform::Event event;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.wait(30));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(30));

    // A timed-out waiter leaves the event as it found it: a later signal is kept for the next wait.
    event.signal();
    EXPECT_TRUE(event.wait(0));
}

// Each signal is taken by exactly one of several waiters, including waiters that keep timing out
// while the signal arrives. A lost wake-up shows as a relay that never comes back.
TEST(Event, RelayBetweenManyWaitersLosesNoSignal) {
    constexpr int waiterCount = 4;
    constexpr int rounds = 3000;
    platform::Event work;
    platform::Event done;
    std::atomic<bool> finished{false};
    std::atomic<int> taken{0};

    std::vector<std::unique_ptr<Runner>> waiters;
    for (int i = 0; i < waiterCount; ++i) {
        // Half the waiters sleep without limit, half with a short one, so that time-outs race signals.
        const int32_t timeout = i % 2 == 0 ? -1 : 1;
        waiters.push_back(std::make_unique<Runner>([&, timeout] {
            while (!finished.load()) {
                if (!work.wait(timeout)) continue;
                if (finished.load()) break;
                taken.fetch_add(1);
                done.signal();
            }
        }));
    }

    int acknowledged = 0;
    for (int round = 0; round < rounds; ++round) {
        work.signal();
        if (!done.wait(hangMs)) break;
        ++acknowledged;
    }
    finished = true;
    // Signals coalesce, so the waiters are woken again and again until all of them have left.
    std::atomic<bool> allLeft{false};
    Runner nudger([&] {
        while (!allLeft.load()) {
            work.signal();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    for (auto& waiter : waiters)
        waiter->join();
    allLeft = true;
    nudger.join();

    EXPECT_EQ(acknowledged, rounds);
    EXPECT_EQ(taken.load(), rounds) << "each signal is consumed exactly once";
}

TEST(CriticalSection, ExcludesAndNamesItsLock) {
    platform::CriticalSection section;
    int64_t counter = 0;  // deliberately plain: only the section protects it
    constexpr int threads = 4;
    constexpr int perThread = 50'000;
    std::vector<std::unique_ptr<Runner>> runners;
    for (int i = 0; i < threads; ++i) {
        runners.push_back(std::make_unique<Runner>([&] {
            for (int n = 0; n < perThread; ++n) {
                const platform::ScopedLock lock(section);
                counter = counter + 1;
            }
        }));
    }
    for (auto& runner : runners)
        runner->join();
    EXPECT_EQ(counter, int64_t{threads} * perThread);

    platform::CriticalSection other;
    EXPECT_NE(section.identity(), nullptr);
    EXPECT_NE(section.identity(), other.identity());

    if (!rtprobe::available()) return;
    int64_t locks = 0;
    int64_t foreign = 0;
    {
        const rtprobe::Scope probe;
        section.enter();
        section.leave();
        locks = probe.locks();
        foreign = probe.locksOtherThan(section.identity());
    }
    EXPECT_EQ(locks, 1);
    EXPECT_EQ(foreign, 0) << "identity() is the address that pthread_mutex_lock receives";
}

TEST(Thread, RunsTheBodyAndKnowsItsId) {
    platform::Thread thread;
    EXPECT_FALSE(thread.joinable());
    EXPECT_EQ(thread.id(), 0u);

    struct Seen {
        std::atomic<uint32_t> id{0};
        int argument = 0;
    } seen;
    seen.argument = 7;
    ASSERT_TRUE(thread.start(
        [](void* argument) {
            auto* target = static_cast<Seen*>(argument);
            target->argument *= 6;
            target->id = platform::currentThreadId();
        },
        &seen));
    EXPECT_TRUE(thread.joinable());
    const uint32_t idAfterStart = thread.id();
    EXPECT_NE(idAfterStart, 0u) << "the id is known when start returns";
    EXPECT_FALSE(thread.start([](void*) {}, nullptr)) << "a started thread does not start again";
    thread.join();
    EXPECT_FALSE(thread.joinable());

    EXPECT_EQ(seen.argument, 42);
    EXPECT_EQ(seen.id.load(), idAfterStart);
    EXPECT_NE(idAfterStart, platform::currentThreadId());
}

TEST(Platform, ClockAndProcessors) {
    const uint32_t before = platform::milliseconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    // Unsigned difference, as callers use it across the 2^32 wrap.
    const uint32_t elapsed = platform::milliseconds() - before;
    EXPECT_GE(elapsed, 29u);
    EXPECT_LT(elapsed, 20'000u) << "milliseconds, not a finer unit";

    const int32_t processors = platform::processorCount();
    EXPECT_GE(processors, 1);
    if (const unsigned machine = std::thread::hardware_concurrency(); machine > 0) {
        EXPECT_LE(processors, static_cast<int32_t>(machine));
    }
}

TEST(Platform, DebugSinkReceivesLinesUntilRemoved) {
    std::vector<std::string> lines;
    platform::setDebugSink([&](const char* line) { lines.emplace_back(line); });
    platform::debugLine("first");
    platform::debugLine("second");
    platform::setDebugSink(nullptr);
    platform::debugLine("not seen");
    EXPECT_EQ(lines, (std::vector<std::string>{"first", "second"}));
}

// Counts the lines that mention `word` while `body` runs on its own thread.
template <class Body> int linesMentioning(const char* word, Body body) {
    std::atomic<int> count{0};
    platform::setDebugSink([&](const char* line) {
        if (std::strstr(line, word)) count.fetch_add(1);
    });
    Runner runner(body);
    runner.join();
    platform::setDebugSink(nullptr);
    return count.load();
}

// Priorities and pinning may be refused (no real-time rights, a restricted processor set). Either way
// the calls return and the thread carries on; a refusal is reported once per process however often it
// happens. The "once" is per process, so the check runs in a child process of its own.
void checkRefusalsAreReportedOnce() {
    std::atomic<int> refused{0};
    const auto tryAll = [&] {
        using platform::ThreadPriority;
        for (int repeat = 0; repeat < 3; ++repeat) {
            for (const auto priority :
                 {ThreadPriority::timeCritical, ThreadPriority::highest, ThreadPriority::aboveNormal,
                  ThreadPriority::normal, ThreadPriority::belowNormal, ThreadPriority::lowest}) {
                if (!platform::setCurrentThreadPriority(priority)) refused.fetch_add(1);
            }
        }
    };
    int priorityLines = linesMentioning("priority", tryAll);
    // A second thread meets the same refusals and reports nothing more.
    const int priorityRefusals = refused.exchange(0);
    priorityLines += linesMentioning("priority", tryAll);
    const int priorityRefusalsLater = refused.exchange(0);

    const auto pinAll = [&] {
        const int32_t count = platform::processorCount();
        for (const int32_t processor : {0, count - 1, count, count + 1, -1, 1000}) {
            if (!platform::pinCurrentThread(processor)) refused.fetch_add(1);
        }
    };
    int pinningLines = linesMentioning("pinning", pinAll);
    pinningLines += linesMentioning("pinning", pinAll);
    const int pinningRefusals = refused.load();

    const int expectedPriorityLines = priorityRefusals + priorityRefusalsLater > 0 ? 1 : 0;
    const int expectedPinningLines = pinningRefusals > 0 ? 1 : 0;
    if (priorityLines != expectedPriorityLines || pinningLines != expectedPinningLines) {
        std::fprintf(stderr, "priority: %d refusals, %d lines; pinning: %d refusals, %d lines\n",
                     priorityRefusals + priorityRefusalsLater, priorityLines, pinningRefusals, pinningLines);
        std::_Exit(1);
    }
    std::_Exit(0);
}

TEST(Platform, PriorityAndPinningAreBestEffortAndReportedOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(checkRefusalsAreReportedOnce(), testing::ExitedWithCode(0), "");
}

}  // namespace
