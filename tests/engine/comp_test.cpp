#include <gtest/gtest.h>

#include <cmath>

#include "support/engine_graph.h"

using namespace testgraph;

namespace {

constexpr int32_t frames = 64;

// One engine with no workers, so that every pull runs on the calling thread.
EngineOptions singleThread() { return EngineOptions{false, 1}; }

}  // namespace

TEST(Graph, LoopsContributeWhatTheyHaveAndNeverRecurse) {
    // A cable from a stage to itself, and a longer cycle a -> b -> c -> a, both fed by a source.
    CQV engine(singleThread());
    auto* out = add<CAudioOut>(engine);
    auto* source = add<Source>(engine, 3);
    auto* self = add<Stage>(engine, 1.0f);
    connectAudio(*source, *self);
    connectAudio(*self, *self);
    auto* a = add<Stage>(engine, 1.0f);
    auto* b = add<Stage>(engine, 1.0f);
    auto* c = add<Stage>(engine, 1.0f);
    connectAudio(*source, *a);
    connectAudio(*c, *a);
    connectAudio(*a, *b);
    connectAudio(*b, *c);
    connectAudio(*self, *out);
    connectAudio(*c, *out);

    for (int cycle = 0; cycle < 3; ++cycle) ASSERT_TRUE(engine.runCycle(frames));
    for (Stage* stage : {self, a, b, c}) EXPECT_EQ(stage->runs, 3) << "each member of a loop runs once a cycle";
    EXPECT_EQ(source->runs, 3);

    // The self-loop sees its own output as it stood when it was reached: the buffers were cleared by
    // beginCycle, so only the source reaches it and its output is tanh(source).
    const COutputChannel* src = source->firstOutputChannel();
    const COutputChannel* selfOut = self->firstOutputChannel();
    for (int32_t i = 0; i < frames; ++i) ASSERT_FLOAT_EQ(selfOut->left()[i], std::tanh(src->left()[i])) << i;
}

TEST(Graph, FanOutIsProcessedOncePerCycle) {
    CQV engine(singleThread());
    auto* out = add<CAudioOut>(engine);
    auto* source = add<Source>(engine, 1);
    std::vector<Stage*> stages;
    for (int i = 0; i < 5; ++i) {
        stages.push_back(add<Stage>(engine, 1.0f));
        connectAudio(*source, *stages.back());
        connectAudio(*stages.back(), *out);
    }
    connectAudio(*source, *out);
    connectAudio(*source, *out);
    for (int cycle = 0; cycle < 4; ++cycle) engine.runCycle(frames);
    EXPECT_EQ(source->runs, 4);
    for (Stage* stage : stages) EXPECT_EQ(stage->runs, 4);
}

TEST(MIDIQueue, KeepsFrameOrderInsertionOrderAndTheLimit) {
    CQV engine(singleThread());
    CMIDIQ queue(&engine);
    queue.addEvent(5.0, 1);
    queue.addEvent(2.0, 2);
    queue.addEvent(5.0, 3);
    queue.addEvent(2.0, 4);
    queue.addEvent(0.5, 5);
    queue.appendEvent(9.0, 6);
    std::vector<uint32_t> order;
    for (const CMIDIEvent* e = queue.first(); e; e = e->next) order.push_back(e->midi);
    EXPECT_EQ(order, (std::vector<uint32_t>{5, 2, 4, 1, 3, 6}));

    queue.reset();
    for (int i = 0; i < 600; ++i) queue.addEvent(static_cast<double>(600 - i), static_cast<uint32_t>(i));
    EXPECT_EQ(queue.count, 511);
    int walked = 0;
    double last = -1.0;
    for (const CMIDIEvent* e = queue.first(); e; e = e->next, ++walked) {
        ASSERT_GE(e->frame, last);
        last = e->frame;
    }
    EXPECT_EQ(walked, 511);
    // The 512th event is the one lost: the first 511 made it in.
    EXPECT_EQ(queue.first()->midi, 510u);
}

TEST(MIDIQueue, PullPassesMIDIAndParametersButNotConsumedEvents) {
    CQV engine(singleThread());
    auto* from = add<MIDIThrough>(engine);
    auto* to = add<MIDIThrough>(engine);
    connectMIDI(*from, *to);
    engine.beginCycle(frames);
    COutputPort* port = from->firstOutputPort();
    port->appendEvent(1.0, packMIDI(0x90, 60, 100));
    port->appendEvent(2.0, packMIDI(0x90, 61, 100), EventType::consumed);
    port->appendEvent(3.0, 0, EventType::param, 0.25f, 7, to, nullptr);
    // The source is marked done so that its events stand as written.
    from->processGuard.markDone();
    to->process(frames);
    ASSERT_EQ(to->received.size(), 2u);
    EXPECT_EQ(to->received[0].midi, packMIDI(0x90, 60, 100));
    EXPECT_EQ(to->received[1].type, EventType::param);
    EXPECT_EQ(to->received[1].param, 7);
    EXPECT_FLOAT_EQ(to->received[1].value, 0.25f);
    EXPECT_EQ(to->received[1].target, to);
}

TEST(MIDIQueue, PanicSendsAllNotesOffOnEveryChannelOnce) {
    CQV engine(singleThread());
    auto* from = add<MIDIThrough>(engine);
    auto* to = add<MIDIThrough>(engine);
    connectMIDI(*from, *to);
    engine.stop();  // stopped already: the panic gesture
    engine.beginCycle(frames);
    to->process(frames);
    ASSERT_EQ(to->received.size(), 16u);
    for (uint32_t c = 0; c < 16; ++c) {
        EXPECT_EQ(to->received[c].midi, 0x7BB0 + c);
        EXPECT_DOUBLE_EQ(to->received[c].frame, c);
    }
    engine.beginCycle(frames);
    to->process(frames);
    EXPECT_EQ(to->received.size(), 0u) << "the panic goes out once";
}

TEST(ParamEvents, CutTheBlockAtRoundedFrames) {
    struct Row {
        double frame;
        int32_t cut;
    };
    const Row rows[] = {{0.0, 0}, {0.49, 0}, {0.5, 1}, {10.4999, 10}, {10.5, 11}, {63.6, 64}, {200.0, 64}};
    CQV engine(singleThread());
    for (const Row& row : rows) {
        CInputPort port(&engine);
        int target = 0;
        int other = 0;
        port.addEvent(row.frame, 0, EventType::param, 1.0f, 0, &target);
        port.addEvent(row.frame, 0, EventType::param, 1.0f, 0, &other);
        port.addEvent(row.frame, packMIDI(0x90, 1, 1));
        std::vector<std::pair<int32_t, int32_t>> pieces;
        int applied = 0;
        cutAtParamEvents(
            &port, frames, [&](const CMIDIEvent& e) { return e.target == &target; },
            [&](int32_t offset, int32_t n) { pieces.emplace_back(offset, n); },
            [&](const CMIDIEvent&) {
                ++applied;
                ASSERT_EQ(pieces.empty() ? 0 : pieces.back().first + pieces.back().second, row.cut);
            });
        EXPECT_EQ(applied, 1) << row.frame;
        int32_t covered = 0;
        for (auto [offset, n] : pieces) {
            EXPECT_EQ(offset, covered);
            EXPECT_GT(n, 0);
            covered += n;
        }
        EXPECT_EQ(covered, frames) << row.frame;
    }
}

TEST(Latency, PathsOfDifferentLatencyMeetSampleExactlyAtTheOutput) {
    // One impulse at frame 5 goes through three paths of 0, 37 and 137 frames. A group channel whose
    // insert has 11 frames of latency makes every ordinary path wait 11 more. Compensated, all three
    // arrive on one frame; the block size must not matter.
    constexpr int64_t expectedArrival = 5 + 137 + 11;
    const float expectedSum = std::tanh(0.5f) + std::tanh(0.5f) + std::tanh(std::tanh(0.5f) * 0.5f);
    for (int32_t blockFrames : {16, 64, 1000}) {
        CQV engine(singleThread());
        engine.setBlockSize(blockFrames);
        auto* out = add<CAudioOut>(engine);
        auto* impulse = add<Impulse>(engine);
        auto* direct = add<Stage>(engine, 0.5f, 0);
        auto* slow = add<Stage>(engine, 0.5f, 37);
        auto* slower = add<Stage>(engine, 0.5f, 100);
        auto* group = new CGroupCh(&engine);
        group->createPorts();
        engine.addGroupChannel(group);
        auto* insert = new Stage(&engine, 1.0f, 11);
        insert->createPorts();
        insert->setBlockSize(blockFrames);
        group->firstOutputChannel()->inserts.add(insert);
        connectAudio(*impulse, *direct);
        connectAudio(*impulse, *slow);
        connectAudio(*slow, *slower);
        connectAudio(*direct, *out);
        connectAudio(*slow, *out);
        connectAudio(*slower, *out);
        connectAudio(*group, *out);
        engine.raise(change::latency);

        const auto nonZero = heardFrames(engine, *out, 400 + 2 * blockFrames, blockFrames);
        ASSERT_EQ(nonZero.size(), 1u) << "block " << blockFrames << ": the paths did not meet";
        EXPECT_EQ(nonZero[0].first, expectedArrival) << blockFrames;
        EXPECT_NEAR(nonZero[0].second, expectedSum, 1e-6f);
        EXPECT_EQ(engine.mainMaxLatency, 137);
        EXPECT_EQ(engine.groupMaxLatency, 11);

        // A switched-off component adds no latency of its own nor of what feeds it: the 37 frames of
        // `slow` drop out of the slower path, which keeps its own 100.
        slow->setPower(0);
        engine.raise(change::latency);
        engine.runCycle(blockFrames);
        EXPECT_EQ(engine.mainMaxLatency, 100);
    }
}
