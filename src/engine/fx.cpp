#include "engine/fx.h"

#include <array>
#include <cmath>
#include <cstring>
#include <numbers>

float FXWords::f32(int32_t i) const {
    float value;
    std::memcpy(&value, &word[i], sizeof value);
    return value;
}

void FXWords::setF32(int32_t i, float value) { std::memcpy(&word[i], &value, sizeof value); }

namespace {

std::unique_ptr<const LFOTables> buildTables() {
    auto tables = std::make_unique<LFOTables>();
    constexpr int32_t half = LFOTables::size / 2;
    for (int32_t i = 0; i < LFOTables::size; ++i) {
        const double phase = static_cast<double>(i) / LFOTables::size;
        tables->sine[i] = static_cast<float>(0.5 + 0.5 * std::sin(2.0 * std::numbers::pi * phase));
        tables->triangle[i] = static_cast<float>(i < half ? i : LFOTables::size - i) / static_cast<float>(half);
        tables->saw[i] = static_cast<float>(phase);
    }
    return tables;
}

// Indexed by kind. Filled at start-up, before any audio runs, and only read afterwards.
constexpr int32_t maxKinds = 16;
std::array<FXCreator, maxKinds> creators{};

}  // namespace

const LFOTables& LFOTables::get() {
    // 1.5 MB: on the heap, built by whichever thread asks first.
    static const std::unique_ptr<const LFOTables> tables = buildTables();
    return *tables;
}

CFX::CFX(int32_t kind) : CObject(0, kind) { LFOTables::get(); }

void CFX::setBlockSize(int32_t frames) {
    inputL.reset();
    inputR.reset();
    if (frames < 1) return;
    inputL = std::make_unique<float[]>(static_cast<size_t>(frames));
    inputR = std::make_unique<float[]>(static_cast<size_t>(frames));
}

void CFX::process(const float* /*inL*/, const float* /*inR*/, float* /*outL*/, float* /*outR*/, int32_t /*frames*/) {}

void registerFXKind(int32_t kind, FXCreator creator) {
    if (kind >= 0 && kind < maxKinds) creators[kind] = creator;
}

CFX* createFX(int32_t kind) {
    if (kind >= 0 && kind < maxKinds && creators[kind]) return creators[kind]();
    return new CFX(fxUnknown);
}
