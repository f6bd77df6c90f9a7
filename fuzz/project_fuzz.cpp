// Projects: the whole reader, then a few cycles of whatever it loaded and a save of it, since damage that
// the reader lets through shows only when the model plays or is walked again.
#include <cstddef>
#include <cstdint>

#include "core/stream.h"
#include "engine/engine.h"
#include "files/project.h"
#include "sound/sampler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        setLoadErrorPrompt([](const CString&, const CString&) {});
        return true;
    }();
    const files::ProjectContext context{nullptr, [](const CString&, const CString&) {}};

    CMemoryStream stream;
    stream.write(data, static_cast<int32_t>(size));
    stream.seek(0, seekFromStart);
    CQV engine(EngineOptions{false, 1});
    if (!quiet || files::readProject(engine, stream, context) != files::LoadOutcome::loaded) return 0;
    engine.start();
    for (int32_t cycle = 0; cycle < 4; ++cycle) engine.runCycle(256);
    engine.stop();
    CMemoryStream again;
    files::writeProject(engine, again, context);
    return 0;
}
