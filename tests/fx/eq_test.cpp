#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <numbers>
#include <tuple>
#include <vector>

#include "engine/eq.h"

namespace {

constexpr int32_t block = 1024;
// Long enough for every band below to ring down far under float resolution.
constexpr int32_t impulseLength = 64 * block;

struct Section {
    double b0, b1, b2, a1, a2;
};

// The cookbook filters from their published formulas: A = 10^(gain/40), w0 = 2 pi f0 / fs,
// alpha = sin(w0) / (2Q). Divided by a0 and rounded to float, like the fields that hold them.
Section cookbook(int32_t type, double f0, double gainDb, double q, double fs) {
    const double A = std::pow(10.0, gainDb / 40.0), w0 = 2.0 * std::numbers::pi * f0 / fs;
    const double c = std::cos(w0), alpha = std::sin(w0) / (2.0 * q);
    const double p = A + 1, m = A - 1, s = 2 * std::sqrt(A) * alpha;
    auto norm = [](double b0, double b1, double b2, double a0, double a1, double a2) {
        auto f = [a0](double v) { return static_cast<double>(static_cast<float>(v / a0)); };
        return Section{f(b0), f(b1), f(b2), f(a1), f(a2)};
    };
    switch (type) {
    case eqLowShelf: return norm(A * (p - m * c + s), 2 * A * (m - p * c), A * (p - m * c - s), p + m * c + s, -2 * (m + p * c), p + m * c - s);
    case eqPeak: return norm(1 + alpha * A, -2 * c, 1 - alpha * A, 1 + alpha / A, -2 * c, 1 - alpha / A);
    case eqHighShelf: return norm(A * (p + m * c + s), -2 * A * (m + p * c), A * (p + m * c - s), p - m * c + s, 2 * (m - p * c), p - m * c - s);
    case eqLowPass: return norm((1 - c) / 2, 1 - c, (1 - c) / 2, 1 + alpha, -2 * c, 1 - alpha);
    case eqHighPass: return norm((1 + c) / 2, -(1 + c), (1 + c) / 2, 1 + alpha, -2 * c, 1 - alpha);
    case eqBandPass: return norm(alpha, 0, -alpha, 1 + alpha, -2 * c, 1 - alpha);
    case eqNotch: return norm(1, -2 * c, 1, 1 + alpha, -2 * c, 1 - alpha);
    }
    ADD_FAILURE() << "no cookbook filter " << type;
    return {};
}

double magnitudeDb(const Section& s, double f, double fs) {
    const std::complex<double> z1 = std::polar(1.0, -2.0 * std::numbers::pi * f / fs), z2 = z1 * z1;
    return 20.0 * std::log10(std::abs((s.b0 + s.b1 * z1 + s.b2 * z2) / (1.0 + s.a1 * z1 + s.a2 * z2)));
}

// The response at f of what the band made of an impulse: the DFT of its impulse response.
double measuredDb(const std::vector<float>& response, double f, double fs) {
    std::complex<double> sum = 0.0;
    for (size_t n = 0; n < response.size(); ++n)
        sum += static_cast<double>(response[n]) * std::polar(1.0, -2.0 * std::numbers::pi * f / fs * static_cast<double>(n));
    return 20.0 * std::log10(std::abs(sum));
}

std::unique_ptr<CEQ> makeBand(int32_t type, float freq, float gain, float q, float fs) {
    auto eq = std::make_unique<CEQ>(type, freq);
    eq->gain = gain;
    eq->Q = q;
    eq->setSampleRate(fs);
    return eq;
}

// An impulse through both channels in blocks, in place. The right one gets it at -0.5, which float
// scales exactly, so its response is the left one's times -0.5 (exactly, while the samples are normal).
std::vector<float> impulseResponse(CEQ& eq) {
    std::vector<float> left(impulseLength, 0.0f), right(impulseLength, 0.0f);
    left[0] = 1.0f;
    right[0] = -0.5f;
    for (int32_t at = 0; at < impulseLength; at += block) eq.process(&left[at], &right[at], &left[at], &right[at], block);
    for (int32_t n = 0; n < impulseLength; ++n)
        if (std::fabs(right[n] + 0.5f * left[n]) > 1e-37f) {
            ADD_FAILURE() << "right channel differs at " << n << ": " << right[n] << " vs " << -0.5f * left[n];
            break;
        }
    return left;
}

struct BandRow {
    const char* what;
    int32_t type;
    float freq, gain, q, fs;
} const bandRows[] = {
    {"low shelf", eqLowShelf, 200.0f, 9.0f, 0.7f, 48000.0f},
    {"low shelf, the strip's wide default Q", eqLowShelf, 100.0f, -8.0f, 0.1f, 48000.0f},
    {"peaking cut", eqPeak, 1000.0f, -6.0f, 2.0f, 48000.0f},
    {"peaking boost at 44.1 kHz", eqPeak, 2500.0f, 12.0f, 0.8f, 44100.0f},
    {"high shelf", eqHighShelf, 6000.0f, -12.0f, 0.5f, 48000.0f},
    {"high shelf boost", eqHighShelf, 10000.0f, 5.0f, 1.2f, 44100.0f},
    {"low-pass", eqLowPass, 3000.0f, 0.0f, 0.707f, 48000.0f},
    {"high-pass", eqHighPass, 150.0f, 0.0f, 1.5f, 48000.0f},
    {"band-pass", eqBandPass, 2500.0f, 0.0f, 3.0f, 48000.0f},
    {"notch", eqNotch, 1000.0f, 0.0f, 2.0f, 48000.0f},
};

}  // namespace

TEST(EQResponse, EachTypeMatchesTheCookbookTransferFunction) {
    // None of the probes falls on the notch's centre, where decibels run to minus infinity.
    const double probes[] = {31, 77, 140, 333, 612, 930, 1710, 2890, 4400, 7350, 11800, 17600, 21000};
    for (const BandRow& row : bandRows) {
        SCOPED_TRACE(row.what);
        auto eq = makeBand(row.type, row.freq, row.gain, row.q, row.fs);
        const std::vector<float> response = impulseResponse(*eq);
        const Section reference = cookbook(row.type, row.freq, row.gain, row.q, row.fs);
        for (double f : probes)
            EXPECT_NEAR(measuredDb(response, f, row.fs), magnitudeDb(reference, f, row.fs), 0.01) << f << " Hz";
    }
}

// Landmarks of the textbook shapes, measured on the band itself: they hold whatever formulas the band
// and the reference above share, so a fault copied into both still shows here.
TEST(EQResponse, BandsHitTheTextbookLandmarks) {
    constexpr float fs = 48000.0f, f0 = 1000.0f;
    constexpr double dc = 0.01, nyquist = fs / 2;
    struct {
        int32_t type;
        float gainDb, q;
        double at, expectDb;
    } const landmarks[] = {
        {eqLowShelf, 9.0f, 0.7f, dc, 9.0},   {eqLowShelf, 9.0f, 0.7f, f0, 4.5},     {eqLowShelf, 9.0f, 0.7f, nyquist, 0.0},
        {eqPeak, -6.0f, 2.0f, f0, -6.0},     {eqPeak, -6.0f, 2.0f, dc, 0.0},        {eqHighShelf, -12.0f, 0.5f, nyquist, -12.0},
        {eqHighShelf, -12.0f, 0.5f, f0, -6.0}, {eqHighShelf, -12.0f, 0.5f, dc, 0.0}, {eqLowPass, 0.0f, 0.707f, dc, 0.0},
        {eqLowPass, 0.0f, 1.0f, f0, 0.0},    {eqHighPass, 0.0f, 1.0f, f0, 0.0},     {eqBandPass, 0.0f, 3.0f, f0, 0.0},
    };
    const auto measured = [&](int32_t type, float gainDb, float q, double at) {
        return measuredDb(impulseResponse(*makeBand(type, f0, gainDb, q, fs)), at, fs);
    };
    for (const auto& l : landmarks)
        EXPECT_NEAR(measured(l.type, l.gainDb, l.q, l.at), l.expectDb, 0.01) << "type " << l.type << " at " << l.at << " Hz";
    EXPECT_LT(measured(eqNotch, 0.0f, 2.0f, f0), -60.0);
    EXPECT_LT(measured(eqLowPass, 0.0f, 0.7f, nyquist), -100.0);
    EXPECT_LT(measured(eqHighPass, 0.0f, 0.7f, dc), -100.0);
}

TEST(EQDenormals, TenSecondsOfSilenceAfterAnImpulseLeaveTheStateExactlyZero) {
    for (const BandRow& row : bandRows) {
        SCOPED_TRACE(row.what);
        auto eq = makeBand(row.type, row.freq, row.gain, row.q, 48000.0f);
        std::vector<float> impulse(block, 0.0f), silence(block, 0.0f), outL(block), outR(block);
        impulse[0] = 1.0f;
        eq->process(impulse.data(), impulse.data(), outL.data(), outR.data(), block);
        for (int32_t done = block; done < 480000; done += block)
            eq->process(silence.data(), silence.data(), outL.data(), outR.data(), block);
        for (float state : {eq->x1L, eq->x2L, eq->y1L, eq->y2L, eq->x1R, eq->x2R, eq->y1R, eq->y2R}) EXPECT_EQ(state, 0.0f);
        EXPECT_EQ(outL, silence);
    }
}

TEST(EQDenormals, OnlyStateBelowTheThresholdIsFlushed) {
    // A section that holds its last output, y = y1: whatever survives the block was not flushed.
    for (const auto& [held, expect] : {std::pair{2e-10f, 2e-10f}, std::pair{-2e-10f, -2e-10f}, std::pair{0.9e-10f, 0.0f},
                                       std::pair{-0.9e-10f, 0.0f}, std::pair{1e-30f, 0.0f}}) {
        CEQ eq(eqPeak);
        eq.b0 = eq.b1 = eq.b2 = eq.a2 = 0.0f;
        eq.a1 = -1.0f;
        eq.y1L = eq.y1R = held;
        std::vector<float> left(64, 0.0f), right(64, 0.0f);
        eq.process(left.data(), right.data(), left.data(), right.data(), 64);
        EXPECT_EQ(std::tuple(eq.y1L, eq.y2L, eq.y1R), std::tuple(expect, expect, expect)) << held;
    }
}

TEST(EQCoefficients, AQOrRateOfZeroGivesAStraightWireInsteadOfNaN) {
    for (const auto& eq : {makeBand(eqPeak, 1000.0f, 6.0f, 0.0f, 48000.0f), makeBand(eqLowShelf, 1000.0f, 6.0f, 1.0f, 0.0f)}) {
        std::vector<float> left = {1.0f, -0.5f, 0.25f, 0.0f}, right = {0.0f, 1.0f, 0.0f, -1.0f};
        const std::vector<float> wantL = left, wantR = right;
        eq->process(left.data(), right.data(), left.data(), right.data(), 4);
        EXPECT_EQ(left, wantL);
        EXPECT_EQ(right, wantR);
    }
}
