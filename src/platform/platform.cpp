// Linux backend of the platform layer: clock, debug output, processors, priorities and threads.

#include "platform/platform.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace platform {

namespace {

std::mutex& sinkMutex() {
    static std::mutex mutex;
    return mutex;
}

DebugSink& sink() {
    static DebugSink installed;
    return installed;
}

// One line per process for each kind of refusal: a pool of workers would otherwise repeat it for every
// thread, and the answer is the same for all of them.
void reportOnce(std::atomic<bool>& reported, const char* what, int error) {
    if (reported.exchange(true, std::memory_order_relaxed)) return;
    char line[160];
    std::snprintf(line, sizeof line, "platform: %s refused (%s); carrying on without it", what,
                  strerrordesc_np(error));
    debugLine(line);
}

std::atomic<bool> priorityRefusalReported{false};
std::atomic<bool> pinningRefusalReported{false};

// The processors this process may run on, taken once before any pinning narrows the calling thread's
// own set. Pinning counts through this list, so that processor 0 is the first one we were given,
// also inside a container or under taskset.
struct Processors {
    std::vector<int> ids;

    Processors() {
        cpu_set_t set;
        CPU_ZERO(&set);
        if (sched_getaffinity(0, sizeof set, &set) == 0) {
            for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
                if (CPU_ISSET(cpu, &set)) ids.push_back(cpu);
            }
        }
        if (ids.empty()) {
            const long online = sysconf(_SC_NPROCESSORS_ONLN);
            for (int cpu = 0; cpu < online && cpu < CPU_SETSIZE; ++cpu)
                ids.push_back(cpu);
        }
        if (ids.empty()) ids.push_back(0);
    }
};

const Processors& processors() {
    static const Processors list;
    return list;
}

// SCHED_FIFO levels: clear of the kernel's own interrupt threads (50) and of a sound server that
// usually sits a little higher, with the workers above the audio thread as the engine ranks them.
constexpr int fifoHighest = 70;
constexpr int fifoTimeCritical = 75;

// Below time-critical the threads stay in the ordinary scheduler and differ by nice value.
constexpr int niceFor(ThreadPriority priority) {
    switch (priority) {
    case ThreadPriority::lowest:
        return 10;
    case ThreadPriority::belowNormal:
        return 5;
    case ThreadPriority::aboveNormal:
        return -5;
    default:
        return 0;
    }
}

// A soft RLIMIT_RTPRIO below the level we want still allows real-time scheduling at that limit.
int fifoLevelWithinLimit(int wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_RTPRIO, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur >= 1 &&
        limit.rlim_cur < static_cast<rlim_t>(wanted)) {
        return static_cast<int>(limit.rlim_cur);
    }
    return wanted;
}

}  // namespace

uint32_t milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto ms = static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

void debugLine(const char* text) {
    if (std::getenv("VANTRELL_DEBUG")) {
        // One call, so that lines from several threads do not interleave.
        std::fprintf(stderr, "%s\n", text);
    }
    const std::lock_guard guard(sinkMutex());
    if (sink()) sink()(text);
}

void setDebugSink(DebugSink newSink) {
    const std::lock_guard guard(sinkMutex());
    sink() = std::move(newSink);
}

bool isTerminal(int fd) { return ::isatty(fd) == 1; }

int32_t processorCount() {
    return static_cast<int32_t>(processors().ids.size());
}

void cpuPause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#else
    std::this_thread::yield();
#endif
}

uint32_t currentThreadId() {
    // The engine asks on every contended component; the system call is made once per thread.
    thread_local const auto id = static_cast<uint32_t>(gettid());
    return id;
}

bool setCurrentThreadPriority(ThreadPriority priority) {
    const pthread_t self = pthread_self();
    if (priority == ThreadPriority::timeCritical || priority == ThreadPriority::highest) {
        const int wanted = priority == ThreadPriority::timeCritical ? fifoTimeCritical : fifoHighest;
        sched_param parameters{};
        parameters.sched_priority = fifoLevelWithinLimit(wanted);
        const int error = pthread_setschedparam(self, SCHED_FIFO, &parameters);
        if (error == 0) return true;
        reportOnce(priorityRefusalReported, "real-time priority", error);
        return false;
    }

    int policy = SCHED_OTHER;
    sched_param parameters{};
    if (pthread_getschedparam(self, &policy, &parameters) == 0 && policy != SCHED_OTHER) {
        parameters.sched_priority = 0;
        const int error = pthread_setschedparam(self, SCHED_OTHER, &parameters);
        if (error != 0) {
            reportOnce(priorityRefusalReported, "thread priority", error);
            return false;
        }
    }
    // On Linux a nice value set for a thread id applies to that thread alone.
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(currentThreadId()), niceFor(priority)) == 0) return true;
    reportOnce(priorityRefusalReported, "thread priority", errno);
    return false;
}

bool pinCurrentThread(int32_t processor) {
    const std::vector<int>& ids = processors().ids;
    const auto count = static_cast<int32_t>(ids.size());
    const int32_t index = ((processor % count) + count) % count;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(ids[static_cast<size_t>(index)], &set);
    const int error = pthread_setaffinity_np(pthread_self(), sizeof set, &set);
    if (error == 0) return true;
    reportOnce(pinningRefusalReported, "processor pinning", error);
    return false;
}

// --- Thread ---

namespace {

static_assert(sizeof(pthread_t) <= 8 && alignof(pthread_t) <= 8, "Thread::handle_ holds a pthread_t");

pthread_t& handleOf(unsigned char* storage) {
    return *std::launder(reinterpret_cast<pthread_t*>(storage));
}

}  // namespace

Thread::~Thread() {
    if (started_) join();
}

bool Thread::start(void (*entry)(void* argument), void* argument) {
    if (started_) return false;
    entry_ = entry;
    argument_ = argument;
    id_.store(0, std::memory_order_relaxed);
    pthread_t* handle = new (handle_) pthread_t{};
    if (pthread_create(handle, nullptr, &Thread::trampoline, this) != 0) return false;
    started_ = true;
    // Wait for the id, so that the creator can use it as soon as start returns.
    id_.wait(0, std::memory_order_acquire);
    return true;
}

void* Thread::trampoline(void* self) {
    auto* thread = static_cast<Thread*>(self);
    // Once the id is published the creator may detach and drop this object: read what the body needs
    // first. The notify only names the word's address to the kernel, it does not touch the object.
    void (*const entry)(void*) = thread->entry_;
    void* const argument = thread->argument_;
    thread->id_.store(currentThreadId(), std::memory_order_release);
    thread->id_.notify_all();
    entry(argument);
    return nullptr;
}

void Thread::join() {
    if (!started_) return;
    started_ = false;
    // A thread cannot wait for itself; when the body ends its own thread, let it go instead.
    if (id() == currentThreadId()) {
        pthread_detach(handleOf(handle_));
        return;
    }
    pthread_join(handleOf(handle_), nullptr);
}

void Thread::detach() {
    if (!started_) return;
    started_ = false;
    pthread_detach(handleOf(handle_));
}

}  // namespace platform
