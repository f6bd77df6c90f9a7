#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "support/engine_graph.h"

using namespace testgraph;

namespace {

constexpr int32_t blockFrames = 256;

struct Counter {
    int runs = 0;
    void bump(void*) { ++runs; }
};

CDeferredAction countAction(Counter& counter) { return CDeferredAction::of<&Counter::bump>(&counter); }

}  // namespace

TEST(Cycle, ParallelPathIsBitIdenticalToTheSinglePath) {
    constexpr int32_t components = 64;
    constexpr int32_t cycles = 40;
    for (uint32_t seed : {1u, 2u, 3u}) {
        CQV single(EngineOptions{false, 1});
        CQV parallel(EngineOptions{false, 5});  // four workers, more than this machine may have cores
        ASSERT_EQ(single.workers->threadCount, 0);
        ASSERT_EQ(parallel.workers->threadCount, 4);
        single.setBlockSize(blockFrames);
        parallel.setBlockSize(blockFrames);
        RandomGraph a = buildRandomGraph(single, components, seed);
        RandomGraph b = buildRandomGraph(parallel, components, seed);

        std::vector<float> expected = runAndCapture(single, *a.out, cycles, blockFrames);
        std::vector<float> actual = runAndCapture(parallel, *b.out, cycles, blockFrames);
        ASSERT_EQ(expected.size(), actual.size());
        for (size_t i = 0; i < expected.size(); ++i)
            ASSERT_EQ(std::memcmp(&expected[i], &actual[i], sizeof(float)), 0)
                << "seed " << seed << " first difference at sample " << i << ": " << expected[i] << " vs "
                << actual[i];
        EXPECT_GT(parallel.workers->peakItems, 1);
        for (size_t n = 0; n < a.nodes.size(); ++n) {
            // Every node ran exactly once per cycle on both paths.
            auto runs = [](CComp* c) {
                if (auto* s = dynamic_cast<Source*>(c)) return s->runs;
                return static_cast<Stage*>(c)->runs;
            };
            ASSERT_EQ(runs(a.nodes[n]), cycles);
            ASSERT_EQ(runs(b.nodes[n]), cycles);
        }
    }
}

TEST(Cycle, OneWorkItemIsDoneByTheAudioThreadAlone) {
    CQV engine(EngineOptions{false, 3});
    auto* out = add<CAudioOut>(engine);
    auto* source = add<Source>(engine, 0);
    connectAudio(*source, *out);
    connectAudio(*source, *out);  // the same source twice is still one item
    engine.runCycle(blockFrames);
    EXPECT_EQ(engine.workers->peakItems, 1);
    EXPECT_EQ(engine.workers->ownItemsLastRun(), 1);
}

TEST(Cycle, UnconnectedSequencerStillRunsAndPositionAdvances) {
    class Sequencer : public CComp {
    public:
        explicit Sequencer(CQV* engine) : CComp(engine, compSequencer) {}
        void processBlock(int32_t) override { ++runs; }
        int runs = 0;
    };
    CQV engine(EngineOptions{false, 1});
    engine.setSampleRate(48000.0);
    auto* seq = add<Sequencer>(engine);
    engine.start();
    for (int i = 0; i < 10; ++i) engine.runCycle(blockFrames);
    EXPECT_EQ(seq->runs, 10);
    EXPECT_EQ(engine.sequencer, seq);
    EXPECT_EQ(engine.framesPlayed.load(), 10 * blockFrames);
    EXPECT_DOUBLE_EQ(engine.position.load(), 10.0 * blockFrames * 120.0 * 16.0 / 48000.0);
}

TEST(DeferredQueue, DropsBeyond127AndRunsInOrderOnTheAudioThread) {
    CQV engine(EngineOptions{false, 1});
    std::vector<intptr_t> order;
    struct Recorder {
        std::vector<intptr_t>* order;
        void record(void* argument) { order->push_back(reinterpret_cast<intptr_t>(argument)); }
    } recorder{&order};
    for (intptr_t i = 0; i < 130; ++i)
        EXPECT_EQ(engine.defer(CDeferredAction::of<&Recorder::record>(&recorder), reinterpret_cast<void*>(i)), i < 127);
    EXPECT_EQ(engine.deferred->count(), 127);
    engine.runCycle(blockFrames);
    ASSERT_EQ(order.size(), 127u);
    for (intptr_t i = 0; i < 127; ++i) EXPECT_EQ(order[i], i);
    EXPECT_EQ(engine.deferred->count(), 0);
    EXPECT_TRUE(engine.defer(CDeferredAction::of<&Recorder::record>(&recorder), nullptr));
}

TEST(DeferredQueue, GuiTickTakesOverOnTheEleventhTickWithoutAudio) {
    CQV engine(EngineOptions{false, 1});
    Counter counter;
    // With no audio ever started, the tick applies at once.
    engine.defer(countAction(counter), nullptr);
    engine.guiTick();
    EXPECT_EQ(counter.runs, 1);

    // Once audio has run, the tick leaves the queue to it for ten ticks.
    engine.runCycle(blockFrames);
    engine.defer(countAction(counter), nullptr);
    for (int tick = 1; tick <= 10; ++tick) {
        engine.guiTick();
        ASSERT_EQ(counter.runs, 1) << "tick " << tick;
    }
    engine.guiTick();
    EXPECT_EQ(counter.runs, 2);
    // From then on every tick drains, until audio runs again.
    engine.defer(countAction(counter), nullptr);
    engine.guiTick();
    EXPECT_EQ(counter.runs, 3);
    engine.runCycle(blockFrames);
    engine.defer(countAction(counter), nullptr);
    engine.guiTick();
    EXPECT_EQ(counter.runs, 3);
}

TEST(DeferredQueue, EntriesPostedWhileCyclesRunAreNeverLost) {
    CQV engine(EngineOptions{false, 2});
    auto* out = add<CAudioOut>(engine);
    connectAudio(*add<Source>(engine, 1), *out);
    std::atomic<bool> running{true};
    std::thread audio([&] {
        while (running.load()) engine.runCycle(64);
    });
    std::atomic<int> applied{0};
    struct Adder {
        std::atomic<int>* applied;
        void add(void*) { applied->fetch_add(1, std::memory_order_relaxed); }
    } adder{&applied};
    int posted = 0;
    while (posted < 5000) {
        if (engine.defer(CDeferredAction::of<&Adder::add>(&adder), nullptr)) ++posted;
        else std::this_thread::yield();
    }
    while (engine.deferred->count() > 0) std::this_thread::yield();
    running = false;
    audio.join();
    EXPECT_EQ(applied.load(), posted);
}

TEST(Exclusive, HandshakeKeepsTheCallbackOutWhileTheJobRuns) {
    CQV engine(EngineOptions{false, 1});
    auto* out = add<CAudioOut>(engine);
    auto* source = add<Source>(engine, 1);
    connectAudio(*source, *out);

    bool jobRan = false;
    bool cycleDuringJob = true;
    engine.runExclusive([&](CQV& e) {
        jobRan = true;
        EXPECT_EQ(e.exclusive.load(), 1);
        cycleDuringJob = e.runCycle(blockFrames);
    });
    EXPECT_TRUE(engine.exclusiveWanted.load());
    engine.runExclusive([](CQV&) { FAIL() << "a second job while one waits is ignored"; });

    engine.guiTick();  // requested but not yet acknowledged: the job waits
    EXPECT_FALSE(jobRan);
    EXPECT_TRUE(engine.runCycle(blockFrames));  // the cycle acknowledges
    EXPECT_FALSE(engine.exclusiveWanted.load());
    EXPECT_EQ(engine.exclusive.load(), 1);
    EXPECT_FALSE(engine.runCycle(blockFrames)) << "held: the callback stays out";
    const int runsBefore = source->runs;

    engine.guiTick();
    EXPECT_TRUE(jobRan);
    EXPECT_FALSE(cycleDuringJob);
    EXPECT_EQ(source->runs, runsBefore);
    EXPECT_EQ(engine.exclusive.load(), 0);
    EXPECT_TRUE(engine.runCycle(blockFrames)) << "normal again";
}

TEST(Transport, StartStopPositionAndLoop) {
    class Watcher : public CComp {
    public:
        explicit Watcher(CQV* engine) : CComp(engine) {}
        void start() override { ++starts; }
        void stop() override { ++stops; }
        void setPosition(double ticks) override { lastPosition = ticks; }
        void setLoop(bool on) override { loopCalls += on ? 1 : -1; }
        int starts = 0, stops = 0, loopCalls = 0;
        double lastPosition = -1.0;
    };
    CQV engine(EngineOptions{false, 1});
    auto* watcher = add<Watcher>(engine);
    engine.start();
    engine.start();
    EXPECT_EQ(watcher->starts, 1);
    EXPECT_TRUE(engine.transportJumped.load());
    engine.stop();
    EXPECT_EQ(watcher->stops, 1);
    EXPECT_FALSE(watcher->panic.load());
    engine.stop();  // stopped already: panic instead
    EXPECT_EQ(watcher->stops, 1);
    EXPECT_TRUE(watcher->panic.load());

    engine.setPosition(-50.0);
    EXPECT_EQ(engine.position.load(), 0.0);
    EXPECT_EQ(watcher->lastPosition, 0.0);
    engine.setPosition(1920.0);
    EXPECT_EQ(watcher->lastPosition, 1920.0);
    engine.recording = 1;
    engine.setPosition(3840.0);
    EXPECT_EQ(engine.position.load(), 1920.0) << "ignored while recording";
    engine.recording = 0;
    engine.rewind();
    EXPECT_EQ(engine.position.load(), 0.0);

    engine.setLoop(true);  // already on
    EXPECT_EQ(watcher->loopCalls, 0);
    engine.setLoop(false);
    EXPECT_EQ(watcher->loopCalls, -1);
}

TEST(IncomingMIDI, ModSlotsTransportControllersAndLearning) {
    CQV engine(EngineOptions{false, 1});
    auto* in = add<CMIDIIn>(engine);
    auto* through = add<MIDIThrough>(engine);
    connectMIDI(*in, *through);
    auto cycleWith = [&](std::initializer_list<uint32_t> messages) {
        engine.beginCycle(blockFrames);
        double frame = 0.0;
        for (uint32_t m : messages) in->firstOutputPort()->appendEvent(frame++, m);
        engine.process(blockFrames);
        through->process(blockFrames);  // not connected to an output: pull it by hand
    };

    engine.modLearning = true;
    cycleWith({packMIDI(0xB0, 20, 64)});
    engine.modLearning = false;
    EXPECT_EQ(engine.modSlotCount, 1);
    EXPECT_EQ(engine.modSlots[0].cc, 20);
    cycleWith({packMIDI(0xB3, 20, 99), packMIDI(0x90, 60, 1)});
    EXPECT_EQ(engine.modSlots[0].value, 99);
    EXPECT_TRUE(engine.modSlots[0].changed);
    ASSERT_EQ(through->received.size(), 1u) << "a controller taken by a slot goes no further";
    EXPECT_EQ(through->received[0].data1(), 60);

    engine.transportCC[ccPlay] = -2;  // learning
    cycleWith({packMIDI(0xB0, 30, 0)});
    EXPECT_EQ(engine.transportCC[ccPlay].load(), 30);
    EXPECT_TRUE(engine.transportLearned.load());
    cycleWith({packMIDI(0xB0, 30, 127)});
    EXPECT_TRUE(engine.playing.load());

    engine.transportCC[ccTempo] = 40;
    struct Row {
        uint8_t value;
        float bpm;
    };
    for (Row row : {Row{0, 10.0f}, Row{60, 120.0f}, Row{125, 250.0f}, Row{127, 250.0f}}) {
        cycleWith({packMIDI(0xB0, 40, row.value)});
        EXPECT_EQ(engine.bpmTarget.load(), row.bpm) << int(row.value);
    }
}

TEST(Undo, EmptyStepsOnlyRaiseFlagsAndStepsApplyAtTheEndOfACycle) {
    class Step : public CUndo {
    public:
        Step(CComp* owner, int* applied) : CUndo("Edit", owner, 0x40), applied(applied) {}
        bool hasItems() const override { return true; }
        void apply(CQV& engine) override {
            ++*applied;
            CUndo::apply(engine);
        }
        int* applied;
    };
    CQV engine(EngineOptions{false, 1});
    auto* comp = add<Source>(engine, 0);
    engine.postUndo(new CUndo("Nothing", comp, 0x40), false);
    EXPECT_EQ(engine.undoSteps.count(), 0);
    EXPECT_EQ(comp->changeFlags.load() & 0x40, 0x40u);

    comp->changeFlags = 0;
    int applied = 0;
    engine.runCycle(blockFrames);  // audio has run: the step waits for the next cycle
    engine.postUndo(new Step(comp, &applied), false);
    EXPECT_EQ(applied, 0);
    EXPECT_TRUE(engine.modified);
    engine.runCycle(blockFrames);
    EXPECT_EQ(applied, 1);
    EXPECT_EQ(comp->changeFlags.load() & 0x40, 0x40u);
    EXPECT_TRUE(engine.changeFlags.load() & change::undoApplied);

    // A new step after an undo cuts off the redo tail.
    engine.postUndo(new Step(comp, &applied), false);
    engine.runCycle(blockFrames);
    EXPECT_EQ(engine.undoSteps.count(), 2);
    engine.undo();
    engine.runCycle(blockFrames);
    EXPECT_TRUE(engine.canRedo());
    engine.postUndo(new Step(comp, &applied), false);
    engine.runCycle(blockFrames);
    EXPECT_EQ(engine.undoSteps.count(), 2);
    EXPECT_FALSE(engine.canRedo());
    EXPECT_EQ(applied, 3);
}
