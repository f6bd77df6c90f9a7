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
        thread_.start([](void* self) { static_cast<Runner*>(self)->body_(); }, this);
    }
    void join() { thread_.join(); }

private:
    std::function<void()> body_;
    platform::Thread thread_;
};

TEST(Event, AutoResetTimeOutAndSignalBeforeWait) {
    platform::Event event;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.wait(30));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(30));

    // The timed-out wait left the event as it was: a signal given now is kept for the next wait.
    for (const int32_t timeout : {-1, 0, hangMs}) {
        event.signal();
        event.signal();
        EXPECT_TRUE(event.wait(timeout)) << "timeout " << timeout;
        EXPECT_FALSE(event.wait(0)) << "signals do not add up, and the wait that took one reset the event";
    }
}

// Each signal is taken by exactly one of several waiters, some asleep in the kernel without limit and some
// timing out while the signal arrives. A lost wake-up shows as a relay that never comes back.
TEST(Event, RelayBetweenManyWaitersLosesNoSignal) {
    constexpr int rounds = 3000;
    platform::Event work;
    platform::Event done;
    std::atomic<bool> finished{false};
    std::atomic<int> taken{0};
    std::atomic<int> left{0};

    std::vector<std::unique_ptr<Runner>> waiters;
    for (const int32_t timeout : {-1, 1, -1, 1}) {
        waiters.push_back(std::make_unique<Runner>([&, timeout] {
            while (!finished.load()) {
                if (!work.wait(timeout) || finished.load()) continue;
                taken.fetch_add(1);
                done.signal();
            }
            left.fetch_add(1);
        }));
    }

    int acknowledged = 0;
    for (; acknowledged < rounds; ++acknowledged) {
        work.signal();
        if (!done.wait(hangMs)) break;
    }
    finished = true;
    // Signals coalesce, so the waiters are woken again and again until all of them have left.
    while (left.load() < static_cast<int>(waiters.size())) {
        work.signal();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiters.clear();  // joins each

    EXPECT_EQ(acknowledged, rounds);
    EXPECT_EQ(taken.load(), rounds) << "each signal is consumed exactly once";
}

TEST(CriticalSection, ExcludesAndNamesItsLock) {
    platform::CriticalSection section;
    int64_t counter = 0;  // deliberately plain: only the section protects it
    constexpr int perThread = 50'000;
    {
        std::vector<std::unique_ptr<Runner>> runners;  // joined as they go out of scope
        for (int i = 0; i < 4; ++i) {
            runners.push_back(std::make_unique<Runner>([&] {
                for (int n = 0; n < perThread; ++n) {
                    const platform::ScopedLock lock(section);
                    counter = counter + 1;
                }
            }));
        }
    }
    EXPECT_EQ(counter, 4 * perThread);

    platform::CriticalSection other;
    EXPECT_NE(section.identity(), other.identity());
    if (!rtprobe::available()) return;
    const rtprobe::Scope probe;
    section.enter();
    section.leave();
    const int64_t locks = probe.locks();
    const int64_t foreign = probe.locksOtherThan(section.identity());
    EXPECT_EQ(locks, 1);
    EXPECT_EQ(foreign, 0) << "identity() is the address that pthread_mutex_lock receives";
}

TEST(Thread, RunsTheBodyAndKnowsItsId) {
    platform::Thread thread;
    EXPECT_EQ(thread.id(), 0u);

    std::atomic<uint32_t> idInside{0};
    const auto body = [](void* argument) {
        *static_cast<std::atomic<uint32_t>*>(argument) = platform::currentThreadId();
    };
    ASSERT_TRUE(thread.start(body, &idInside));
    const uint32_t idAfterStart = thread.id();
    EXPECT_NE(idAfterStart, 0u) << "the id is known when start returns";
    EXPECT_FALSE(thread.start([](void*) {}, nullptr)) << "a started thread does not start again";
    thread.join();
    EXPECT_FALSE(thread.joinable());

    EXPECT_EQ(idInside.load(), idAfterStart) << "the body ran with its argument";
    EXPECT_NE(idAfterStart, platform::currentThreadId());
}

TEST(Platform, ClockProcessorsAndDebugSink) {
    const uint32_t before = platform::milliseconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    // Unsigned difference, as callers use it across the 2^32 wrap.
    const uint32_t elapsed = platform::milliseconds() - before;
    EXPECT_GE(elapsed, 29u);
    EXPECT_LT(elapsed, 20'000u) << "milliseconds, not a finer unit";

    EXPECT_GE(platform::processorCount(), 1);
    if (const unsigned machine = std::thread::hardware_concurrency(); machine > 0) {
        EXPECT_LE(platform::processorCount(), static_cast<int32_t>(machine));
    }

    std::vector<std::string> lines;
    platform::setDebugSink([&](const char* line) { lines.emplace_back(line); });
    platform::debugLine("first");
    platform::debugLine("second");
    platform::setDebugSink(nullptr);
    platform::debugLine("not seen");
    EXPECT_EQ(lines, (std::vector<std::string>{"first", "second"}));
}

// Priorities and pinning may be refused (no real-time rights, a restricted processor set). Either way
// the calls return and the thread carries on; a refusal is reported once per process however often, and
// on however many threads, it happens. The "once" is per process, so the check runs in a child process.
void checkRefusalsAreReportedOnce() {
    std::atomic<int> priorityLines{0}, pinningLines{0}, priorityRefusals{0}, pinningRefusals{0};
    platform::setDebugSink([&](const char* line) {
        if (std::strstr(line, "priority")) priorityLines.fetch_add(1);
        if (std::strstr(line, "pinning")) pinningLines.fetch_add(1);
    });
    // Three rounds on one thread, then on a second that meets the same refusals.
    for (int thread = 0; thread < 2; ++thread) {
        Runner([&] {
            using platform::ThreadPriority;
            const int32_t count = platform::processorCount();
            for (int round = 0; round < 3; ++round) {
                for (const auto priority :
                     {ThreadPriority::timeCritical, ThreadPriority::highest, ThreadPriority::aboveNormal,
                      ThreadPriority::normal, ThreadPriority::belowNormal, ThreadPriority::lowest}) {
                    if (!platform::setCurrentThreadPriority(priority)) priorityRefusals.fetch_add(1);
                }
                for (const int32_t processor : {0, count - 1, count, count + 1, -1, 1000}) {
                    if (!platform::pinCurrentThread(processor)) pinningRefusals.fetch_add(1);
                }
            }
        }).join();
    }
    platform::setDebugSink(nullptr);
    const bool once =
        priorityLines == (priorityRefusals > 0 ? 1 : 0) && pinningLines == (pinningRefusals > 0 ? 1 : 0);
    if (!once) {
        std::fprintf(stderr, "priority: %d refusals, %d lines; pinning: %d refusals, %d lines\n",
                     priorityRefusals.load(), priorityLines.load(), pinningRefusals.load(),
                     pinningLines.load());
    }
    std::_Exit(once ? 0 : 1);
}

TEST(Platform, PriorityAndPinningAreBestEffortAndReportedOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(checkRefusalsAreReportedOnce(), testing::ExitedWithCode(0), "");
}

}  // namespace
