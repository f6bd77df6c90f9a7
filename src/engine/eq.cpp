#include "engine/eq.h"

#include <cmath>
#include <numbers>

namespace {

struct Biquad {
    double b0, b1, b2, a0, a1, a2;
};

// The cookbook sections. Shelves take alpha as it is, from Q, with 2 sqrt(A) alpha as their width term.
Biquad design(int32_t type, double A, double cosw, double alpha) {
    const double shelf = 2.0 * std::sqrt(A) * alpha;
    switch (type) {
    case eqLowShelf:
        return {A * ((A + 1.0) - (A - 1.0) * cosw + shelf), 2.0 * A * ((A - 1.0) - (A + 1.0) * cosw),
                A * ((A + 1.0) - (A - 1.0) * cosw - shelf),  (A + 1.0) + (A - 1.0) * cosw + shelf,
                -2.0 * ((A - 1.0) + (A + 1.0) * cosw),       (A + 1.0) + (A - 1.0) * cosw - shelf};
    case eqPeak:
        return {1.0 + alpha * A, -2.0 * cosw, 1.0 - alpha * A, 1.0 + alpha / A, -2.0 * cosw, 1.0 - alpha / A};
    case eqHighShelf:
        return {A * ((A + 1.0) + (A - 1.0) * cosw + shelf), -2.0 * A * ((A - 1.0) + (A + 1.0) * cosw),
                A * ((A + 1.0) + (A - 1.0) * cosw - shelf),  (A + 1.0) - (A - 1.0) * cosw + shelf,
                2.0 * ((A - 1.0) - (A + 1.0) * cosw),        (A + 1.0) - (A - 1.0) * cosw - shelf};
    case eqLowPass:
        return {(1.0 - cosw) / 2.0, 1.0 - cosw, (1.0 - cosw) / 2.0, 1.0 + alpha, -2.0 * cosw, 1.0 - alpha};
    case eqHighPass:
        return {(1.0 + cosw) / 2.0, -(1.0 + cosw), (1.0 + cosw) / 2.0, 1.0 + alpha, -2.0 * cosw, 1.0 - alpha};
    case eqBandPass:
        return {alpha, 0.0, -alpha, 1.0 + alpha, -2.0 * cosw, 1.0 - alpha};
    case eqNotch:
        return {1.0, -2.0 * cosw, 1.0, 1.0 + alpha, -2.0 * cosw, 1.0 - alpha};
    default:
        // Not offered anywhere; a straight wire rather than undefined coefficients.
        return {1.0, 0.0, 0.0, 1.0, 0.0, 0.0};
    }
}

// One channel's memory, in double for the length of a block.
struct Channel {
    double x1, x2, y1, y2;

    Channel(float x1, float x2, float y1, float y2) : x1(x1), x2(x2), y1(y1), y2(y2) {}
    double step(double x, const double (&c)[5]) {
        // Everything but the y1 term is ready before y1 is, so the chain from one output to the next is
        // one multiply and one subtraction long.
        const double y = (c[0] * x + c[1] * x1 + c[2] * x2 - c[4] * y2) - c[3] * y1;
        x2 = x1;
        x1 = x;
        y2 = y1;
        y1 = y;
        return y;
    }
    void store(float& fx1, float& fx2, float& fy1, float& fy2) const {
        fx1 = static_cast<float>(x1);
        fx2 = static_cast<float>(x2);
        fy1 = static_cast<float>(y1);
        fy2 = static_cast<float>(y2);
        flushDenormal(fy1);
        flushDenormal(fy2);
    }
};

}  // namespace

// subKind stays 0: the EQ is not one of the chain's kinds.
CEQ::CEQ(int32_t filterType, float freq) : CFX(0), filterType(filterType), freq(freq) { update(); }

void CEQ::setSampleRate(float rate) {
    CFX::setSampleRate(rate);
    update();
}

void CEQ::update() {
    // A Q or a rate of 0 (or not a number) would divide by zero; such a band passes audio unchanged.
    if (!(Q > 0.0f) || !(sampleRate > 0.0f)) {
        b0 = 1.0f;
        b1 = b2 = a1 = a2 = 0.0f;
        return;
    }
    const double A = std::pow(10.0, static_cast<double>(gain) * 0.025);
    const double w = 2.0 * std::numbers::pi * static_cast<double>(freq) / static_cast<double>(sampleRate);
    const double alpha = std::sin(w) / (2.0 * static_cast<double>(Q));
    const Biquad c = design(filterType, A, std::cos(w), alpha);
    b0 = static_cast<float>(c.b0 / c.a0);
    b1 = static_cast<float>(c.b1 / c.a0);
    b2 = static_cast<float>(c.b2 / c.a0);
    a1 = static_cast<float>(c.a1 / c.a0);
    a2 = static_cast<float>(c.a2 / c.a0);
}

// The recursion runs in double inside a block. In float, a band with its poles near z = 1 (a low band
// at a high rate) amplifies each rounding of y by the inverse of the denominator's gain there, which
// bends the response by hundredths of a dB. The memory fields stay f32 between blocks. Both channels go
// through one loop, so that their two independent recursions overlap.
void CEQ::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    const double c[5] = {b0, b1, b2, a1, a2};
    Channel left(x1L, x2L, y1L, y2L);
    Channel right(x1R, x2R, y1R, y2R);
    for (int32_t i = 0; i < frames; ++i) {
        const double l = left.step(inL[i], c);
        const double r = right.step(inR[i], c);
        outL[i] = static_cast<float>(l);
        outR[i] = static_cast<float>(r);
    }
    left.store(x1L, x2L, y1L, y2L);
    right.store(x1R, x2R, y1R, y2R);
}

void CEQ::reset() {
    x1L = x2L = y1L = y2L = 0.0f;
    x1R = x2R = y1R = y2R = 0.0f;
}
