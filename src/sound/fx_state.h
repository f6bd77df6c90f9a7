#pragma once
// An effect's state inside the sampler's blocks: u8 enabled, f32 dry, f32 wet, then the first words of
// the effect's own saved form, then zero words. The word order is the one every effect uses for its
// saved form, so the sampler needs no knowledge of the effect's class.

#include <cstdint>

class BlockIn;
class CFX;
class CStream;

void saveFXState(CStream& stream, const CFX& fx, int32_t words, int32_t zeroWords);
// Fields the block can't deliver keep their values. Enabling comes last, after the words, so that an
// effect that allocates at its first enable sees its settings (and a delay its lent buffers) first.
void loadFXState(BlockIn& in, CFX& fx, int32_t words, int32_t zeroWords);
