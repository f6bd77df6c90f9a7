// Projects: the whole reader, then a few cycles of whatever it loaded and a save of it, since damage that
// the reader lets through shows only when the model plays or is walked again.
#include "project_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CQV& engine = fuzzing::fuzzEngine();
    files::DamageReport damage;
    if (fuzzing::readInput(engine, data, size, damage) != files::LoadOutcome::loaded) return 0;
    engine.start();
    for (int32_t cycle = 0; cycle < 4; ++cycle) engine.runCycle(fuzzing::fuzzBlock);
    engine.stop();
    CMemoryStream again;
    files::writeProject(engine, again);
    return 0;
}
