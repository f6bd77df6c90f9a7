// The JACK driver: one client whose ports are the enabled channels and one MIDI port each way. The
// server decides block size and rate; the engine takes them. Blocks run on the client's process thread.

#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/drivers.h"
#include "platform/platform.h"

namespace platform {

namespace {

constexpr const char* clientName = "vantrell";

std::string serverName() {
    const char* name = std::getenv("JACK_DEFAULT_SERVER");
    return name && *name ? name : "default";
}

// The library's own complaints (no server, and the like) go to the debug output, not to the terminal.
void quietLibrary() {
    static std::once_flag once;
    std::call_once(once, [] {
        jack_set_error_function([](const char* text) { debugLine((std::string("jack: ") + text).c_str()); });
        jack_set_info_function([](const char* text) { debugLine((std::string("jack: ") + text).c_str()); });
    });
}

jack_client_t* openClient(std::string& error) {
    quietLibrary();
    jack_status_t status{};
    jack_client_t* client = jack_client_open(clientName, JackNoStartServer, &status);
    if (!client) {
        error = (status & JackServerFailed) ? "The JACK server \"" + serverName() + "\" is not running"
                                            : "The JACK server \"" + serverName() + "\" refused the client";
    }
    return client;
}

// Connects each of our ports to the physical port of the same number, as far as there are any.
void connectPhysical(jack_client_t* client, const std::vector<jack_port_t*>& ours, unsigned long flags, bool ourIsSource) {
    const char** physical = jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, JackPortIsPhysical | flags);
    if (!physical) return;
    for (size_t i = 0; i < ours.size() && physical[i]; ++i) {
        const char* mine = jack_port_name(ours[i]);
        if (ourIsSource ? jack_connect(client, mine, physical[i]) : jack_connect(client, physical[i], mine))
            debugLine("jack: could not connect a port to the system");
    }
    jack_free(physical);
}

// A channel message packed as the records carry it: status in bits 0 to 7, data bytes above.
uint32_t packMessage(const jack_midi_data_t* data, size_t size) {
    uint32_t message = 0;
    for (size_t i = 0; i < std::min<size_t>(size, 3); ++i) message |= static_cast<uint32_t>(data[i]) << (8 * i);
    return message;
}

// Bytes in a message by its status; system messages other than those of one byte are not sent.
size_t messageSize(uint32_t message) {
    const uint32_t status = message & 0xFF;
    if (status < 0x80) return 0;
    if (status < 0xF0) return (status & 0xE0) == 0xC0 ? 2 : 3;
    return status >= 0xF8 ? 1 : 0;
}

class JackDriver final : public AudioDriver {
public:
    ~JackDriver() override { close(); }

    const char* name() const override { return driverName(driverJack); }

    std::vector<AudioDeviceInfo> devices() override {
        std::string error;
        jack_client_t* probe = openClient(error);
        if (!probe) {
            debugLine(("jack: " + error).c_str());
            return {};
        }
        jack_client_close(probe);
        return {{"JACK server \"" + serverName() + "\"", maxDeviceChannels}};
    }

    AudioOpenResult open(const AudioOpenRequest& request, AudioHost& host) override {
        AudioOpenResult result;
        if (client_) {
            result.error = "The JACK client is already open";
            return result;
        }
        client_ = openClient(result.error);
        if (!client_) return result;
        host_ = &host;
        midiInDevice_ = request.midiInDevice;
        blockSize_ = static_cast<int32_t>(jack_get_buffer_size(client_));
        rate_ = jack_get_sample_rate(client_);

        auto addPorts = [this](const auto& enabled, std::vector<jack_port_t*>& ports, const char* prefix, unsigned long flags) {
            for (size_t i = 0; i < enabled.size(); ++i) {
                if (!enabled[i]) continue;
                const std::string portName = prefix + std::to_string(i + 1);
                jack_port_t* port = jack_port_register(client_, portName.c_str(), JACK_DEFAULT_AUDIO_TYPE, flags, 0);
                if (!port) return false;
                ports.push_back(port);
            }
            return true;
        };
        if (!addPorts(request.inputEnabled, inputs_, "in_", JackPortIsInput) ||
            !addPorts(request.outputEnabled, outputs_, "out_", JackPortIsOutput)) {
            result.error = "Failed to create buffers";
            close();
            return result;
        }
        midiIn_ = jack_port_register(client_, "midi_in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        midiOut_ = jack_port_register(client_, "midi_out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
        inputPointers_.assign(inputs_.size(), nullptr);
        outputPointers_.assign(outputs_.size(), nullptr);

        jack_set_process_callback(client_, &JackDriver::process, this);
        jack_set_buffer_size_callback(client_, &JackDriver::bufferSizeChanged, this);
        jack_set_xrun_callback(client_, &JackDriver::xrun, this);
        jack_on_shutdown(client_, &JackDriver::shutdown, this);
        if (jack_activate(client_) != 0) {
            result.error = "The JACK server would not start the client";
            close();
            return result;
        }
        if (request.connectPorts) {
            connectPhysical(client_, inputs_, JackPortIsOutput, false);
            connectPhysical(client_, outputs_, JackPortIsInput, true);
        }
        result.ok = true;
        result.blockSize = blockSize_;
        result.sampleRate = rate_;
        result.inputCount = static_cast<int32_t>(inputs_.size());
        result.outputCount = static_cast<int32_t>(outputs_.size());
        result.canRecord = true;
        return result;
    }

    void close() override {
        if (!client_) return;
        // After deactivate returns the process callback is not called again.
        if (!gone_.load()) jack_deactivate(client_);
        jack_client_close(client_);
        client_ = nullptr;
        inputs_.clear();
        outputs_.clear();
        midiIn_ = midiOut_ = nullptr;
        gone_.store(false);
        restart_.store(false);
    }

    bool restartWanted() const override { return restart_.load(std::memory_order_relaxed); }
    int64_t xruns() const override { return xruns_.load(std::memory_order_relaxed); }
    bool hasMidiPorts() const override { return true; }

private:
    static int process(jack_nframes_t frames, void* self) {
        static_cast<JackDriver*>(self)->block(static_cast<int32_t>(frames));
        return 0;
    }

    void block(int32_t frames) {
        for (size_t i = 0; i < inputs_.size(); ++i)
            inputPointers_[i] = static_cast<float*>(jack_port_get_buffer(inputs_[i], static_cast<jack_nframes_t>(frames)));
        for (size_t i = 0; i < outputs_.size(); ++i)
            outputPointers_[i] = static_cast<float*>(jack_port_get_buffer(outputs_[i], static_cast<jack_nframes_t>(frames)));
        void* midiOut = midiOut_ ? jack_port_get_buffer(midiOut_, static_cast<jack_nframes_t>(frames)) : nullptr;
        if (midiOut) jack_midi_clear_buffer(midiOut);
        if (frames != blockSize_) {
            // The engine still runs at the old size until it is reopened.
            for (float* out : outputPointers_) std::fill_n(out, frames, 0.0f);
            return;
        }
        if (midiIn_ && midiInDevice_ >= 0) {
            void* midiIn = jack_port_get_buffer(midiIn_, static_cast<jack_nframes_t>(frames));
            const uint32_t count = jack_midi_get_event_count(midiIn);
            for (uint32_t i = 0; i < count; ++i) {
                jack_midi_event_t event;
                if (jack_midi_event_get(&event, midiIn, i) == 0 && event.size >= 1 && event.size <= 3)
                    host_->midiInput(packMessage(event.buffer, event.size), midiInDevice_);
            }
        }
        const std::span<const MidiRecord> sent =
            host_->audioBlock(inputPointers_.data(), outputPointers_.data(), static_cast<int32_t>(inputs_.size()),
                              static_cast<int32_t>(outputs_.size()), frames);
        if (!midiOut) return;
        jack_nframes_t last = 0;
        for (const MidiRecord& record : sent) {
            const size_t size = messageSize(record.midi);
            if (size == 0) continue;
            // Events go out in time order; one earlier than the last goes with it.
            last = std::clamp<jack_nframes_t>(record.frame, last, static_cast<jack_nframes_t>(frames - 1));
            const jack_midi_data_t bytes[3] = {static_cast<jack_midi_data_t>(record.midi & 0xFF),
                                               static_cast<jack_midi_data_t>((record.midi >> 8) & 0x7F),
                                               static_cast<jack_midi_data_t>((record.midi >> 16) & 0x7F)};
            jack_midi_event_write(midiOut, last, bytes, size);
        }
    }

    static int bufferSizeChanged(jack_nframes_t frames, void* self) {
        auto* driver = static_cast<JackDriver*>(self);
        if (static_cast<int32_t>(frames) != driver->blockSize_) driver->restart_.store(true);
        return 0;
    }

    static int xrun(void* self) {
        static_cast<JackDriver*>(self)->xruns_.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }

    static void shutdown(void* self) {
        auto* driver = static_cast<JackDriver*>(self);
        driver->gone_.store(true);
        driver->restart_.store(true);
    }

    jack_client_t* client_ = nullptr;
    AudioHost* host_ = nullptr;
    std::vector<jack_port_t*> inputs_, outputs_;
    std::vector<float*> inputPointers_, outputPointers_;
    jack_port_t* midiIn_ = nullptr;
    jack_port_t* midiOut_ = nullptr;
    int32_t midiInDevice_ = -1;
    int32_t blockSize_ = 0;
    double rate_ = 0.0;
    std::atomic<bool> restart_{false};
    std::atomic<bool> gone_{false};
    std::atomic<int64_t> xruns_{0};
};

}  // namespace

std::unique_ptr<AudioDriver> makeJackDriver() { return std::make_unique<JackDriver>(); }

}  // namespace platform
