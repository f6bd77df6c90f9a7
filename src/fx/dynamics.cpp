#include "fx/dynamics.h"

#include "engine/fx.h"
#include "fx/bitcrusher.h"
#include "fx/compressor.h"
#include "fx/filter.h"

void registerDynamicsEffects() {
    registerFXKind(fxBitcrusher, []() -> CFX* { return new CBitcrusher(); });
    registerFXKind(fxFilter, []() -> CFX* { return new CFilterFX(); });
    registerFXKind(fxCompressor, []() -> CFX* { return new CCompressor(); });
}
