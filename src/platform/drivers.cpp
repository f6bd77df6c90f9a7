#include "platform/drivers.h"

namespace platform {

void BlockBuffers::allocate(int32_t channels, int32_t frames) {
    buffers_.assign(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(frames), 0.0f));
    pointers_.clear();
    for (auto& buffer : buffers_) pointers_.push_back(buffer.data());
}

bool PlayThread::start(void (*body)(void*), void* argument) {
    if (thread_) return false;
    quit_.store(false);
    thread_ = std::make_unique<Thread>();
    if (thread_->start(body, argument)) return true;
    thread_.reset();
    return false;
}

void PlayThread::stop() {
    if (!thread_) return;
    quit_.store(true);
    thread_->join();
    thread_.reset();
}

AudioOpenResult openedStereo(int32_t blockSize, double sampleRate) {
    AudioOpenResult result;
    result.ok = true;
    result.blockSize = blockSize;
    result.sampleRate = sampleRate;
    result.outputCount = 2;
    return result;
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
