// Soak of the audio device path: the demo song played through a JACK server (dummy backend, 256-frame
// period, real-time mode) first on a quiet machine, then with every processor held by a busy child
// process. Reports xruns and the audio callback's worst and mean time as a share of the period, quiet and
// loaded side by side.
//
//   device_soak_bench [--seconds N]   loaded soak length, default 60 (the quiet run is a sixth of it)

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "demo_song.h"
#include "engine/aam.h"
#include "engine/device_cycle.h"
#include "platform/platform.h"
#include "support/jack_peer.h"

namespace {

constexpr int32_t period = 256;
constexpr double rate = 48000.0;

int64_t nanosNow() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

// The engine's callback with a stopwatch around it.
struct TimedEngine {
    CQV* engine = nullptr;
    std::atomic<int64_t> worst{0};
    std::atomic<int64_t> total{0};
    std::atomic<int64_t> calls{0};

    void reset() {
        worst.store(0);
        total.store(0);
        calls.store(0);
    }

    static int32_t callback(void* context, float** inputs, float** outputs, int32_t inputCount, int32_t outputCount,
                            int32_t frames, CMIDIRecord* records, int32_t recordCount) {
        auto* self = static_cast<TimedEngine*>(context);
        const int64_t started = nanosNow();
        const int32_t sent = audioCallback(*self->engine, inputs, outputs, inputCount, outputCount, frames, records, recordCount);
        const int64_t took = nanosNow() - started;
        if (took > self->worst.load(std::memory_order_relaxed)) self->worst.store(took, std::memory_order_relaxed);
        self->total.fetch_add(took, std::memory_order_relaxed);
        self->calls.fetch_add(1, std::memory_order_relaxed);
        return sent;
    }
};

// One child per processor spinning until killed.
std::vector<pid_t> loadEveryProcessor() {
    std::vector<pid_t> children;
    for (int32_t i = 0; i < platform::processorCount(); ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            volatile uint64_t spin = 0;
            for (;;) spin = spin + 1;
        }
        if (pid > 0) children.push_back(pid);
    }
    return children;
}

void stopChildren(const std::vector<pid_t>& children) {
    for (pid_t pid : children) kill(pid, SIGKILL);
    for (pid_t pid : children) waitpid(pid, nullptr, 0);
}

struct Phase {
    int64_t xruns = 0;
    double worstShare = 0.0;
    double meanShare = 0.0;
    int64_t calls = 0;
};

// Up while a jump back to the start waits for the audio thread.
std::atomic<bool> rewinding{false};

Phase run(CAAM& aam, TimedEngine& timed, demo::DemoSong& song, double seconds) {
    const int64_t xrunsBefore = aam.xruns();
    timed.reset();
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        aam.guiTick();
        song.engine.guiTick();
        // Round and round the song, so that the whole soak has its full load; the jump back is made on
        // the audio thread at the end of a cycle.
        if (song.engine.position.load(std::memory_order_relaxed) >= song.lengthTicks() && !rewinding.exchange(true))
            song.engine.defer({[](void* engine, void* flag) {
                                   static_cast<CQV*>(engine)->setPosition(0.0);
                                   static_cast<std::atomic<bool>*>(flag)->store(false);
                               },
                               &song.engine},
                              &rewinding);
    }
    const double periodNanos = period / rate * 1e9;
    Phase phase;
    phase.xruns = aam.xruns() - xrunsBefore;
    phase.calls = timed.calls.load();
    phase.worstShare = static_cast<double>(timed.worst.load()) / periodNanos;
    phase.meanShare = phase.calls ? static_cast<double>(timed.total.load()) / static_cast<double>(phase.calls) / periodNanos : 0.0;
    return phase;
}

void print(const char* label, const Phase& phase) {
    std::printf("%-8s callbacks %8lld  xruns %4lld  worst %6.1f%% of the period  mean %5.1f%%\n", label,
                static_cast<long long>(phase.calls), static_cast<long long>(phase.xruns), phase.worstShare * 100.0,
                phase.meanShare * 100.0);
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 60.0;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::max(1.0, std::atof(argv[i + 1]));

    jacktest::Server server(static_cast<int32_t>(rate), period, true);
    if (!server.ready()) {
        std::fprintf(stderr, "device soak: jackd did not start\n");
        return 1;
    }
    demo::DemoSong song(rate);
    TimedEngine timed;
    timed.engine = &song.engine;
    song.engine.start();
    CAAM aam({&TimedEngine::callback, &timed}, platform::driverJack);
    attachEngine(aam, song.engine);
    aam.outputEnabled[0] = aam.outputEnabled[1] = 1;
    aam.connectPorts = true;
    if (!aam.startAudio(platform::driverJack, 0, false)) {
        std::fprintf(stderr, "device soak: %s\n", aam.lastError.c_str());
        return 1;
    }
    std::printf("device soak: demo song through JACK (dummy backend), %d frames at %.0f Hz, %d processors\n", aam.blockSize,
                rate, platform::processorCount());
    const Phase quiet = run(aam, timed, song, seconds / 6.0);
    const std::vector<pid_t> children = loadEveryProcessor();
    const Phase loaded = run(aam, timed, song, seconds);
    stopChildren(children);
    aam.closeDevice();
    song.engine.stop();
    print("quiet", quiet);
    print("loaded", loaded);
    std::printf("loaded/quiet worst callback time: %.2f\n", quiet.worstShare > 0.0 ? loaded.worstShare / quiet.worstShare : 0.0);
    return 0;
}
