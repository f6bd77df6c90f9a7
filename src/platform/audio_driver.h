#pragma once
// Audio and MIDI devices as the engine's device layer sees them: a driver lists its devices, opens one
// with the wanted block size, rate and channels, and from then on calls its host once a block on its
// own audio thread. MIDI input devices hand each message to the host from whatever thread they run on.
//
// Linux drivers: 0 JACK, 1 ALSA PCM (a play thread on a named device), 2 null (paced by a timer).
// Another system gives its own drivers through makeAudioDriver and the rest stays as it is.

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace platform {

// The exchange record of one MIDI message. Input: midi, device, 0. Output: midi, device, frame in block.
struct MidiRecord {
    uint32_t midi = 0;
    uint32_t device = 0;
    uint32_t frame = 0;
};

constexpr int32_t maxDeviceChannels = 32;

struct AudioDeviceInfo {
    std::string name;
    int32_t channels = 2;
};

struct AudioOpenRequest {
    int32_t device = 0;          // index in devices()
    std::string deviceName;      // ALSA: a device by name instead of by index
    int32_t blockSize = 1024;    // -1: the driver's preferred size
    double sampleRate = 44100.0;
    std::array<bool, maxDeviceChannels> inputEnabled{};
    std::array<bool, maxDeviceChannels> outputEnabled{};
    // JACK: connect the ports to the system's physical ports.
    bool connectPorts = true;
    // JACK: the MIDI device indexes the driver's own MIDI ports stand for, -1 for none.
    int32_t midiInDevice = -1;
};

struct AudioOpenResult {
    bool ok = false;
    std::string error;           // the message for the user when ok is false
    int32_t blockSize = 0;       // as the device runs
    double sampleRate = 0.0;
    int32_t inputCount = 0;      // enabled channels handed to each block
    int32_t outputCount = 0;
    bool canRecord = false;
};

// Implemented by the engine's device layer.
class AudioHost {
public:
    virtual ~AudioHost() = default;
    // Any thread: one message from MIDI input device `device`.
    virtual void midiInput(uint32_t message, int32_t device) = 0;
    // The audio thread: one block. Returns the MIDI the driver itself is to send at frame offsets
    // (its own MIDI ports); valid until the next block.
    virtual std::span<const MidiRecord> audioBlock(const float* const* inputs, float* const* outputs,
                                                    int32_t inputCount, int32_t outputCount, int32_t frames) = 0;
};

class AudioDriver {
public:
    virtual ~AudioDriver() = default;
    virtual const char* name() const = 0;
    virtual std::vector<AudioDeviceInfo> devices() = 0;
    // Opens and starts the device; the host is called from then on until close.
    virtual AudioOpenResult open(const AudioOpenRequest& request, AudioHost& host) = 0;
    // Stops the device and waits until the host is no longer called. Does nothing when closed.
    virtual void close() = 0;
    // The device went away or changed its block size while open: the owner closes and opens again.
    virtual bool restartWanted() const = 0;
    // Blocks the device could not deliver in time since open.
    virtual int64_t xruns() const = 0;
    // Whether the driver has MIDI ports of its own (they are listed as MIDI devices by the owner).
    virtual bool hasMidiPorts() const { return false; }
};

enum DriverIndex : int32_t { driverJack = 0, driverAlsa = 1, driverNull = 2, driverCount = 3 };

// Null for an index this system does not know.
std::unique_ptr<AudioDriver> makeAudioDriver(int32_t index);
const char* driverName(int32_t index);

// MIDI devices outside the audio driver: the ALSA sequencer's ports where /dev/snd/seq exists.
class MidiSystem {
public:
    virtual ~MidiSystem() = default;
    virtual std::vector<std::string> inputs() const = 0;
    virtual std::vector<std::string> outputs() const = 0;
    // The host receives the input's messages with `device` as their device index.
    virtual bool openInput(int32_t index, int32_t device, AudioHost& host) = 0;
    virtual void closeInput(int32_t index) = 0;
    virtual bool openOutput(int32_t index) = 0;
    virtual void closeOutput(int32_t index) = 0;
    // Audio thread: sends at once, in order.
    virtual void send(int32_t index, std::span<const MidiRecord> records) = 0;
};

// A system with no devices when the sequencer is missing.
std::unique_ptr<MidiSystem> makeMidiSystem();

}  // namespace platform
