// The ALSA PCM driver: a play thread that asks for one block, converts it to interleaved samples and
// writes it to a named device whose buffer holds two blocks. Playback only.

#include <alsa/asoundlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/drivers.h"
#include "platform/platform.h"

namespace platform {

namespace {

constexpr int32_t alsaChannels = 2;
constexpr unsigned int alsaPeriods = 2;

// The library's complaints (an unknown device name, and the like) go to the debug output; the user
// gets the message of the failed open instead.
void reportLibraryError(const char* /*file*/, int /*line*/, const char* function, int /*error*/, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    debugLine((std::string("alsa: ") + function + ": " + text).c_str());
}

double secondsNow() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

class AlsaDriver final : public AudioDriver {
public:
    AlsaDriver() { snd_lib_error_set_handler(&reportLibraryError); }
    ~AlsaDriver() override { close(); }

    const char* name() const override { return driverName(driverAlsa); }

    std::vector<AudioDeviceInfo> devices() override {
        std::vector<AudioDeviceInfo> list{{"default", alsaChannels}};
        void** hints = nullptr;
        if (snd_device_name_hint(-1, "pcm", &hints) < 0) return list;
        for (void** hint = hints; *hint; ++hint) {
            char* name = snd_device_name_get_hint(*hint, "NAME");
            char* io = snd_device_name_get_hint(*hint, "IOID");
            const bool plays = !io || std::string(io) == "Output";
            if (name && plays && std::none_of(list.begin(), list.end(), [name](const auto& d) { return d.name == name; }))
                list.push_back({name, alsaChannels});
            std::free(name);
            std::free(io);
        }
        snd_device_name_free_hint(hints);
        return list;
    }

    AudioOpenResult open(const AudioOpenRequest& request, AudioHost& host) override {
        AudioOpenResult result;
        if (pcm_) {
            result.error = "The ALSA device is already open";
            return result;
        }
        std::string device = request.deviceName;
        if (device.empty()) {
            const auto list = devices();
            if (request.device < 0 || request.device >= static_cast<int32_t>(list.size())) {
                result.error = "There is no ALSA device number " + std::to_string(request.device);
                return result;
            }
            device = list[static_cast<size_t>(request.device)].name;
        }
        if (const int error = snd_pcm_open(&pcm_, device.c_str(), SND_PCM_STREAM_PLAYBACK, 0); error < 0) {
            pcm_ = nullptr;
            result.error = "The audio device \"" + device + "\" could not be opened: " + snd_strerror(error);
            return result;
        }
        if (!configure(request)) {
            result.error = "Failed to create buffers";
            snd_pcm_close(pcm_);
            pcm_ = nullptr;
            return result;
        }
        host_ = &host;
        buffers_.allocate(alsaChannels, frames_);
        interleaved_.assign(static_cast<size_t>(frames_ * alsaChannels) * (isFloat_ ? sizeof(float) : sizeof(int16_t)), 0);
        if (!thread_.start(&AlsaDriver::run, this)) {
            close();
            result.error = "Could not start the audio thread";
            return result;
        }
        return openedStereo(frames_, rate_);
    }

    void close() override {
        thread_.stop();
        failed_.store(false);
        if (!pcm_) return;
        snd_pcm_drop(pcm_);
        snd_pcm_close(pcm_);
        pcm_ = nullptr;
    }

    bool restartWanted() const override { return failed_.load(); }
    int64_t xruns() const override { return xruns_.load(std::memory_order_relaxed); }

private:
    bool configure(const AudioOpenRequest& request) {
        snd_pcm_hw_params_t* hw = nullptr;
        snd_pcm_hw_params_alloca(&hw);
        if (snd_pcm_hw_params_any(pcm_, hw) < 0) return false;
        if (snd_pcm_hw_params_set_access(pcm_, hw, SND_PCM_ACCESS_RW_INTERLEAVED) < 0) return false;
        isFloat_ = snd_pcm_hw_params_set_format(pcm_, hw, SND_PCM_FORMAT_FLOAT_LE) == 0;
        if (!isFloat_ && snd_pcm_hw_params_set_format(pcm_, hw, SND_PCM_FORMAT_S16_LE) < 0) return false;
        if (snd_pcm_hw_params_set_channels(pcm_, hw, alsaChannels) < 0) return false;
        auto rate = static_cast<unsigned int>(request.sampleRate > 0.0 ? request.sampleRate : 44100.0);
        if (snd_pcm_hw_params_set_rate_near(pcm_, hw, &rate, nullptr) < 0) return false;
        snd_pcm_uframes_t period = static_cast<snd_pcm_uframes_t>(request.blockSize > 0 ? request.blockSize : 1024);
        if (snd_pcm_hw_params_set_period_size_near(pcm_, hw, &period, nullptr) < 0) return false;
        unsigned int periods = alsaPeriods;
        if (snd_pcm_hw_params_set_periods_near(pcm_, hw, &periods, nullptr) < 0) return false;
        if (snd_pcm_hw_params(pcm_, hw) < 0) return false;

        snd_pcm_sw_params_t* sw = nullptr;
        snd_pcm_sw_params_alloca(&sw);
        snd_pcm_uframes_t buffer = 0;
        snd_pcm_hw_params_get_buffer_size(hw, &buffer);
        if (snd_pcm_sw_params_current(pcm_, sw) < 0 || snd_pcm_sw_params_set_avail_min(pcm_, sw, period) < 0 ||
            snd_pcm_sw_params_set_start_threshold(pcm_, sw, buffer) < 0 || snd_pcm_sw_params(pcm_, sw) < 0)
            return false;
        frames_ = static_cast<int32_t>(std::clamp<snd_pcm_uframes_t>(period, 1, 32768));
        bufferFrames_ = static_cast<int64_t>(buffer);
        rate_ = rate;
        return true;
    }

    static void run(void* self) { static_cast<AlsaDriver*>(self)->loop(); }

    void loop() {
        setCurrentThreadPriority(ThreadPriority::highest);
        const double started = secondsNow();
        int64_t written = 0;
        while (!thread_.quitting()) {
            host_->audioBlock(nullptr, buffers_.pointers(), 0, alsaChannels, frames_);
            convert();
            if (!write()) {
                // The device is gone (unplugged, its server stopped): the owner opens it again or gives up.
                failed_.store(true);
                break;
            }
            written += frames_;
            // A device that takes every write at once (the "null" device) is held to the clock, so that
            // the engine runs at its rate rather than as fast as the processor allows.
            const double ahead = static_cast<double>(written - bufferFrames_) / rate_ - (secondsNow() - started);
            if (ahead > 0.0) {
                timespec pause{static_cast<time_t>(ahead), static_cast<long>(std::fmod(ahead, 1.0) * 1e9)};
                nanosleep(&pause, nullptr);
            }
        }
    }

    void convert() {
        const float* left = buffers_.channel(0);
        const float* right = buffers_.channel(1);
        if (isFloat_) {
            auto* out = reinterpret_cast<float*>(interleaved_.data());
            for (int32_t i = 0; i < frames_; ++i) {
                out[2 * i] = left[i];
                out[2 * i + 1] = right[i];
            }
            return;
        }
        auto* out = reinterpret_cast<int16_t*>(interleaved_.data());
        for (int32_t i = 0; i < frames_; ++i) {
            out[2 * i] = static_cast<int16_t>(left[i] * 32767.0f);
            out[2 * i + 1] = static_cast<int16_t>(right[i] * 32767.0f);
        }
    }

    // False when the device is gone for good.
    bool write() {
        const size_t frameBytes = interleaved_.size() / static_cast<size_t>(frames_);
        snd_pcm_uframes_t done = 0;
        while (done < static_cast<snd_pcm_uframes_t>(frames_) && !thread_.quitting()) {
            const snd_pcm_sframes_t n =
                snd_pcm_writei(pcm_, interleaved_.data() + done * frameBytes, static_cast<snd_pcm_uframes_t>(frames_) - done);
            if (n >= 0) {
                done += static_cast<snd_pcm_uframes_t>(n);
                continue;
            }
            if (n == -EPIPE) xruns_.fetch_add(1, std::memory_order_relaxed);
            if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) < 0) return false;
        }
        return true;
    }

    snd_pcm_t* pcm_ = nullptr;
    AudioHost* host_ = nullptr;
    bool isFloat_ = true;
    int32_t frames_ = 1024;
    int64_t bufferFrames_ = 2048;
    double rate_ = 44100.0;
    BlockBuffers buffers_;
    std::vector<unsigned char> interleaved_;
    PlayThread thread_;
    std::atomic<bool> failed_{false};
    std::atomic<int64_t> xruns_{0};
};

}  // namespace

std::unique_ptr<AudioDriver> makeAlsaDriver() { return std::make_unique<AlsaDriver>(); }

}  // namespace platform
