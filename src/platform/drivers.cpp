#include "platform/drivers.h"

namespace platform {

void BlockBuffers::allocate(int32_t channels, int32_t frames) {
    buffers_.assign(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(frames), 0.0f));
    pointers_.clear();
    for (auto& buffer : buffers_) pointers_.push_back(buffer.data());
}

std::unique_ptr<AudioDriver> makeAudioDriver(int32_t index) {
    switch (index) {
        case driverJack: return makeJackDriver();
        case driverAlsa: return makeAlsaDriver();
        case driverNull: return makeNullDriver();
        default: return nullptr;
    }
}

const char* driverName(int32_t index) {
    switch (index) {
        case driverJack: return "JACK";
        case driverAlsa: return "ALSA";
        case driverNull: return "No audio device";
        default: return "";
    }
}

}  // namespace platform
