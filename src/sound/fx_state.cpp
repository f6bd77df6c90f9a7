#include "sound/fx_state.h"

#include "core/stream.h"
#include "engine/fx.h"
#include "core/block_in.h"

void saveFXState(CStream& stream, const CFX& fx, int32_t words, int32_t zeroWords) {
    FXWords state;
    fx.saveWords(state);
    stream.writeU8(fx.enabled);
    stream.writeF32(fx.dry);
    stream.writeF32(fx.wet);
    for (int32_t k = 0; k < words && k < FXWords::count; ++k) stream.writeU32(state.word[k]);
    for (int32_t k = 0; k < zeroWords; ++k) stream.writeI32(0);
}

void loadFXState(BlockIn& in, CFX& fx, int32_t words, int32_t zeroWords) {
    uint8_t enabled = fx.enabled;
    float dry = fx.dry;
    float wet = fx.wet;
    FXWords state;
    fx.saveWords(state);
    in.u8(enabled);
    in.f32(dry);
    in.f32(wet);
    for (int32_t k = 0; k < words && k < FXWords::count; ++k) in.u32(state.word[k]);
    in.skip(zeroWords * 4);
    fx.loadWords(state);
    fx.dry = dry;
    fx.wet = wet;
    fx.setEnabled(enabled != 0);
}
