#pragma once
// CAAM: the device layer between the engine and the sound hardware. It lists drivers and devices, opens
// one, and calls the engine once a block through one callback; it knows nothing of components, and the
// engine knows nothing of devices. MIDI devices are listed once at construction; input records wait
// under midiLock for the next block, output records go to the device opened last.

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "core/list.h"
#include "core/object.h"
#include "core/string.h"
#include "platform/audio_driver.h"
#include "platform/platform.h"

using CMIDIRecord = platform::MidiRecord;

// The engine's callback: device buffers of the enabled channels, non-interleaved. `records` holds the
// MIDI that arrived since the last block and is overwritten with the MIDI to send; the result is the
// number of records to send.
struct CAudioCallback {
    using Function = int32_t (*)(void* context, float** inputs, float** outputs, int32_t inputCount,
                                 int32_t outputCount, int32_t frames, CMIDIRecord* records, int32_t recordCount);
    Function function = nullptr;
    void* context = nullptr;
};

class CAudioDevice : public CObject {
public:
    int32_t channels = 2;
};

class CMIDIDevice : public CObject {
public:
    enum class Source : int32_t { driverPorts, sequencer };

    int32_t index = 0;
    bool isStream = false;
    std::atomic<int32_t> isOpen{0};
    Source source = Source::sequencer;
    int32_t systemIndex = 0;  // the port's number in its source
};

class CAAM : public CObject, private platform::AudioHost {
public:
    static constexpr int32_t maxRecords = 128;
    static constexpr int32_t maxChannels = platform::maxDeviceChannels;

    CAAM(CAudioCallback callback, int32_t driver);
    ~CAAM() override;
    CAAM(const CAAM&) = delete;
    CAAM& operator=(const CAAM&) = delete;

    // Empties the device lists and fills `devices` for the current driver.
    void enumerateDevices();
    // Does nothing when open. False when the device did not open; `lastError` says why.
    bool openDevice(int32_t index);
    void closeDevice();
    void setDriver(int32_t newDriver);
    void setMIDIIn(int32_t index, int32_t openIt);
    void setMIDIOut(int32_t index, int32_t openIt);

    // Start-up: the driver's device `device`; with `tryNext`, ALSA when JACK has no device. When none
    // opens the user is told once and the null driver runs, so the program always has its cycle. True
    // when a real device runs.
    bool startAudio(int32_t wantedDriver, int32_t device, bool tryNext = true);
    // GUI thread, every tick: closes and opens again when asked to or when the driver lost its device;
    // a device that cannot be opened again gives way to the null driver.
    void guiTick();

    int64_t xruns() const;

    std::function<void(CAAM&)> restartDone;
    // How the user is told: a message box in the program, standard error in the command-line tool.
    std::function<void(const char* title, const char* text)> showMessage;

    TList<CAudioDevice> devices;        // owned
    TList<CAudioDevice> recordDevices;  // owned; kept empty
    TList<CMIDIDevice> midiOutDevices;  // owned
    TList<CMIDIDevice> midiInDevices;   // owned
    int32_t driver = platform::driverJack;
    CAudioCallback callback;
    bool canRun = true;
    std::atomic<bool> open{false};
    std::atomic<bool> restartWanted{false};
    int32_t blockSize = 1024;
    float sampleRate = 44100.0f;
    bool canRecord = true;
    int32_t deviceIndex = -1;
    int32_t recordDeviceIndex = -1;
    int32_t inputCount = 0;
    int32_t outputCount = 0;
    std::array<int32_t, maxChannels> inputEnabled{};
    std::array<int32_t, maxChannels> outputEnabled{};
    // ALSA: a device by name rather than by index; JACK: whether ports go to the system's ports.
    CString deviceName;
    bool connectPorts = true;
    CString lastError;
    platform::CriticalSection midiLock;
    std::atomic<CMIDIDevice*> streamDevice{nullptr};

private:
    void midiInput(uint32_t message, int32_t device) override;
    std::span<const CMIDIRecord> audioBlock(const float* const* inputs, float* const* outputs, int32_t inputCount,
                                             int32_t outputCount, int32_t frames) override;
    void listMIDIDevices();
    void tell(const char* title, const char* text);

    std::unique_ptr<platform::AudioDriver> backend_;
    std::unique_ptr<platform::MidiSystem> midiSystem_;
    // Up when the engine knows the device's block size and rate, down before the device stops.
    std::atomic<bool> running_{false};
    CMIDIRecord records_[maxRecords]{};
    int32_t midiCount_ = 0;
    CMIDIRecord audioRecords_[maxRecords]{};
    float* inputPointers_[maxChannels]{};
    float* outputPointers_[maxChannels]{};
};
