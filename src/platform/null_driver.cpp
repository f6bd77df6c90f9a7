// The null driver: no device, a thread that asks for one block each period by the monotonic clock, so
// the engine runs (meters, MIDI through, recording of MIDI) even without sound hardware.

#include <time.h>

#include <algorithm>
#include <atomic>

#include "platform/drivers.h"
#include "platform/platform.h"

namespace platform {

namespace {

constexpr int32_t nullChannels = 2;
constexpr int64_t nanosPerSecond = 1'000'000'000;

void addNanos(timespec& t, int64_t nanos) {
    const int64_t total = t.tv_nsec + nanos;
    t.tv_sec += static_cast<time_t>(total / nanosPerSecond);
    t.tv_nsec = static_cast<long>(total % nanosPerSecond);
}

bool before(const timespec& a, const timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

class NullDriver final : public AudioDriver {
public:
    ~NullDriver() override { close(); }

    const char* name() const override { return driverName(driverNull); }
    std::vector<AudioDeviceInfo> devices() override { return {{"No audio output", nullChannels}}; }

    AudioOpenResult open(const AudioOpenRequest& request, AudioHost& host) override {
        if (thread_.running()) return {false, "The null device is already open"};
        host_ = &host;
        frames_ = request.blockSize > 0 ? request.blockSize : 1024;
        rate_ = request.sampleRate > 0.0 ? request.sampleRate : 44100.0;
        buffers_.allocate(nullChannels, frames_);
        if (!thread_.start(&NullDriver::run, this)) return {false, "Could not start the audio thread"};
        return openedStereo(frames_, rate_);
    }

    void close() override { thread_.stop(); }

    bool restartWanted() const override { return false; }
    int64_t xruns() const override { return xruns_.load(std::memory_order_relaxed); }

private:
    static void run(void* self) { static_cast<NullDriver*>(self)->loop(); }

    void loop() {
        setCurrentThreadPriority(ThreadPriority::highest);
        const auto period = static_cast<int64_t>(static_cast<double>(frames_) * nanosPerSecond / rate_);
        timespec due{};
        clock_gettime(CLOCK_MONOTONIC, &due);
        while (!thread_.quitting()) {
            host_->audioBlock(nullptr, buffers_.pointers(), 0, nullChannels, frames_);
            addNanos(due, period);
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            if (before(due, now)) {
                // Late by more than a block: count it and start the clock again from now.
                xruns_.fetch_add(1, std::memory_order_relaxed);
                due = now;
                continue;
            }
            while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) != 0) {
            }
        }
    }

    AudioHost* host_ = nullptr;
    int32_t frames_ = 1024;
    double rate_ = 44100.0;
    BlockBuffers buffers_;
    PlayThread thread_;
    std::atomic<int64_t> xruns_{0};
};

}  // namespace

std::unique_ptr<AudioDriver> makeNullDriver() { return std::make_unique<NullDriver>(); }

}  // namespace platform
