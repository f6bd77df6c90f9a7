#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "demo_song.h"
#include "files/render.h"
#include "sound/sampler.h"
#include "support/engine_graph.h"

namespace {

using files::SampleFormat;
using files::AudioWriter;

class Render : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("vantrell_render_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "_" +
               std::to_string(std::random_device{}()));  // several builds may run the suite at once
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    static std::vector<float> readFloats(const std::filesystem::path& path) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        std::vector<float> values((bytes.size() - files::wavHeaderBytes) / 4);
        std::memcpy(values.data(), bytes.data() + files::wavHeaderBytes, values.size() * 4);
        return values;
    }

    std::filesystem::path dir;
};

// A sampler playing one held note into an audio output: the engine with no sequencer.
struct Tone {
    Tone() : engine(EngineOptions{false, 1}) {
        registerSoundComponents();
        engine.setSampleRate(48000.0);
        out = testgraph::add<CAudioOut>(engine);
        in = testgraph::add<CMIDIIn>(engine);
        sampler = testgraph::add<CSampler>(engine);
        testgraph::connectMIDI(*in, *sampler);
        testgraph::connectAudio(*sampler, *out);
    }
    CQV engine;
    CAudioOut* out;
    CMIDIIn* in;
    CSampler* sampler;
};

TEST_F(Render, LengthFollowsTheTempoAndTheEngineIsGivenBack) {
    Tone tone;
    tone.engine.bpm = 120.0f;
    tone.engine.bpmTarget = 120.0f;
    tone.engine.setPosition(123.0);
    struct Row {
        int32_t rate, lengthTicks;
        int64_t frames;
    };
    // 1920 ticks a second at 120 BPM.
    for (const Row& row : {Row{48000, 3840, 96000}, Row{44100, 960, 22050}, Row{22050, 1000, 11484}}) {
        AudioWriter writer(dir / "t.wav", {row.rate, 2, SampleFormat::float32});
        const auto result = files::renderOffline(tone.engine, {0, row.lengthTicks}, writer);
        EXPECT_EQ(result.frames, row.frames) << row.rate;
        EXPECT_EQ(writer.frames(), row.frames);
        EXPECT_EQ(tone.engine.sampleRate, 48000.0f) << "the old rate comes back";
        EXPECT_EQ(tone.engine.position.load(), 123.0) << "the old position comes back";
        EXPECT_FALSE(tone.engine.playing.load());
    }
}

TEST_F(Render, WritesTheFirstOutputClippedAndReportsThePeak) {
    Tone tone;
    tone.sampler->currentProgram()->layers.getAt(0)->sounds.getAt(0)->volume = 40.0f;  // far beyond full scale
    const auto path = dir / "loud.wav";
    AudioWriter writer(path, {48000, 2, SampleFormat::float32});
    tone.engine.beginCycle(1);
    tone.in->firstOutputPort()->addEvent(0.0, packMIDI(0x90, 60, 127));
    tone.engine.process(1);
    const auto result = files::renderOffline(tone.engine, {0, 1920}, writer);
    writer.commit();
    const auto values = readFloats(path);
    ASSERT_EQ(values.size(), static_cast<size_t>(2 * result.frames));
    float peak = 0.0f;
    for (float v : values) peak = std::max(peak, std::abs(v));
    EXPECT_EQ(peak, 1.0f) << "float files hold what the render clipped";
    EXPECT_EQ(result.peak, 1.0f);
}

TEST_F(Render, ProgressRisesToOneAndCanCancel) {
    Tone tone;
    std::vector<double> seen;
    {
        AudioWriter writer(dir / "p.wav", {48000, 2, SampleFormat::int16});
        const auto result = files::renderOffline(tone.engine, {0, 3840 * 4}, writer, [&](double done) {
            seen.push_back(done);
            return true;
        });
        EXPECT_FALSE(result.cancelled);
    }
    ASSERT_EQ(seen.size(), 384000u / 32768u + 1u);
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_GT(seen[i], seen[i - 1]);
    EXPECT_EQ(seen.back(), 1.0);

    AudioWriter writer(dir / "c.wav", {48000, 2, SampleFormat::int16});
    const auto cancelled = files::renderOffline(tone.engine, {0, 3840 * 4}, writer, [](double) { return false; });
    EXPECT_TRUE(cancelled.cancelled);
    EXPECT_LT(cancelled.frames, 40000);
    EXPECT_GE(cancelled.frames, 32768);
}

// A graph whose path to the output reports latency is rendered from the frame the song starts at, so the
// file is the same as that of the graph without the latency.
TEST_F(Render, FramesOfTheDelayCompensationAreDropped) {
    const auto renderWith = [&](int32_t latency, const char* name) {
        CQV engine(EngineOptions{false, 1});
        engine.setSampleRate(48000.0);
        auto* out = testgraph::add<CAudioOut>(engine);
        auto* source = testgraph::add<testgraph::Source>(engine, 3);
        auto* stage = testgraph::add<testgraph::Stage>(engine, 1.0f, latency);
        testgraph::connectAudio(*source, *stage);
        testgraph::connectAudio(*stage, *out);
        engine.raise(change::latency);  // as an edit of the graph does; the render's first cycle sees it
        AudioWriter writer(dir / name, {48000, 2, SampleFormat::float32});
        const auto result = files::renderOffline(engine, {0, 960}, writer);
        writer.commit();
        EXPECT_EQ(result.frames, 24000);
        EXPECT_EQ(engine.mainMaxLatency, latency);
        return readFloats(dir / name);
    };
    const auto plain = renderWith(0, "plain.wav");
    const auto late = renderWith(300, "late.wav");
    ASSERT_EQ(plain.size(), late.size());
    EXPECT_NE(plain[2], 0.0f);
    for (size_t i = 0; i < plain.size(); ++i) ASSERT_EQ(plain[i], late[i]) << i;
}

TEST_F(Render, NoAudioOutputIsAnError) {
    CQV engine(EngineOptions{false, 1});
    AudioWriter writer(dir / "n.wav", {48000, 2, SampleFormat::int16});
    EXPECT_THROW(files::renderOffline(engine, {0, 960}, writer), files::FileError);
}

TEST_F(Render, DemoSongFollowsItsTempoChangeAndSounds) {
    demo::DemoSong song(48000.0);
    const auto path = dir / "demo.wav";
    AudioWriter writer(path, {48000, 2, SampleFormat::float32});
    const auto result = files::renderOffline(song.engine, {0, song.lengthTicks()}, writer);
    writer.commit();
    // Eight bars at 100 BPM, then the rest at 124; the change lands on a block boundary.
    const int32_t bars = song.lengthTicks() / 3840;
    const double seconds = 8 * 4 * 60.0 / 100.0 + (bars - 8) * 4 * 60.0 / 124.0;
    EXPECT_NEAR(static_cast<double>(result.frames), seconds * 48000.0, song.engine.blockSize);
    EXPECT_GE(seconds, 30.0);
    const auto values = readFloats(path);
    // Every second of the song holds sound, and the last bar's tail fades.
    for (size_t second = 0; second + 1 < static_cast<size_t>(seconds) - 1; ++second) {
        double energy = 0.0;
        for (size_t i = second * 96000; i < (second + 1) * 96000; ++i) energy += values[i] * values[i];
        EXPECT_GT(energy / 96000.0, 1e-4) << "second " << second;
    }
    EXPECT_LE(result.peak, 1.0f);
    EXPECT_GT(result.peak, 0.1f);
}

}  // namespace
