#pragma once
// Small components and graph-building helpers for engine tests.

#include <cmath>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "engine/engine.h"
#include "engine/io.h"

namespace testgraph {

// Makes a deterministic signal that differs per source and per cycle.
class Source : public CComp {
public:
    Source(CQV* engine, int32_t seed) : CComp(engine), seed(seed) {}
    void createPorts() override {
        addInputPort();
        addOutputChannel();
    }
    void processBlock(int32_t frames) override {
        ++runs;
        COutputChannel* out = firstOutputChannel();
        for (int32_t i = 0; i < frames; ++i) {
            double t = static_cast<double>(sample++);
            out->left()[i] = static_cast<float>(std::sin(t * 0.01 * (seed + 1)) * 0.5);
            out->right()[i] = static_cast<float>(std::cos(t * 0.013 * (seed + 1)) * 0.5);
        }
    }
    int32_t seed;
    int64_t sample = 0;
    int32_t runs = 0;
};

// Sums its inputs, applies a gain and a soft curve (so that the order of operations shows in the bits),
// and optionally delays the result by a reported latency.
class Stage : public CComp {
public:
    Stage(CQV* engine, float gain, int32_t latency = 0)
        : CComp(engine), gain(gain), latency(latency), ringLeft(latency + 1), ringRight(latency + 1) {}
    void createPorts() override {
        addInputPort();
        addInputChannel();
        addOutputChannel();
    }
    bool takesAudio() const override { return true; }
    int32_t getLatency() const override { return latency; }
    void processBlock(int32_t frames) override {
        ++runs;
        const CInputChannel* in = firstInputChannel();
        COutputChannel* out = firstOutputChannel();
        for (int32_t i = 0; i < frames; ++i) {
            float l = std::tanh(in->left()[i] * gain);
            float r = std::tanh(in->right()[i] * gain);
            if (latency > 0) {
                ringLeft[write] = l;
                ringRight[write] = r;
                size_t read = (write + 1) % ringLeft.size();
                l = ringLeft[read];
                r = ringRight[read];
                write = read;
            }
            out->left()[i] = l;
            out->right()[i] = r;
        }
    }
    float gain;
    int32_t latency;
    std::vector<float> ringLeft, ringRight;
    size_t write = 0;
    int32_t runs = 0;
};

// A MIDI component: forwards what reaches its input port to its output port and remembers it.
class MIDIThrough : public CComp {
public:
    explicit MIDIThrough(CQV* engine) : CComp(engine) { received.reserve(CMIDIQ::capacity); }
    void createPorts() override {
        addInputPort();
        addOutputPort();
    }
    void processBlock(int32_t /*frames*/) override {
        received.clear();
        for (const CMIDIEvent* e = firstInputPort()->first(); e; e = e->next) {
            received.push_back(*e);
            firstOutputPort()->appendEvent(e->frame, e->midi, e->type, e->value, e->param, e->target, e->extra);
        }
    }
    std::vector<CMIDIEvent> received;
};

// A single 1.0 on the left at frame 5 of the stream and silence elsewhere: what arrives where shows
// each path's delay.
class Impulse : public CComp {
public:
    explicit Impulse(CQV* engine) : CComp(engine) {}
    void createPorts() override { addOutputChannel(); }
    void processBlock(int32_t frames) override {
        for (int32_t i = 0; i < frames; ++i, ++at) firstOutputChannel()->left()[i] = at == 5 ? 1.0f : 0.0f;
    }
    int64_t at = 0;
};

template <class T, class... Args>
T* add(CQV& engine, Args&&... args) {
    auto* comp = new T(&engine, std::forward<Args>(args)...);
    comp->createPorts();
    engine.addComp(comp);
    return comp;
}

inline CAudioCable* connectAudio(CComp& from, CComp& to, int32_t outIndex = 0, int32_t inIndex = 0) {
    CAudioCable* cable = makeAudioCable(&to, from.outputChannels.getAt(outIndex), to.inputChannels.getAt(inIndex));
    to.audioCablesIn.add(cable);
    return cable;
}

inline CMIDICable* connectMIDI(CComp& from, CComp& to) {
    CMIDICable* cable = makeMIDICable(&to, from.firstOutputPort(), to.firstInputPort());
    to.midiCablesIn.add(cable);
    return cable;
}

// Runs cycles covering at least `frames` and gives the (frame, value) of every non-zero left sample.
inline std::vector<std::pair<int64_t, float>> heardFrames(CQV& engine, CAudioOut& out, int64_t frames,
                                                          int32_t block) {
    std::vector<std::pair<int64_t, float>> heard;
    for (int64_t frame = 0; frame < frames;) {
        engine.runCycle(block);
        const float* left = out.firstOutputChannel()->left();
        for (int32_t i = 0; i < block; ++i, ++frame)
            if (left[i] != 0.0f) heard.emplace_back(frame, left[i]);
    }
    return heard;
}

inline std::vector<float> runAndCapture(CQV& engine, CAudioOut& out, int32_t cycles, int32_t frames) {
    std::vector<float> captured;
    captured.reserve(static_cast<size_t>(cycles) * frames * 2);
    for (int32_t c = 0; c < cycles; ++c) {
        engine.runCycle(frames);
        const COutputChannel* ch = out.firstOutputChannel();
        captured.insert(captured.end(), ch->left(), ch->left() + frames);
        captured.insert(captured.end(), ch->right(), ch->right() + frames);
    }
    return captured;
}

}  // namespace testgraph

#include <random>

namespace testgraph {

struct RandomGraph {
    CAudioOut* out = nullptr;
    std::vector<CComp*> nodes;
};

// A layered random graph of `components` processing nodes: a quarter are sources, the rest stages that
// take one to three earlier nodes (so there is fan-out and shared upstream work). Nodes nobody consumes
// feed the hardware output, some directly and some through a group channel.
template <class SourceType = Source, class StageType = Stage>
RandomGraph buildRandomGraph(CQV& engine, int32_t components, uint32_t seed) {
    std::mt19937 random(seed);
    RandomGraph graph;
    graph.out = add<CAudioOut>(engine);
    auto* group = new CGroupCh(&engine);
    group->createPorts();
    engine.addGroupChannel(group);

    const int32_t sources = std::max(1, components / 4);
    std::vector<int32_t> consumers(static_cast<size_t>(components), 0);
    for (int32_t i = 0; i < components; ++i) {
        if (i < sources) {
            graph.nodes.push_back(add<SourceType>(engine, i));
            continue;
        }
        auto* stage = add<StageType>(engine, 0.5f + static_cast<float>(random() % 100) / 50.0f);
        graph.nodes.push_back(stage);
        const int32_t inputs = 1 + static_cast<int32_t>(random() % 3);
        for (int32_t k = 0; k < inputs; ++k) {
            const auto from = static_cast<int32_t>(random() % static_cast<uint32_t>(i));
            connectAudio(*graph.nodes[from], *stage);
            ++consumers[from];
        }
    }
    for (int32_t i = 0; i < components; ++i) {
        const bool leaf = consumers[i] == 0;
        if (!leaf && random() % 4 != 0) continue;
        if (random() % 5 == 0) connectAudio(*graph.nodes[i], *group);
        else connectAudio(*graph.nodes[i], *graph.out);
    }
    connectAudio(*group, *graph.out);
    return graph;
}

}  // namespace testgraph
