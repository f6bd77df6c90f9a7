#pragma once
// What the project fuzz targets share: one engine for the whole run, since building an engine for each
// input cost more than reading the input, and reading a project replaces everything the last one left.
#include <cstddef>
#include <cstdint>

#include "core/stream.h"
#include "engine/engine.h"
#include "files/project.h"
#include "sound/sampler.h"

namespace fuzzing {

// A low rate and short blocks keep each input cheap while the sequencer still moves through its ticks:
// the synthesizers' work grows with the frames played, and a block of 64 is 8 ms.
constexpr double fuzzRate = 8000.0;
constexpr int32_t fuzzBlock = 64;

inline CQV& fuzzEngine() {
    static CQV* const engine = [] {
        setLoadErrorPrompt([](const CString&, const CString&) {});
        auto* made = new CQV(EngineOptions{false, 1});
        made->setSampleRate(fuzzRate);
        made->setBlockSize(fuzzBlock);
        return made;
    }();
    return *engine;
}

inline files::LoadOutcome readInput(CQV& engine, const uint8_t* data, size_t size, files::DamageReport& damage) {
    const files::ProjectContext context{nullptr, [](const CString&, const CString&) {}};
    CMemoryStream stream;
    stream.write(data, static_cast<int32_t>(size));
    stream.seek(0, seekFromStart);
    return files::readProject(engine, stream, context, &damage);
}

}  // namespace fuzzing
