#pragma once
// The engine's side of the device boundary: the one callback through which all device audio and MIDI
// flows, and the hook that gives the engine each new device's block size and rate.

#include <cstdint>

#include "engine/aam.h"

class CQV;

// Zeroes the outputs, runs one cycle with the records as live MIDI at frame 0, adds each audio output
// limited to -1..1 into its device channels and returns the records of the MIDI outputs. A block longer
// than the engine's is run in pieces of the engine's size.
int32_t audioCallback(CQV& engine, float** inputs, float** outputs, int32_t inputCount, int32_t outputCount,
                      int32_t frames, CMIDIRecord* records, int32_t recordCount);

CAudioCallback engineCallback(CQV& engine);

// Sets restartDone so that each device start hands its block size and rate to the engine.
void attachEngine(CAAM& aam, CQV& engine);
