#include "engine/aam.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

constexpr int32_t longestDeviceName = 128;

// Clock, start, continue, stop, active sensing and the one-byte system messages are dropped on input.
bool dropped(uint32_t message) {
    switch (message) {
        case 0xF0: case 0xF1: case 0xF2: case 0xF3: case 0xF6: case 0xF7: case 0xF8:
        case 0xF9: case 0xFA: case 0xFB: case 0xFC: case 0xFE: case 0xFF:
            return true;
        default:
            return false;
    }
}

}  // namespace

CAAM::CAAM(CAudioCallback audioCallback, int32_t driverIndex)
    : callback(audioCallback), midiSystem_(platform::makeMidiSystem()) {
    listMIDIDevices();
    driver = driverIndex;
    backend_ = platform::makeAudioDriver(driver);
    canRun = backend_ != nullptr;
}

CAAM::~CAAM() {
    closeDevice();
    for (int32_t i = 0; i < midiInDevices.count(); ++i) setMIDIIn(i, 0);
    for (int32_t i = 0; i < midiOutDevices.count(); ++i) setMIDIOut(i, 0);
    devices.deleteAll();
    recordDevices.deleteAll();
    midiInDevices.deleteAll();
    midiOutDevices.deleteAll();
}

void CAAM::listMIDIDevices() {
    const auto add = [](TList<CMIDIDevice>& list, const std::string& name, CMIDIDevice::Source source, int32_t systemIndex,
                        bool isStream) {
        auto* device = new CMIDIDevice();
        device->index = list.count();
        device->name = name.c_str();
        device->source = source;
        device->systemIndex = systemIndex;
        device->isStream = isStream;
        list.add(device);
    };
    // The JACK driver's own ports come first; they carry MIDI while that driver runs.
    add(midiInDevices, "JACK MIDI In", CMIDIDevice::Source::driverPorts, 0, false);
    add(midiOutDevices, "JACK MIDI Out", CMIDIDevice::Source::driverPorts, 0, true);
    int32_t n = 0;
    for (const std::string& name : midiSystem_->inputs()) add(midiInDevices, name, CMIDIDevice::Source::sequencer, n++, false);
    n = 0;
    for (const std::string& name : midiSystem_->outputs()) add(midiOutDevices, name, CMIDIDevice::Source::sequencer, n++, true);
}

void CAAM::enumerateDevices() {
    devices.deleteAll();
    recordDevices.deleteAll();
    if (!backend_) return;
    for (const platform::AudioDeviceInfo& info : backend_->devices()) {
        auto* device = new CAudioDevice();
        std::string name = info.name;
        if (name.size() >= longestDeviceName) name = name.substr(0, longestDeviceName - 4) + "...";
        device->name = name.c_str();
        device->channels = info.channels;
        devices.add(device);
    }
}

bool CAAM::openDevice(int32_t index) {
    if (open.load()) return true;
    deviceIndex = index;
    if (!backend_) {
        lastError = "No audio driver is set";
        return false;
    }
    platform::AudioOpenRequest request;
    request.device = index;
    request.deviceName = deviceName.c_str();
    request.blockSize = blockSize;
    request.sampleRate = sampleRate;
    for (int32_t i = 0; i < maxChannels; ++i) {
        request.inputEnabled[static_cast<size_t>(i)] = inputEnabled[static_cast<size_t>(i)] != 0;
        request.outputEnabled[static_cast<size_t>(i)] = outputEnabled[static_cast<size_t>(i)] != 0;
    }
    request.connectPorts = connectPorts;
    request.midiInDevice = backend_->hasMidiPorts() ? 0 : -1;
    const platform::AudioOpenResult result = backend_->open(request, *this);
    if (!result.ok) {
        lastError = result.error.c_str();
        platform::debugLine(("audio: " + result.error).c_str());
        return false;
    }
    blockSize = result.blockSize;
    sampleRate = static_cast<float>(result.sampleRate);
    canRecord = result.canRecord;
    // The device may already be asking for blocks; they stay silent until the engine has its size and rate.
    if (restartDone) restartDone(*this);
    inputCount = result.inputCount;
    outputCount = result.outputCount;
    running_.store(true, std::memory_order_release);
    open.store(true);
    return true;
}

void CAAM::closeDevice() {
    if (!open.load()) return;
    running_.store(false, std::memory_order_release);
    open.store(false);
    backend_->close();
    inputCount = 0;
    outputCount = 0;
}

void CAAM::setDriver(int32_t newDriver) {
    closeDevice();
    driver = newDriver;
    backend_ = platform::makeAudioDriver(driver);
    canRun = backend_ != nullptr;
    enumerateDevices();
    deviceIndex = 0;
}

void CAAM::tell(const char* title, const char* text) {
    if (showMessage) showMessage(title, text);
    else platform::debugLine((std::string(title) + ": " + text).c_str());
}

bool CAAM::startAudio(int32_t wantedDriver, int32_t device, bool tryNext) {
    setDriver(wantedDriver);
    if (devices.count() == 0 && wantedDriver == platform::driverJack && tryNext) {
        blockSize = 2048;
        setDriver(platform::driverAlsa);
    }
    if (devices.count() == 0) {
        tell("Audio driver not found", "No Audio drivers found on your system?");
    } else if (openDevice(device)) {
        return true;
    } else {
        tell("Failed to create buffers", lastError.c_str());
    }
    setDriver(platform::driverNull);
    openDevice(0);
    return false;
}

void CAAM::guiTick() {
    const bool driverAsks = open.load() && backend_ && backend_->restartWanted();
    if (!restartWanted.exchange(false) && !driverAsks) return;
    closeDevice();
    // A driver that changed its own settings is taken as it now runs.
    if (driverAsks) blockSize = -1;
    if (openDevice(deviceIndex)) return;
    tell("Failed to create buffers", lastError.c_str());
    setDriver(platform::driverNull);
    openDevice(0);
}

int64_t CAAM::xruns() const { return backend_ ? backend_->xruns() : 0; }

void CAAM::setMIDIIn(int32_t index, int32_t openIt) {
    CMIDIDevice* device = midiInDevices.getAt(index);
    if (!device) return;
    const bool isSequencer = device->source == CMIDIDevice::Source::sequencer;
    if (openIt) {
        if (device->isOpen.load()) return;
        if (isSequencer && !midiSystem_->openInput(device->systemIndex, index, *this)) return;
        device->isOpen.store(1);
    } else if (device->isOpen.load()) {
        device->isOpen.store(0);
        if (isSequencer) midiSystem_->closeInput(device->systemIndex);
    }
}

void CAAM::setMIDIOut(int32_t index, int32_t openIt) {
    CMIDIDevice* device = midiOutDevices.getAt(index);
    if (!device) return;
    const bool isSequencer = device->source == CMIDIDevice::Source::sequencer;
    const auto closeIt = [&] {
        if (!device->isOpen.load()) return;
        CMIDIDevice* expected = device;
        streamDevice.compare_exchange_strong(expected, nullptr);
        device->isOpen.store(0);
        if (isSequencer) midiSystem_->closeOutput(device->systemIndex);
    };
    closeIt();
    if (!openIt) return;
    streamDevice.store(nullptr);
    if (isSequencer && !midiSystem_->openOutput(device->systemIndex)) return;
    device->isOpen.store(1);
    streamDevice.store(device);
}

void CAAM::midiInput(uint32_t message, int32_t device) {
    if (dropped(message)) return;
    const CMIDIDevice* from = midiInDevices.getAt(device);
    if (!from || !from->isOpen.load(std::memory_order_relaxed)) return;
    platform::ScopedLock lock(midiLock);
    // A burst beyond the buffer waits for no one: the rest of it is dropped.
    if (midiCount_ < maxRecords) records_[midiCount_++] = {message, static_cast<uint32_t>(device), 0};
}

std::span<const CMIDIRecord> CAAM::audioBlock(const float* const* inputs, float* const* outputs, int32_t ins,
                                               int32_t outs, int32_t frames) {
    ins = std::clamp(ins, 0, maxChannels);
    outs = std::clamp(outs, 0, maxChannels);
    if (!running_.load(std::memory_order_acquire) || !callback.function) {
        for (int32_t c = 0; c < outs; ++c) std::fill_n(outputs[c], frames, 0.0f);
        return {};
    }
    int32_t count = 0;
    {
        platform::ScopedLock lock(midiLock);
        count = midiCount_;
        std::memmove(audioRecords_, records_, static_cast<size_t>(count) * sizeof(CMIDIRecord));
        midiCount_ = 0;
    }
    for (int32_t c = 0; c < ins; ++c) inputPointers_[c] = const_cast<float*>(inputs[c]);
    for (int32_t c = 0; c < outs; ++c) outputPointers_[c] = outputs[c];
    const int32_t sent = std::clamp(
        callback.function(callback.context, inputPointers_, outputPointers_, ins, outs, frames, audioRecords_, count), 0,
        maxRecords);
    CMIDIDevice* stream = streamDevice.load(std::memory_order_acquire);
    if (sent == 0 || !stream || !stream->isStream || !stream->isOpen.load(std::memory_order_relaxed)) return {};
    const std::span<const CMIDIRecord> records(audioRecords_, static_cast<size_t>(sent));
    if (stream->source == CMIDIDevice::Source::driverPorts) return records;
    midiSystem_->send(stream->systemIndex, records);
    return {};
}
