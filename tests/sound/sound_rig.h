#pragma once
// A small engine with one sampler for the sound tests: MIDI goes in through a CMIDIIn, the sampler's
// output is read after each cycle. Events are given per cycle with their frame.

#include <cmath>
#include <complex>
#include <cstdint>
#include <vector>

#include "sound/osc_sound.h"
#include "sound/sampler.h"
#include "support/engine_graph.h"

namespace soundtest {

struct Event {
    int32_t cycle;
    double frame;
    uint32_t midi;
};

constexpr uint32_t noteOn(int32_t key, int32_t velocity = 100, int32_t channel = 0) {
    return packMIDI(static_cast<uint8_t>(0x90 | channel), static_cast<uint8_t>(key), static_cast<uint8_t>(velocity));
}
constexpr uint32_t noteOff(int32_t key, int32_t channel = 0) {
    return packMIDI(static_cast<uint8_t>(0x80 | channel), static_cast<uint8_t>(key), 0);
}
constexpr uint32_t control(int32_t number, int32_t value, int32_t channel = 0) {
    return packMIDI(static_cast<uint8_t>(0xB0 | channel), static_cast<uint8_t>(number), static_cast<uint8_t>(value));
}
constexpr uint32_t pitchWheel(int32_t value14) {
    return packMIDI(0xE0, static_cast<uint8_t>(value14 & 0x7F), static_cast<uint8_t>(value14 >> 7));
}

class Rig {
public:
    explicit Rig(int32_t blockFrames = 1024, double sampleRate = 48000.0) : block(blockFrames), engine(EngineOptions{false, 1}) {
        registerSoundComponents();
        engine.setSampleRate(sampleRate);
        engine.setBlockSize(blockFrames);
        out = testgraph::add<CAudioOut>(engine);
        in = testgraph::add<CMIDIIn>(engine);
        sampler = testgraph::add<CSampler>(engine);
        // The tests shape their sounds from the default program rather than from a factory one.
        sampler->programs.deleteAll();
        sampler->programs.add(sampler->makeDefaultProgram());
        testgraph::connectMIDI(*in, *sampler);
        testgraph::connectAudio(*sampler, *out);
    }

    CSynthProg& prog() { return *sampler->currentProgram(); }
    // The only sound of the default program, made plain: one sine per side, nothing detuned.
    COSCSound& plainSound() {
        auto& sound = *static_cast<COSCSound*>(prog().layers.getAt(0)->sounds.getAt(0));
        sound.feed1 = 0.0f;
        sound.detune = 0.0f;
        sound.width = 0.0f;
        return sound;
    }

    // One cycle with the given MIDI (frame, message) pairs, in frame order. A braced list allocates
    // nothing, for the cycles a test runs under the allocation probe.
    template <class Events = std::initializer_list<std::pair<double, uint32_t>>>
    void cycle(const Events& events = {}) {
        engine.beginCycle(block);
        for (const auto& [frame, midi] : events) in->firstOutputPort()->addEvent(frame, midi);
        engine.process(block);
        const COutputChannel* channel = sampler->firstOutputChannel();
        left.insert(left.end(), channel->left(), channel->left() + block);
        right.insert(right.end(), channel->right(), channel->right() + block);
    }
    // Runs cycles until `frames` frames are captured, with events placed by absolute frame.
    void render(int64_t frames, const std::vector<std::pair<int64_t, uint32_t>>& events = {}) {
        const int64_t start = static_cast<int64_t>(left.size());
        size_t next = 0;
        while (static_cast<int64_t>(left.size()) - start < frames) {
            const int64_t base = static_cast<int64_t>(left.size()) - start;
            std::vector<std::pair<double, uint32_t>> now;
            while (next < events.size() && events[next].first < base + block) {
                now.emplace_back(static_cast<double>(events[next].first - base), events[next].second);
                ++next;
            }
            cycle(now);
        }
    }

    int32_t block;
    CQV engine;
    CAudioOut* out;
    CMIDIIn* in;
    CSampler* sampler;
    std::vector<float> left, right;
};

// Peaks of a Hann-windowed stretch of a signal, found to a small fraction of a bin on the Fourier magnitude.
class FourierPeaks {
public:
    FourierPeaks(const std::vector<float>& x, size_t begin, size_t count, double rate) : rate_(rate), windowed_(count) {
        for (size_t n = 0; n < count; ++n)
            windowed_[n] = x[begin + n] * (0.5 - 0.5 * std::cos(2.0 * M_PI * static_cast<double>(n) / static_cast<double>(count)));
    }

    double magnitudeAt(double f) const {
        const std::complex<double> step = std::polar(1.0, -2.0 * M_PI * f / rate_);
        std::complex<double> rotation = 1.0, sum = 0.0;
        for (double v : windowed_) {
            sum += v * rotation;
            rotation *= step;
        }
        return std::abs(sum);
    }

    // The frequency of the largest peak inside [low, high], narrowed by thirds.
    double peak(double low, double high) const {
        while (high - low > 1e-5) {
            const double a = low + (high - low) / 3.0, b = high - (high - low) / 3.0;
            if (magnitudeAt(a) > magnitudeAt(b)) high = b;
            else low = a;
        }
        return (low + high) / 2.0;
    }

private:
    double rate_;
    std::vector<double> windowed_;
};

inline double cents(double f, double reference) { return 1200.0 * std::log2(f / reference); }

}  // namespace soundtest
