#include "engine/device_cycle.h"

#include <algorithm>

#include "engine/engine.h"
#include "engine/io.h"

namespace {

float limit(float value) { return std::clamp(value, -1.0f, 1.0f); }

void takeInput(CQV& engine, float** inputs, int32_t inputCount, int32_t frames, const CMIDIRecord* records,
               int32_t recordCount) {
    for (CComp* comp : engine.comps) {
        if (comp->subKind == compMIDIIn) {
            auto* in = static_cast<CMIDIIn*>(comp);
            COutputPort* port = in->firstOutputPort();
            if (!port) continue;
            for (int32_t i = 0; i < recordCount; ++i)
                if (in->device == -1 || static_cast<uint32_t>(in->device) == records[i].device)
                    port->appendEvent(0.0, records[i].midi);
        } else if (comp->subKind == compAudioIn) {
            auto* in = static_cast<CAudioIn*>(comp);
            COutputChannel* channel = in->firstOutputChannel();
            if (!channel || !channel->left()) continue;
            const int32_t right = in->channels == 1 ? in->deviceLeft : in->deviceRight;
            if (in->deviceLeft >= 0 && in->deviceLeft < inputCount) std::copy_n(inputs[in->deviceLeft], frames, channel->left());
            if (right >= 0 && right < inputCount) std::copy_n(inputs[right], frames, channel->right());
        }
    }
}

void giveOutput(CQV& engine, float** outputs, int32_t outputCount, int32_t frames) {
    const float gain = engine.monitorGain * engine.monitorGain;
    const auto valid = [outputCount](int32_t channel) { return channel >= 0 && channel < outputCount; };
    for (CComp* comp : engine.comps) {
        if (comp->subKind != compAudioOut) continue;
        auto* out = static_cast<CAudioOut*>(comp);
        const COutputChannel* channel = out->firstOutputChannel();
        if (!channel || !channel->left()) continue;
        const float* left = channel->left();
        const float* right = channel->right();
        if (out->channels == 1) {
            if (!valid(out->deviceLeft)) continue;
            float* device = outputs[out->deviceLeft];
            for (int32_t i = 0; i < frames; ++i) device[i] = limit((device[i] + (left[i] + right[i]) * 0.5f) * gain);
            continue;
        }
        if (valid(out->deviceLeft)) {
            float* device = outputs[out->deviceLeft];
            for (int32_t i = 0; i < frames; ++i) device[i] = limit((device[i] + left[i]) * gain);
        }
        if (valid(out->deviceRight)) {
            float* device = outputs[out->deviceRight];
            for (int32_t i = 0; i < frames; ++i) device[i] = limit((device[i] + right[i]) * gain);
        }
    }
}

// Records of the MIDI outputs after `count` already written, at `offset` frames into the device block.
int32_t collectOutput(CQV& engine, CMIDIRecord* records, int32_t count, int32_t offset) {
    for (CComp* comp : engine.comps) {
        if (comp->subKind != compMIDIOut) continue;
        const CInputPort* port = comp->firstInputPort();
        if (!port) continue;
        const auto device = static_cast<uint32_t>(static_cast<CMIDIOut*>(comp)->device);
        for (const CMIDIEvent* e = port->first(); e && count < CAAM::maxRecords; e = e->next)
            if (e->type == EventType::midi)
                records[count++] = {e->midi, device, static_cast<uint32_t>(offset + static_cast<int32_t>(e->frame))};
    }
    return count;
}

bool heldOut(const CQV& engine) {
    return engine.loading.load(std::memory_order_acquire) || engine.exclusive.load(std::memory_order_acquire) == 1;
}

}  // namespace

int32_t audioCallback(CQV& engine, float** inputs, float** outputs, int32_t inputCount, int32_t outputCount,
                      int32_t frames, CMIDIRecord* records, int32_t recordCount) {
    for (int32_t c = 0; c < outputCount; ++c) std::fill_n(outputs[c], frames, 0.0f);
    if (heldOut(engine) || engine.busy()) return 0;
    if (recordCount > 0) engine.midiLed.store(1.0f, std::memory_order_relaxed);

    float* in[CAAM::maxChannels];
    float* out[CAAM::maxChannels];
    int32_t sent = 0;
    const int32_t piece = std::max(1, engine.blockSize);
    for (int32_t offset = 0; offset < frames; offset += piece) {
        const int32_t n = std::min(piece, frames - offset);
        for (int32_t c = 0; c < inputCount; ++c) in[c] = inputs[c] + offset;
        for (int32_t c = 0; c < outputCount; ++c) out[c] = outputs[c] + offset;
        engine.beginCycle(n);
        takeInput(engine, in, inputCount, n, records, offset == 0 ? recordCount : 0);
        engine.process(n);
        if (heldOut(engine)) return 0;
        giveOutput(engine, out, outputCount, n);
        sent = collectOutput(engine, records, sent, offset);
    }
    return sent;
}

CAudioCallback engineCallback(CQV& engine) {
    return {[](void* context, float** inputs, float** outputs, int32_t inputCount, int32_t outputCount, int32_t frames,
               CMIDIRecord* records, int32_t recordCount) {
                return audioCallback(*static_cast<CQV*>(context), inputs, outputs, inputCount, outputCount, frames,
                                     records, recordCount);
            },
            &engine};
}

void attachEngine(CAAM& aam, CQV& engine) {
    aam.restartDone = [&engine](CAAM& device) {
        engine.setBlockSize(device.blockSize);
        engine.setSampleRate(device.sampleRate);
        engine.raise(change::audioSettings);
    };
}
