#include "engine/strip_io.h"

#include <algorithm>

#include "core/stream.h"
#include "engine/comp.h"
#include "engine/engine.h"

namespace {

constexpr uint32_t stripSize = 52;
constexpr uint32_t eqSize = 72;
constexpr int32_t stripZeroWords = 6;

enum class ChannelRole { engine, ordinary, group, insert };

// The project writer knows the role from the list it walks; the component knows it from where it sits.
ChannelRole roleOf(const CComp& comp) {
    if (comp.parentChannel || comp.orderClass == orderInsert) return ChannelRole::insert;
    if (comp.subKind == compEngine) return ChannelRole::engine;
    if (comp.subKind == compGroupChannel || comp.orderClass == orderGroup) return ChannelRole::group;
    return ChannelRole::ordinary;
}

int32_t liveSends(const CComp& comp) {
    return comp.engine ? std::min(comp.engine->groupChannels.count(), COutputChannel::maxSends) : 0;
}

float loadRelaxed(const std::atomic<float>& value) { return value.load(std::memory_order_relaxed); }

void writeStrip(const COutputChannel& channel, CStream& stream) {
    writeBlockHeader(stream, "strip2", stripSize);
    stream.writeF32(loadRelaxed(channel.volume));
    stream.writeF32(loadRelaxed(channel.pan));
    stream.writeF32(loadRelaxed(channel.trim));
    stream.writeF32(channel.storedValue);
    stream.writeU8(channel.solo.load(std::memory_order_relaxed));
    stream.writeU8(channel.mute.load(std::memory_order_relaxed));
    for (uint8_t byte : channel.storedBytes) stream.writeU8(byte);
    stream.writeF32(loadRelaxed(channel.outLevel));
    for (int32_t i = 0; i < stripZeroWords; ++i) stream.writeI32(0);
}

void readStrip(COutputChannel& channel, CStream& stream) {
    // A value from the file within the control's range; not a number keeps what was there.
    auto readFloat = [&stream](std::atomic<float>& field, float low, float high) {
        float value = field.load(std::memory_order_relaxed);
        stream.readF32(value);
        if (value == value) field.store(std::clamp(value, low, high), std::memory_order_relaxed);
    };
    auto readByte = [&stream](std::atomic<uint8_t>& field) {
        uint8_t value = field.load(std::memory_order_relaxed);
        stream.readU8(value);
        field.store(value, std::memory_order_relaxed);
    };
    readFloat(channel.volume, 0.0f, 1.0f);
    readFloat(channel.pan, -1.0f, 1.0f);
    readFloat(channel.trim, -1.0f, 1.0f);
    stream.readF32(channel.storedValue);
    readByte(channel.solo);
    readByte(channel.mute);
    for (uint8_t& byte : channel.storedBytes) stream.readU8(byte);
    readFloat(channel.outLevel, 0.0f, 1.0f);
    for (int32_t i = 0; i < stripZeroWords; ++i) {
        int32_t zero = 0;
        stream.readI32(zero);
    }
    // A loaded strip starts where it was saved instead of ramping there from the defaults.
    channel.snapRamps();
}

void writeEQ(const COutputChannel& channel, CStream& stream) {
    writeBlockHeader(stream, "eq2", eqSize);
    for (const EQBandSettings& band : channel.eqSettings) {
        stream.writeU8(band.power.load(std::memory_order_relaxed));
        stream.writeU8(band.filterType.load(std::memory_order_relaxed));
        stream.writeF32(loadRelaxed(band.freq));
        stream.writeF32(loadRelaxed(band.gain));
        stream.writeF32(loadRelaxed(band.Q));
        for (uint8_t byte : band.stored) stream.writeU8(byte);
    }
}

void readEQ(COutputChannel& channel, CStream& stream) {
    for (EQBandSettings& band : channel.eqSettings) {
        uint8_t power = band.power.load(std::memory_order_relaxed);
        uint8_t type = band.filterType.load(std::memory_order_relaxed);
        float freq = loadRelaxed(band.freq), gain = loadRelaxed(band.gain), q = loadRelaxed(band.Q);
        stream.readU8(power);
        stream.readU8(type);
        stream.readF32(freq);
        stream.readF32(gain);
        stream.readF32(q);
        for (uint8_t& byte : band.stored) stream.readU8(byte);
        band.power.store(power, std::memory_order_relaxed);
        band.filterType.store(type, std::memory_order_relaxed);
        band.freq.store(freq, std::memory_order_relaxed);
        band.gain.store(gain, std::memory_order_relaxed);
        band.Q.store(q, std::memory_order_relaxed);
    }
    // The filters follow at the head of the next processInserts, on the thread that runs them.
    channel.eqChanged.fetch_or((1u << COutputChannel::eqBands) - 1, std::memory_order_release);
}

void writeSends(const COutputChannel& channel, CStream& stream, int32_t groups) {
    writeBlockHeader(stream, "sends", 4 + 4 * static_cast<uint32_t>(groups));
    stream.writeI32(groups);
    for (int32_t k = 0; k < groups; ++k) stream.writeF32(loadRelaxed(channel.sends[k]->level));
}

void readSends(COutputChannel& channel, CStream& stream, uint32_t blockSize) {
    int32_t count = 0;
    stream.readI32(count);
    // Never more levels than the block holds, whatever its count says.
    const int32_t held = blockSize >= 4 ? static_cast<int32_t>((blockSize - 4) / 4) : 0;
    count = std::clamp(count, 0, held);
    for (int32_t k = 0; k < count; ++k) {
        float level = 0.0f;
        if (!stream.readF32(level)) return;
        if (k < COutputChannel::maxSends && level == level)
            channel.sends[k]->level.store(std::clamp(level, 0.0f, 1.0f), std::memory_order_relaxed);
    }
}

int32_t readChannelCount(CStream& stream) {
    uint32_t count = 2;
    stream.readU32(count);
    return count == 1 ? 1 : 2;
}

// The output channel at index, made when the component has fewer.
COutputChannel* channelAt(CComp& comp, int32_t index, int32_t channels) {
    COutputChannel* channel = comp.outputChannels.getAt(index);
    if (!channel) channel = comp.addOutputChannel(channels);
    channel->channels = channels;
    return channel;
}

void attachInsert(CComp& host, COutputChannel& channel, CComp& insert) {
    insert.parentChannel = &channel;
    insert.orderClass = orderInsert;
    if (host.blockFrames > 0) insert.setBlockSize(host.blockFrames);
    if (host.engine) insert.setSampleRate(host.engine->sampleRate);
    channel.inserts.add(&insert);
}

}  // namespace

void saveChannels(const CComp& comp, CStream& stream, const InsertBlockIO& inserts) {
    const ChannelRole role = roleOf(comp);
    const int32_t groups = liveSends(comp);
    for (const COutputChannel* channel : comp.outputChannels) {
        writeBlockHeader(stream, role == ChannelRole::insert ? "aouti" : "aout", 4);
        stream.writeI32(channel->channels);
        if (role == ChannelRole::engine || role == ChannelRole::insert) continue;
        writeStrip(*channel, stream);
        writeEQ(*channel, stream);
        if (role == ChannelRole::ordinary) writeSends(*channel, stream, groups);
        if (!inserts.write) continue;
        for (const CComp* insert : channel->inserts) {
            inserts.write(*insert, stream);
            writeBlockHeader(stream, "wet", 4);
            stream.writeF32(loadRelaxed(insert->wetLevel));
        }
    }
}

bool CChannelReader::take(CBlockReader& blocks, CStream& stream) {
    if (blocks.is("aout")) {
        channelAt(comp_, ++channelIndex_, readChannelCount(stream));
        insert_ = nullptr;
        return true;
    }
    if (blocks.is("aouti")) {
        // Behind an "insert2" these address that insert; in an insert's own blocks, the insert itself.
        const int32_t channels = readChannelCount(stream);
        if (insert_) channelAt(*insert_, ++insertChannelIndex_, channels);
        else channelAt(comp_, ++channelIndex_, channels);
        return true;
    }
    if (blocks.is("wet")) {
        float wet = 1.0f;
        if (stream.readF32(wet) && insert_) insert_->wetLevel.store(wet, std::memory_order_relaxed);
        return true;
    }
    const bool stripBlock = blocks.is("strip2") || blocks.is("eq2") || blocks.is("sends") || blocks.is("insert2");
    if (!stripBlock) return false;
    COutputChannel* channel = comp_.outputChannels.getAt(channelIndex_);
    if (!channel) {
        blocks.skip();
        return true;
    }
    if (blocks.is("strip2")) {
        readStrip(*channel, stream);
    } else if (blocks.is("eq2")) {
        readEQ(*channel, stream);
    } else if (blocks.is("sends")) {
        readSends(*channel, stream, blocks.size());
    } else {
        insert_ = inserts_.read ? inserts_.read(comp_.engine, stream, blocks.blockEnd()) : nullptr;
        insertChannelIndex_ = -1;
        if (insert_) attachInsert(comp_, *channel, *insert_);
        // The insert's own reader may stop anywhere inside its frame; the next block starts at its end.
        blocks.skip();
    }
    return true;
}
