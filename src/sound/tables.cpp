#include "sound/tables.h"

#include <memory>
#include <numbers>

namespace {

std::unique_ptr<const SoundTables> buildTables() {
    auto tables = std::make_unique<SoundTables>();
    for (int32_t i = 0; i < SoundTables::size; ++i) {
        const double x = static_cast<double>(i) / SoundTables::size;
        tables->sine[i] = std::sin(2.0 * std::numbers::pi * x);
        if (x < 0.25) tables->tri[i] = 4.0 * x;
        else if (x < 0.75) tables->tri[i] = 2.0 - 4.0 * x;
        else tables->tri[i] = 4.0 * x - 4.0;
        tables->saw[i] = x < 0.5 ? 2.0 * x : 2.0 * x - 2.0;
        tables->pulse[i] = x < 0.5 ? 1.0 : -1.0;
    }
    return tables;
}

}  // namespace

const SoundTables& SoundTables::get() {
    // 2 MB, on the heap; whichever thread asks first builds it.
    static const std::unique_ptr<const SoundTables> tables = buildTables();
    return *tables;
}
