#include "fx/reverb.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr int32_t sineSize = 65536;

// The line LFOs' own sine, one cycle of sin(2 pi i / 65536), built once.
const float* lineSine() {
    static const std::unique_ptr<float[]> table = [] {
        auto values = std::make_unique<float[]>(sineSize);
        for (int32_t i = 0; i < sineSize; ++i)
            values[i] = static_cast<float>(std::sin(2.0 * std::numbers::pi * i / sineSize));
        return values;
    }();
    return table.get();
}

// The line LFOs run at 2 Hz of a 44.1 kHz stream whatever the rate, like the line lengths, which are
// samples and not times.
constexpr double lineInc = 2.0 / 44100.0;
constexpr int32_t lineDepth = 6;

// How each line reaches the outputs: left alternates, right alternates in pairs.
constexpr std::array<float, CReverb::lineCount> signLeft = {1, -1, 1, -1, 1, -1, 1, -1, 1, -1, 1, -1};
constexpr std::array<float, CReverb::lineCount> signRight = {1, 1, -1, -1, 1, 1, -1, -1, 1, 1, -1, -1};

// Input and output below this energy over a block count as silence.
constexpr float silence = 1e-10f;

} // namespace

MDelayLine::MDelayLine(int32_t length) : length(length), size(length + margin), readIndex(margin) {}

void MDelayLine::allocate() {
    if (!buffer) buffer = std::make_unique<float[]>(size);
}

void MDelayLine::reset() {
    if (buffer) std::fill_n(buffer.get(), size, 0.0f);
}

MModDelayLine::MModDelayLine(int32_t delay, int32_t depth, double startPhase, double inc)
    : MDelayLine(delay), readPos(static_cast<float>(margin)), depth(depth), delay(delay), phase(startPhase),
      inc(inc), sine_(lineSine()) {}

void MModDelayLine::reset() {
    MDelayLine::reset();
    prev = 0.0f;
}

float MModDelayLine::nextPosition() {
    const float m =
        static_cast<float>(depth) * sine_[static_cast<int64_t>(phase * sineSize) & (sineSize - 1)] + readPos;
    // Taking off a whole cycle is exact here, so the table index is what an unbounded phase would give.
    phase += inc;
    if (phase >= 1.0) phase -= 1.0;
    readPos += 1.0f;
    if (readPos >= static_cast<float>(size)) readPos -= static_cast<float>(size);
    return m;
}

float MSVRAP1ModDelayLine::readModulated() {
    const float m = nextPosition();
    const float whole = std::floor(m);
    const float f = m - whole;
    const int32_t n = wrap(static_cast<int32_t>(whole));
    const int32_t next = n + 1 == size ? 0 : n + 1;
    const float out = buffer[n] + (buffer[next] - prev) * f;
    prev = out;
    return out;
}

CReverb::CReverb()
    : CFX(fxReverb), modLines{{MSVRAP1ModDelayLine(601, lineDepth, 0.0 / 8.0, lineInc),
                               MSVRAP1ModDelayLine(691, lineDepth, 1.0 / 8.0, lineInc),
                               MSVRAP1ModDelayLine(773, lineDepth, 2.0 / 8.0, lineInc),
                               MSVRAP1ModDelayLine(839, lineDepth, 3.0 / 8.0, lineInc),
                               MSVRAP1ModDelayLine(919, lineDepth, 4.0 / 8.0, lineInc),
                               MSVRAP1ModDelayLine(997, lineDepth, 5.0 / 8.0, lineInc)}},
      lines{{MDelayLine(1061), MDelayLine(1093), MDelayLine(1129), MDelayLine(1151), MDelayLine(1171),
             MDelayLine(1187)}} {
    setName("Reverb");
    dry = 1.0f;
    wet = 0.2f;
    updateCoefficients();
}

void CReverb::setPreDelay(int32_t ms) {
    preDelay = std::clamp(ms, 0, 250);
}

void CReverb::setSizeMs(int32_t ms) {
    size = std::max(ms, 1000);
    updateCoefficients();
}

void CReverb::setSize(float ms) {
    // Whole seconds of a stored float; the "reverbSize" word that follows it in a file gives the ms.
    const float limited = std::isnan(ms) ? 0.0f : std::clamp(ms, 0.0f, 2.0e9f);
    setSizeMs(static_cast<int32_t>(limited) / 1000 * 1000);
}

void CReverb::updateCoefficients() {
    const double seconds = size * 0.001;
    // The one-pole filter behind each line loses high frequencies 2.4 times faster than low ones.
    const double hfFactor = 1.0 - 1.0 / ((1.0 / 2.4) * (1.0 / 2.4));
    for (int32_t i = 0; i < lineCount; ++i) {
        const double length = i < modulatedLines ? modLines[i].delay : lines[i - modulatedLines].length;
        const double g = std::pow(10.0, -3.0 * length / (sampleRate * seconds));
        const double k = 20.0 * std::log10(g) * std::numbers::ln10 / 80.0 * hfFactor;
        filters[i].b = static_cast<float>((1.0 - k) * g);
        filters[i].a = static_cast<float>(-k);
    }
}

void CReverb::setEnabled(bool on) {
    CFX::setEnabled(on);
    if (on) {
        for (auto& line : modLines)
            line.allocate();
        for (auto& line : lines)
            line.allocate();
        preDelayLine.allocate();
    } else {
        clear();
    }
}

void CReverb::clear() {
    for (auto& line : modLines)
        line.reset();
    for (auto& line : lines)
        line.reset();
    for (auto& filter : filters)
        filter.reset();
    preDelayLine.reset();
    activity = idle;
    quietFrames = 0;
}

void CReverb::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    if (!preDelayLine.allocated()) return;
    if (activity == idle) {
        float energy = 0.0f;
        for (int32_t i = 0; i < frames; ++i)
            energy += inL[i] * inL[i] + inR[i] * inR[i];
        if (!(energy > silence)) return;
        activity = running;
        quietFrames = 0;
    }
    const int32_t predelay = std::clamp(
        static_cast<int32_t>(static_cast<float>(preDelay) * sampleRate * 0.001f), 0, preDelayFrames);
    const float level = wet * 0.167f;
    float energy = 0.0f;
    std::array<float, lineCount> y;

    for (int32_t i = 0; i < frames; ++i) {
        const float xl = inL[i];
        const float xr = inR[i];
        const float x = (xl + xr) * 0.5f;
        preDelayLine.write(x);
        const float d = preDelayLine.behind(predelay + 1);

        float accL = x;
        float accR = x;
        for (int32_t k = 0; k < modulatedLines; ++k)
            y[k] = filters[k].process(modLines[k].readModulated());
        for (int32_t k = modulatedLines; k < lineCount; ++k)
            y[k] = filters[k].process(lines[k - modulatedLines].read());
        float sum = 0.0f;
        for (int32_t k = 0; k < lineCount; ++k) {
            accL += signLeft[k] * y[k];
            accR += signRight[k] * y[k];
            sum += y[k];
        }
        // A Householder reflection, -2/12 of the sum to every line, mixes all lines into each.
        const float c = sum * -0.16666667f;
        // Line k takes the output of line k + 1, the last line that of the first.
        for (int32_t k = 0; k < modulatedLines; ++k)
            modLines[k].write(y[k + 1] + c + d);
        for (int32_t k = modulatedLines; k < lineCount; ++k)
            lines[k - modulatedLines].write(y[k + 1 == lineCount ? 0 : k + 1] + c + d);

        outL[i] += accL * level + xl * dry;
        outR[i] += accR * level + xr * dry;
        energy += accL * accL + accR * accR;
    }

    for (auto& line : modLines)
        flushDenormal(line.prev);
    if (energy < silence) {
        quietFrames += frames;
        // What is left after two seconds of silent output is far below hearing; clearing it means a
        // wake starts from silence instead of replaying a stale fragment.
        if (static_cast<float>(quietFrames) >= 2.0f * sampleRate) clear();
    } else {
        quietFrames = 0;
    }
}

void CReverb::saveWords(FXWords& words) const {
    words.setI32(0, preDelay);
    words.setF32(1, static_cast<float>(size));
}

void CReverb::loadWords(const FXWords& words) {
    setPreDelay(words.i32(0));
    setSize(words.f32(1));
}
