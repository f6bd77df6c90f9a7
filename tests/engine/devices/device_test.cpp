// The device layer with real drivers: a JACK server of the test's own (dummy backend) and the program's
// client heard by a second client, the ALSA driver on a bad device, and the engine's callback itself.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/temp_folder.h"
#include "demo_song.h"
#include "engine/aam.h"
#include "engine/device_cycle.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "files/project.h"
#include "generated/cli_path.h"
#include "sound/sampler.h"
#include "support/jack_peer.h"
#include "support/rt_probe.h"

namespace {

using namespace std::chrono_literals;

constexpr int32_t period = 256;
constexpr double rate = 48000.0;

// A source that holds its two sides at fixed values.
class Level : public CComp {
public:
    Level(CQV* engine, float left, float right) : CComp(engine), left(left), right(right) {}
    void createPorts() override { addOutputChannel(); }
    void processBlock(int32_t frames) override {
        std::fill_n(firstOutputChannel()->left(), frames, left);
        std::fill_n(firstOutputChannel()->right(), frames, right);
    }
    float left, right;
};

template <class T>
T* add(CQV& engine, T* comp) {
    comp->createPorts();
    engine.addComp(comp);
    return comp;
}

void cable(CComp& from, CComp& to) {
    to.audioCablesIn.add(makeAudioCable(&to, from.firstOutputChannel(), to.firstInputChannel()));
}

// The engine's callback, counted, so that the test's thread can see blocks go by.
struct CountedEngine {
    explicit CountedEngine(CQV& engine) : engine(engine) {}
    CQV& engine;
    std::atomic<int64_t> blocks{0};

    static int32_t call(void* self, float** inputs, float** outputs, int32_t inputCount, int32_t outputCount,
                        int32_t frames, CMIDIRecord* records, int32_t recordCount) {
        auto* counted = static_cast<CountedEngine*>(self);
        counted->blocks.fetch_add(1, std::memory_order_relaxed);
        return audioCallback(counted->engine, inputs, outputs, inputCount, outputCount, frames, records, recordCount);
    }

    bool goesOn() const {
        const int64_t before = blocks.load();
        for (int i = 0; i < 500 && blocks.load() < before + 5; ++i) std::this_thread::sleep_for(10ms);
        return blocks.load() >= before + 5;
    }
};

// Opens a CAAM on the engine with channels 0 and 1 both ways, ports left unconnected.
std::unique_ptr<CAAM> openAudio(CountedEngine& counted, int32_t driver, std::vector<std::string>* messages = nullptr) {
    auto aam = std::make_unique<CAAM>(CAudioCallback{&CountedEngine::call, &counted}, driver);
    attachEngine(*aam, counted.engine);
    aam->inputEnabled[0] = aam->inputEnabled[1] = 1;
    aam->outputEnabled[0] = aam->outputEnabled[1] = 1;
    aam->connectPorts = false;
    aam->blockSize = period;
    aam->sampleRate = static_cast<float>(rate);
    if (messages)
        aam->showMessage = [messages](const char* title, const char* text) { messages->push_back(std::string(title) + ": " + text); };
    return aam;
}

// The transport starts at the end of a cycle, on the audio thread, as an edit from the GUI would.
void startOnAudioThread(CQV& engine) {
    engine.defer({[](void* self, void*) { static_cast<CQV*>(self)->start(); }, &engine}, nullptr);
}

int64_t firstSound(const std::vector<float>& samples, float threshold = 1e-4f) {
    for (size_t i = 0; i < samples.size(); ++i)
        if (std::abs(samples[i]) > threshold) return static_cast<int64_t>(i);
    return -1;
}

// The interleaved float samples of a 32-bit float WAV file, from its "data" chunk.
std::vector<float> readFloatWav(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (size_t at = 12; at + 8 <= bytes.size();) {
        uint32_t size = 0;
        std::copy_n(bytes.begin() + static_cast<long>(at) + 4, 4, reinterpret_cast<char*>(&size));
        if (std::string(bytes.begin() + static_cast<long>(at), bytes.begin() + static_cast<long>(at) + 4) == "data") {
            const size_t count = std::min<size_t>(size, bytes.size() - at - 8) / sizeof(float);
            std::vector<float> samples(count);
            std::copy_n(bytes.begin() + static_cast<long>(at) + 8, count * sizeof(float), reinterpret_cast<char*>(samples.data()));
            return samples;
        }
        at += 8 + size + (size & 1);
    }
    return {};
}

TEST(DeviceCallback, MixesLimitsAndExchangesRecordsLikeTheDevice) {
    CQV engine(EngineOptions{false, 1});
    engine.setBlockSize(period);
    auto* loud = add(engine, new Level(&engine, 3.0f, -0.2f));
    auto* quiet = add(engine, new Level(&engine, 0.8f, 0.4f));
    auto* stereo = add(engine, new CAudioOut(&engine));
    auto* mono = add(engine, new CAudioOut(&engine));
    auto* beyond = add(engine, new CAudioOut(&engine));
    cable(*loud, *stereo);
    cable(*quiet, *mono);
    cable(*quiet, *beyond);
    mono->channels = 1;
    mono->deviceLeft = 2;
    beyond->deviceLeft = 5;
    beyond->deviceRight = 6;
    auto* allDevices = add(engine, new CMIDIIn(&engine));
    auto* deviceThree = add(engine, new CMIDIIn(&engine));
    deviceThree->device = 3;
    auto* out = add(engine, new CMIDIOut(&engine));
    out->device = 7;
    auto* outThree = add(engine, new CMIDIOut(&engine));
    outThree->device = 9;
    out->midiCablesIn.add(makeMIDICable(out, allDevices->firstOutputPort(), out->firstInputPort()));
    outThree->midiCablesIn.add(makeMIDICable(outThree, deviceThree->firstOutputPort(), outThree->firstInputPort()));

    // Longer than the engine's block: run in pieces, every frame written.
    constexpr int32_t frames = 600;
    std::vector<std::vector<float>> device(3, std::vector<float>(frames, 9.0f));
    float* outputs[3] = {device[0].data(), device[1].data(), device[2].data()};
    CMIDIRecord records[CAAM::maxRecords] = {{0x403C90, 3, 0}, {0x403E90, 1, 0}};
    engine.monitorGain = 0.5f;
    const int32_t sent = audioCallback(engine, nullptr, outputs, 0, 3, frames, records, 2);

    for (int32_t i : {0, 255, 256, 599}) {
        EXPECT_FLOAT_EQ(device[0][static_cast<size_t>(i)], 0.75f) << i;    // 3.0 * 0.25
        EXPECT_FLOAT_EQ(device[1][static_cast<size_t>(i)], -0.05f) << i;
        EXPECT_FLOAT_EQ(device[2][static_cast<size_t>(i)], 0.15f) << i;    // the average, not the sum
    }
    engine.monitorGain = 1.0f;
    audioCallback(engine, nullptr, outputs, 0, 3, period, records, 0);
    EXPECT_FLOAT_EQ(device[0][0], 1.0f);  // limited after the gain

    // Device -1 takes both records, device 3 only its own; each MIDI output names its device.
    ASSERT_EQ(sent, 3);
    EXPECT_EQ(records[0].midi, 0x403C90u);
    EXPECT_EQ(records[1].midi, 0x403E90u);
    EXPECT_EQ(records[1].device, 7u);
    EXPECT_EQ(records[1].frame, 0u);
    EXPECT_EQ(records[2].midi, 0x403C90u);
    EXPECT_EQ(records[2].device, 9u);
}

TEST(DeviceCallback, StaysSilentWhileTheEngineIsHeld) {
    CQV engine(EngineOptions{false, 1});
    engine.setBlockSize(period);
    auto* loud = add(engine, new Level(&engine, 0.5f, 0.5f));
    cable(*loud, *add(engine, new CAudioOut(&engine)));
    std::vector<float> left(period, 9.0f), right(period, 9.0f);
    float* outputs[2] = {left.data(), right.data()};
    CMIDIRecord records[CAAM::maxRecords] = {{0x403C90, 0, 0}};
    engine.loading.store(true);
    EXPECT_EQ(audioCallback(engine, nullptr, outputs, 0, 2, period, records, 1), 0);
    EXPECT_EQ(*std::max_element(left.begin(), left.end()), 0.0f);
    engine.loading.store(false);
    audioCallback(engine, nullptr, outputs, 0, 2, period, records, 0);
    EXPECT_FLOAT_EQ(left[0], 0.5f);
}

TEST(JackDevice, PlaysTheSameAudioAsTheOfflineRender) {
    // The render runs blocks of the engine's default size; at the same size the blocks cut the song at
    // the same frames, so the sequencer rounds every event to the same frame.
    constexpr int32_t renderBlock = 1024;
    jacktest::Server server(static_cast<int32_t>(rate), renderBlock);
    ASSERT_TRUE(server.ready()) << "jackd did not start";
    TempFolder folder;
    const std::string rendered = folder.file("render.wav");
    const std::string command = std::string(cliPath) + " render --demo --rate 48000 --bits 32f -o " + rendered + " > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::vector<float> offline = readFloatWav(rendered);
    ASSERT_GT(offline.size(), 2u * 48000u);

    constexpr int64_t seconds = 3;
    jacktest::Peer ears("ears", 2, seconds * static_cast<int64_t>(rate));
    ASSERT_TRUE(ears.ok());
    demo::DemoSong song(rate);
    CountedEngine counted(song.engine);
    auto aam = openAudio(counted, platform::driverJack);
    ASSERT_TRUE(aam->startAudio(platform::driverJack, 0, false)) << aam->lastError.c_str();
    EXPECT_EQ(aam->blockSize, renderBlock);
    EXPECT_EQ(song.engine.blockSize, renderBlock);
    ASSERT_TRUE(ears.connect("vantrell:out_1", ears.portName("in_1")));
    ASSERT_TRUE(ears.connect("vantrell:out_2", ears.portName("in_2")));
    startOnAudioThread(song.engine);
    ASSERT_TRUE(ears.waitFrames(seconds * static_cast<int64_t>(rate), 120.0));
    aam->closeDevice();

    const std::vector<float> left = ears.captured(0), right = ears.captured(1);
    const int64_t start = firstSound(left);
    int64_t offlineStart = -1;
    for (size_t i = 0; i < offline.size() / 2 && offlineStart < 0; ++i)
        if (std::abs(offline[2 * i]) > 1e-4f) offlineStart = static_cast<int64_t>(i);
    ASSERT_GE(start, 0);
    ASSERT_GE(offlineStart, 0);
    const int64_t compared = static_cast<int64_t>(left.size()) - start - renderBlock;
    ASSERT_GT(compared, 48000);
    int64_t differing = 0;
    for (int64_t i = 0; i < compared; ++i) {
        const auto at = static_cast<size_t>(offlineStart + i);
        const auto live = static_cast<size_t>(start + i);
        differing += left[live] != offline[2 * at] || right[live] != offline[2 * at + 1];
    }
    EXPECT_EQ(differing, 0) << "frames that differ from the render, of " << compared;
}

TEST(JackDevice, ANoteFromAnotherClientSoundsWithinAPeriodAndABlock) {
    jacktest::Server server(static_cast<int32_t>(rate), period);
    ASSERT_TRUE(server.ready()) << "jackd did not start";
    CQV engine(EngineOptions{false, 1});
    registerSoundComponents();
    auto* input = add(engine, new CMIDIIn(&engine));
    auto* sampler = add(engine, new CSampler(&engine));
    auto* out = add(engine, new CAudioOut(&engine));
    sampler->midiCablesIn.add(makeMIDICable(sampler, input->firstOutputPort(), sampler->firstInputPort()));
    cable(*sampler, *out);

    jacktest::Peer keys("keys", 0, 0);
    jacktest::Peer ears("ears", 1, 4 * static_cast<int64_t>(rate));
    ASSERT_TRUE(keys.ok() && ears.ok());
    CountedEngine counted(engine);
    auto aam = openAudio(counted, platform::driverJack);
    ASSERT_TRUE(aam->startAudio(platform::driverJack, 0, false)) << aam->lastError.c_str();
    aam->setMIDIIn(0, 1);
    ASSERT_TRUE(keys.connect(keys.portName("midi_out"), "vantrell:midi_in"));
    ASSERT_TRUE(ears.connect("vantrell:out_1", ears.portName("in_1")));
    ASSERT_TRUE(ears.waitFrames(static_cast<int64_t>(rate) / 2, 60.0));

    // A clock tick is dropped on the way in; the note is not.
    keys.sendMidi(0xF8);
    while (keys.sentAt() < 0) std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(ears.waitFrames(keys.sentAt() - ears.firstFrame() + 4 * period, 60.0));
    EXPECT_EQ(firstSound(ears.captured(0)), -1);
    const bool probing = rtprobe::available();
    int64_t allocations = 0, locks = 0;
    {
        rtprobe::Scope probe;
        keys.sendMidi(0x643C90);
        while (keys.sentAt() < 0 || ears.firstFrame() + ears.capturedFrames() < keys.sentAt() + 8 * period)
            std::this_thread::sleep_for(5ms);
        allocations = probe.allocations();
        locks = probe.locksOtherThan(aam->midiLock.identity());
    }
    const std::vector<float> heard = ears.captured(0);
    aam->closeDevice();
    if (probing) {
        EXPECT_EQ(allocations, 0) << "the audio callback allocated";
        EXPECT_EQ(locks, 0) << "the audio callback took a lock other than midiLock";
    }
    const int64_t sound = firstSound(heard);
    ASSERT_GE(sound, 0) << "the note was not heard";
    const int64_t delay = ears.firstFrame() + sound - keys.sentAt();
    RecordProperty("delay_frames", static_cast<int>(delay));
    EXPECT_GE(delay, 0);
    EXPECT_LT(delay, period + period) << "frames from the note's cycle to its sound";
}

// Sends one note at a frame inside the block, every block.
class Pulse : public CComp {
public:
    static constexpr int32_t at = 100;
    explicit Pulse(CQV* engine) : CComp(engine) {}
    void createPorts() override { addOutputPort(); }
    void processBlock(int32_t /*frames*/) override { firstOutputPort()->appendEvent(at, 0x503090); }
};

TEST(JackDevice, MIDIOutputLeavesAtTheFrameOfItsEvent) {
    jacktest::Server server(static_cast<int32_t>(rate), period);
    ASSERT_TRUE(server.ready()) << "jackd did not start";
    CQV engine(EngineOptions{false, 1});
    auto* pulse = add(engine, new Pulse(&engine));
    auto* out = add(engine, new CMIDIOut(&engine));
    out->midiCablesIn.add(makeMIDICable(out, pulse->firstOutputPort(), out->firstInputPort()));
    jacktest::Peer ears("ears", 0, 0);
    ASSERT_TRUE(ears.ok());
    CountedEngine counted(engine);
    auto aam = openAudio(counted, platform::driverJack);
    ASSERT_TRUE(aam->startAudio(platform::driverJack, 0, false));
    aam->setMIDIOut(0, 1);
    ASSERT_TRUE(ears.connect("vantrell:midi_out", ears.portName("midi_in")));
    for (int i = 0; i < 1000 && ears.midiHeard().size() < 8; ++i) std::this_thread::sleep_for(10ms);
    aam->closeDevice();
    const auto heard = ears.midiHeard();
    ASSERT_GE(heard.size(), 8u);
    for (const auto& note : heard) {
        EXPECT_EQ(note.midi, 0x503090u);
        EXPECT_EQ(note.frame % period, Pulse::at) << "frame in its block";
    }
}

TEST(JackDevice, WithoutAServerTheNullDriverRunsAfterAMessage) {
    setenv("JACK_DEFAULT_SERVER", ("vt-none-" + std::to_string(getpid())).c_str(), 1);
    setenv("JACK_NO_START_SERVER", "1", 1);
    CQV engine(EngineOptions{false, 1});
    std::vector<std::string> messages;
    CountedEngine counted(engine);
    auto aam = openAudio(counted, platform::driverJack, &messages);
    EXPECT_FALSE(aam->startAudio(platform::driverJack, 0, false));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], "Audio driver not found: No Audio drivers found on your system?");
    EXPECT_EQ(aam->driver, platform::driverNull);
    EXPECT_TRUE(aam->open.load());
    EXPECT_TRUE(counted.goesOn());
}

TEST(JackDevice, AServerThatStopsLeavesTheNullDriverRunning) {
    auto server = std::make_unique<jacktest::Server>(static_cast<int32_t>(rate), period);
    ASSERT_TRUE(server->ready()) << "jackd did not start";
    CQV engine(EngineOptions{false, 1});
    std::vector<std::string> messages;
    CountedEngine counted(engine);
    auto aam = openAudio(counted, platform::driverJack, &messages);
    aam->connectPorts = true;
    ASSERT_TRUE(aam->startAudio(platform::driverJack, 0, false));
    EXPECT_TRUE(counted.goesOn());
    {
        jacktest::Peer look("look", 0, 0);
        EXPECT_TRUE(look.connected("vantrell:out_2", "system:playback_2"));
        EXPECT_TRUE(look.connected("system:capture_1", "vantrell:in_1"));
    }
    server.reset();
    for (int i = 0; i < 500 && aam->driver != platform::driverNull; ++i) {
        aam->guiTick();
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(aam->driver, platform::driverNull);
    EXPECT_FALSE(messages.empty());
    EXPECT_TRUE(counted.goesOn());
}

TEST(AlsaDevice, ABadDeviceNameIsNamedInTheMessageAndTheNullDriverRuns) {
    CQV engine(EngineOptions{false, 1});
    std::vector<std::string> messages;
    CountedEngine counted(engine);
    auto aam = openAudio(counted, platform::driverAlsa, &messages);
    aam->deviceName = "no-such-device-here";
    EXPECT_FALSE(aam->startAudio(platform::driverAlsa, 0, false));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find("no-such-device-here"), std::string::npos) << messages[0];
    EXPECT_EQ(aam->driver, platform::driverNull);
    EXPECT_TRUE(counted.goesOn());
}

struct CliRun {
    int status = -1;
    std::string output;
};

CliRun runCli(const std::string& arguments) {
    CliRun run;
    FILE* pipe = popen((std::string(cliPath) + " " + arguments + " 2>&1").c_str(), "r");
    if (!pipe) return run;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe)) run.output += buffer;
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

TEST(PlayCommand, PlaysWithoutSoundWhenTheDriverHasNoDeviceAndRefusesBadOptions) {
    setenv("JACK_DEFAULT_SERVER", ("vt-none-" + std::to_string(getpid())).c_str(), 1);
    const CliRun noServer = runCli("play --demo --driver jack --seconds 0.3");
    EXPECT_EQ(noServer.status, 0) << noServer.output;
    EXPECT_NE(noServer.output.find("No Audio drivers found on your system?"), std::string::npos) << noServer.output;
    EXPECT_NE(noServer.output.find("null driver"), std::string::npos) << noServer.output;

    const CliRun badDevice = runCli("play --demo --driver alsa --device no-such-device-here --seconds 0.3");
    EXPECT_EQ(badDevice.status, 0) << badDevice.output;
    EXPECT_NE(badDevice.output.find("no-such-device-here"), std::string::npos) << badDevice.output;

    for (const char* wrong : {"play", "play --demo --driver asio", "play --demo --seconds -1", "play --demo --seconds"})
        EXPECT_EQ(runCli(wrong).status, 2) << wrong;
}

TEST(PlayCommand, PlaysAProjectAndRefusesFilesItCannotRead) {
    TempFolder folder;
    const std::string project = folder.file("demo.qv");
    {
        demo::DemoSong song(rate);
        ASSERT_TRUE(files::saveProject(song.engine, project.c_str()));
    }
    const CliRun played = runCli("play " + project + " --driver null --seconds 0.3");
    EXPECT_EQ(played.status, 0) << played.output;
    EXPECT_NE(played.output.find("playing " + project), std::string::npos) << played.output;

    const std::string notProject = folder.file("text.qv");
    std::ofstream(notProject) << "not a project";
    EXPECT_EQ(runCli("play " + notProject + " --driver null --seconds 0.3").status, 1);
    EXPECT_EQ(runCli("play " + folder.file("missing.mid") + " --driver null --seconds 0.3").status, 1);
}

}  // namespace
