#include "fx/time_effects.h"

#include <cmath>

#include "fx/chorus.h"
#include "fx/delay.h"
#include "fx/phaser.h"
#include "fx/reverb.h"

void registerTimeEffects() {
    registerFXKind(fxDelay, []() -> CFX* { return new CDelay(); });
    registerFXKind(fxReverb, []() -> CFX* { return new CReverb(); });
    registerFXKind(fxChorus, []() -> CFX* { return new CChorus(); });
    registerFXKind(fxPhaser, []() -> CFX* { return new CPhaser(); });
}

namespace timefx {

double lfoIncrement(float rate, int32_t sync, int32_t mul, int32_t div, float tempo, float sampleRate) {
    if (!(sampleRate > 0.0f)) return 0.0;
    const double size = LFOTables::size;
    double inc;
    if (sync != 0) {
        const double beats = mul != 0 ? mul : 1;
        const double cycles = div != 0 ? div : 1;
        inc = (cycles * size) * tempo / (beats * sampleRate * 60.0);
    } else {
        inc = rate * size / sampleRate;
    }
    return std::isfinite(inc) ? inc : 0.0;
}

} // namespace timefx
