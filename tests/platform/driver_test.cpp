// The Linux audio drivers on their own: the null driver's clock, ALSA's "null" device and its "default"
// device routed into a JACK server of the test's own through the ALSA JACK plug-in.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "core/temp_folder.h"
#include "platform/audio_driver.h"
#include "support/jack_peer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int32_t sawLength = 4096;

// Writes a saw of sawLength steps, each value exact in a float and none of them 0, on the left and its
// negative on the right, so that every captured sample tells which frame it was.
class SawHost final : public platform::AudioHost {
public:
    void midiInput(uint32_t, int32_t) override {}
    std::span<const platform::MidiRecord> audioBlock(const float* const*, float* const* outputs, int32_t,
                                                     int32_t outputCount, int32_t frames) override {
        for (int32_t i = 0; i < frames; ++i, ++frame_) {
            const float value = (static_cast<float>(frame_ % sawLength) + 0.5f) / sawLength - 0.5f;
            outputs[0][i] = value;
            if (outputCount > 1) outputs[1][i] = -value;
        }
        blocks.fetch_add(1);
        return {};
    }
    std::atomic<int64_t> blocks{0};

private:
    int64_t frame_ = 0;
};

platform::AudioOpenRequest stereoRequest(int32_t blockSize) {
    platform::AudioOpenRequest request;
    request.blockSize = blockSize;
    request.sampleRate = 48000.0;
    request.outputEnabled[0] = request.outputEnabled[1] = true;
    request.connectPorts = false;
    return request;
}

// Blocks asked for in `seconds`, and the most the clock allows in that time with `slack` blocks ahead.
void expectPaced(platform::AudioDriver& driver, const platform::AudioOpenRequest& request, double seconds, int64_t slack) {
    SawHost host;
    const platform::AudioOpenResult opened = driver.open(request, host);
    ASSERT_TRUE(opened.ok) << opened.error;
    const auto started = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    driver.close();
    const int64_t blocks = host.blocks.load();
    const auto allowed = static_cast<int64_t>(elapsed * opened.sampleRate / opened.blockSize) + slack;
    EXPECT_GT(blocks, 0);
    EXPECT_LE(blocks, allowed) << "the driver runs ahead of its clock";
}

TEST(NullDriver, AsksForBlocksAtTheRateOfItsClock) {
    auto driver = platform::makeAudioDriver(platform::driverNull);
    ASSERT_TRUE(driver);
    ASSERT_EQ(driver->devices().size(), 1u);
    expectPaced(*driver, stereoRequest(480), 0.5, 2);
}

TEST(AlsaDriver, TheNullDeviceIsHeldToTheClock) {
    auto driver = platform::makeAudioDriver(platform::driverAlsa);
    platform::AudioOpenRequest request = stereoRequest(512);
    request.deviceName = "null";
    expectPaced(*driver, request, 0.5, 4);
}

TEST(AlsaDriver, PlaysEverySampleIntoJackThroughThePlugin) {
    jacktest::Server server(48000, 256);
    ASSERT_TRUE(server.ready()) << "jackd did not start";
    jacktest::Peer ears("ears", 2, 48000 * 3);
    ASSERT_TRUE(ears.ok());
    TempFolder folder;
    const std::string config = folder.file("asoundrc");
    std::ofstream(config) << "pcm.!default { type plug slave.pcm \"vtjack\" }\n"
                             "pcm.vtjack { type jack playback_ports { 0 ears:in_1 1 ears:in_2 } }\n";
    // The system's configuration and ours, never the user's.
    setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + config).c_str(), 1);
    setenv("HOME", folder.file("").c_str(), 1);

    auto driver = platform::makeAudioDriver(platform::driverAlsa);
    SawHost host;
    platform::AudioOpenRequest request = stereoRequest(1024);
    request.deviceName = "default";
    const platform::AudioOpenResult opened = driver->open(request, host);
    ASSERT_TRUE(opened.ok) << opened.error;
    EXPECT_EQ(opened.sampleRate, 48000.0);
    ASSERT_TRUE(ears.waitFrames(48000 * 3, 120.0));
    driver->close();

    // The longest stretch in which every frame follows the one before, on both sides.
    const std::vector<float> left = ears.captured(0), right = ears.captured(1);
    const auto step = [](float v) { return static_cast<int32_t>((v + 0.5f) * sawLength); };  // truncates the half
    int64_t run = 0, longest = 0;
    for (size_t i = 1; i < left.size(); ++i) {
        const bool follows = step(left[i]) == (step(left[i - 1]) + 1) % sawLength && right[i] == -left[i] &&
                             left[i] != 0.0f && left[i - 1] != 0.0f;
        run = follows ? run + 1 : 0;
        longest = std::max(longest, run);
    }
    EXPECT_GE(longest, 48000) << "a second of the saw, sample for sample";
}

TEST(JackDriver, WithoutAServerThereIsNoDeviceAndOpeningSaysWhy) {
    setenv("JACK_DEFAULT_SERVER", ("vt-none-" + std::to_string(getpid())).c_str(), 1);
    auto driver = platform::makeAudioDriver(platform::driverJack);
    EXPECT_TRUE(driver->devices().empty());
    SawHost host;
    const platform::AudioOpenResult opened = driver->open(stereoRequest(256), host);
    EXPECT_FALSE(opened.ok);
    EXPECT_NE(opened.error.find("is not running"), std::string::npos) << opened.error;
    driver->close();
    EXPECT_EQ(host.blocks.load(), 0);
}

}  // namespace
