#pragma once
// The Linux drivers behind makeAudioDriver, and what they share.

#include <atomic>
#include <memory>
#include <vector>

#include "platform/audio_driver.h"
#include "platform/platform.h"

namespace platform {

std::unique_ptr<AudioDriver> makeJackDriver();
std::unique_ptr<AudioDriver> makeAlsaDriver();
std::unique_ptr<AudioDriver> makeNullDriver();

// Non-interleaved float buffers of one block for a driver that feeds its device itself.
class BlockBuffers {
public:
    void allocate(int32_t channels, int32_t frames);
    float* const* pointers() { return pointers_.data(); }
    float* channel(int32_t index) { return pointers_[static_cast<size_t>(index)]; }

private:
    std::vector<std::vector<float>> buffers_;
    std::vector<float*> pointers_;
};

// The thread of a driver that feeds its device itself, stopped through its quit flag.
class PlayThread {
public:
    ~PlayThread() { stop(); }
    // False when the system refused the thread.
    bool start(void (*body)(void* argument), void* argument);
    // Sets the quit flag and waits for the body to return. Does nothing when not running.
    void stop();
    bool running() const { return thread_ != nullptr; }
    bool quitting() const { return quit_.load(std::memory_order_relaxed); }

private:
    std::unique_ptr<Thread> thread_;
    std::atomic<bool> quit_{false};
};

// What a driver with two output channels and no input gives back from a successful open.
AudioOpenResult openedStereo(int32_t blockSize, double sampleRate);

}  // namespace platform
