#pragma once
// The Linux drivers behind makeAudioDriver, and what they share.

#include <memory>
#include <vector>

#include "platform/audio_driver.h"

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

}  // namespace platform
