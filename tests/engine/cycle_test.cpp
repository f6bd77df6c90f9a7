#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "support/compare.h"
#include "support/engine_graph.h"
#include "support/rt_probe.h"

using namespace comparetest;
using namespace testgraph;

namespace {

constexpr int32_t blockFrames = 256;

EngineOptions singleThread() { return EngineOptions{false, 1}; }

// Keeps the argument of every deferred call, in order.
struct Recorder {
    std::vector<intptr_t> seen;
    void record(void* argument) { seen.push_back(reinterpret_cast<intptr_t>(argument)); }
    CDeferredAction action() { return CDeferredAction::of<&Recorder::record>(this); }
};

// A random graph whose strips all do something: sends to two groups, fader and pan off centre, and on
// every eighth node trim, the four EQ bands and a half-wet insert with latency of its own.
RandomGraph stripGraph(CQV& engine, int32_t components, uint32_t seed, int32_t block) {
    engine.setBlockSize(block);
    RandomGraph graph = buildRandomGraph(engine, components, seed);
    auto* group = new CGroupCh(&engine);
    group->createPorts();
    engine.addGroupChannel(group);
    connectAudio(*group, *graph.out);
    for (size_t n = 0; n < graph.nodes.size(); ++n) {
        COutputChannel* channel = graph.nodes[n]->firstOutputChannel();
        channel->sends[n % 2]->level = 0.2f + 0.1f * static_cast<float>(n % 7);
        channel->volume = 0.6f + 0.05f * static_cast<float>(n % 5);
        channel->pan = -0.5f + 0.2f * static_cast<float>(n % 6);
        if (n % 8 != 0) continue;
        channel->trim = 0.2f;
        for (int32_t band = 0; band < COutputChannel::eqBands; ++band)
            channel->setParam(stripparam::firstEQ + band * 4, 1.0f);
        auto* insert = new Stage(&engine, 1.5f, static_cast<int32_t>(n));
        insert->createPorts();
        insert->setBlockSize(block);
        insert->wetLevel = 0.5f;
        channel->inserts.add(insert);
    }
    engine.raise(change::latency);
    return graph;
}

}  // namespace

TEST(Cycle, ParallelPathIsBitIdenticalToTheSinglePath) {
    constexpr int32_t cycles = 40;
    for (uint32_t seed : {1u, 2u, 3u}) {
        CQV single(singleThread());
        CQV parallel(EngineOptions{false, 5});  // four workers, more than this machine may have cores
        ASSERT_EQ(single.workers->threadCount, 0);
        ASSERT_EQ(parallel.workers->threadCount, 4);
        RandomGraph a = stripGraph(single, 64, seed, blockFrames);
        RandomGraph b = stripGraph(parallel, 64, seed, blockFrames);

        const std::vector<float> expected = runAndCapture(single, *a.out, cycles, blockFrames);
        const std::vector<float> actual = runAndCapture(parallel, *b.out, cycles, blockFrames);
        EXPECT_EQ(firstDifference(expected, actual), noDifference) << "seed " << seed;
        EXPECT_GT(parallel.workers->peakItems, 1);
        auto runs = [](CComp* c) {
            if (auto* s = dynamic_cast<Source*>(c)) return s->runs;
            return static_cast<Stage*>(c)->runs;
        };
        for (size_t n = 0; n < a.nodes.size(); ++n) {
            ASSERT_EQ(runs(a.nodes[n]), cycles) << "once a cycle on the single path; seed " << seed << " node " << n;
            ASSERT_EQ(runs(b.nodes[n]), cycles) << "once a cycle on the parallel path; seed " << seed << " node " << n;
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
    CQV engine(singleThread());
    engine.setSampleRate(48000.0);
    auto* seq = add<Sequencer>(engine);
    engine.start();
    for (int i = 0; i < 10; ++i) engine.runCycle(blockFrames);
    EXPECT_EQ(seq->runs, 10);
    EXPECT_EQ(engine.sequencer, seq);
    EXPECT_EQ(engine.framesPlayed.load(), 10 * blockFrames);
    EXPECT_DOUBLE_EQ(engine.position.load(), 10.0 * blockFrames * 120.0 * 16.0 / 48000.0);
}

TEST(Graph, LoopsContributeWhatTheyHaveAndNeverRecurse) {
    // A cable from a stage to itself, and a longer cycle a -> b -> c -> a, both fed by a source.
    CQV engine(singleThread());
    auto* out = add<CAudioOut>(engine);
    auto* source = add<Source>(engine, 3);
    auto* self = add<Stage>(engine, 1.0f);
    auto* a = add<Stage>(engine, 1.0f);
    auto* b = add<Stage>(engine, 1.0f);
    auto* c = add<Stage>(engine, 1.0f);
    connectAudio(*source, *self);
    connectAudio(*self, *self);
    connectAudio(*source, *a);
    connectAudio(*c, *a);
    connectAudio(*a, *b);
    connectAudio(*b, *c);
    connectAudio(*self, *out);
    connectAudio(*c, *out);

    for (int cycle = 0; cycle < 3; ++cycle) ASSERT_TRUE(engine.runCycle(blockFrames));
    for (Stage* stage : {self, a, b, c}) EXPECT_EQ(stage->runs, 3) << "each member of a loop runs once a cycle";
    EXPECT_EQ(source->runs, 3);

    // The self-loop sees its own output as beginCycle cleared it, so only the source reaches it.
    const COutputChannel* src = source->firstOutputChannel();
    for (int32_t i = 0; i < blockFrames; ++i)
        ASSERT_FLOAT_EQ(self->firstOutputChannel()->left()[i], std::tanh(src->left()[i])) << i;
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
    EXPECT_EQ(queue.first()->midi, 510u) << "the 512th event is the one lost";
}

TEST(MIDIQueue, PullPassesMIDIAndParametersButNotConsumedEventsAndPanicsOnce) {
    CQV engine(singleThread());
    auto* from = add<MIDIThrough>(engine);
    auto* to = add<MIDIThrough>(engine);
    connectMIDI(*from, *to);
    engine.beginCycle(blockFrames);
    COutputPort* port = from->firstOutputPort();
    port->appendEvent(1.0, packMIDI(0x90, 60, 100));
    port->appendEvent(2.0, packMIDI(0x90, 61, 100), EventType::consumed);
    port->appendEvent(3.0, 0, EventType::param, 0.25f, 7, to, nullptr);
    from->processGuard.markDone();  // so that its events stand as written
    to->process(blockFrames);
    ASSERT_EQ(to->received.size(), 2u);
    EXPECT_EQ(to->received[0].midi, packMIDI(0x90, 60, 100));
    EXPECT_EQ(to->received[1].type, EventType::param);
    EXPECT_EQ(to->received[1].param, 7);
    EXPECT_FLOAT_EQ(to->received[1].value, 0.25f);
    EXPECT_EQ(to->received[1].target, to);

    engine.stop();  // stopped already: the panic gesture
    for (size_t expected : {16u, 0u}) {
        engine.beginCycle(blockFrames);
        to->process(blockFrames);
        ASSERT_EQ(to->received.size(), expected) << "all notes off on every channel, once";
        for (uint32_t c = 0; c < expected; ++c) {
            EXPECT_EQ(to->received[c].midi, 0x7BB0 + c);
            EXPECT_DOUBLE_EQ(to->received[c].frame, c);
        }
    }
}

TEST(ParamEvents, CutTheBlockAtRoundedFrames) {
    constexpr int32_t frames = 64;
    struct Row {
        double frame;
        int32_t cut;
    };
    const Row rows[] = {{0.0, 0}, {0.49, 0}, {0.5, 1}, {10.4999, 10}, {10.5, 11}, {63.6, 64}, {200.0, 64}};
    CQV engine(singleThread());
    for (const Row& row : rows) {
        CInputPort port(&engine);
        int target = 0, other = 0;
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

TEST(DeferredQueue, DropsBeyond127AndRunsInOrderOnTheAudioThread) {
    CQV engine(singleThread());
    Recorder recorder;
    for (intptr_t i = 0; i < 130; ++i)
        EXPECT_EQ(engine.defer(recorder.action(), reinterpret_cast<void*>(i)), i < 127) << i;
    EXPECT_EQ(engine.deferred->count(), 127);
    engine.runCycle(blockFrames);
    ASSERT_EQ(recorder.seen.size(), 127u);
    for (intptr_t i = 0; i < 127; ++i) EXPECT_EQ(recorder.seen[i], i);
    EXPECT_EQ(engine.deferred->count(), 0);
    EXPECT_TRUE(engine.defer(recorder.action(), nullptr));
}

TEST(DeferredQueue, GuiTickTakesOverOnTheEleventhTickWithoutAudio) {
    CQV engine(singleThread());
    Recorder recorder;
    auto ran = [&] { return recorder.seen.size(); };
    engine.defer(recorder.action(), nullptr);
    engine.guiTick();
    EXPECT_EQ(ran(), 1u) << "with no audio ever started, the tick applies at once";

    engine.runCycle(blockFrames);
    engine.defer(recorder.action(), nullptr);
    for (int tick = 1; tick <= 10; ++tick) {
        engine.guiTick();
        ASSERT_EQ(ran(), 1u) << "once audio has run, the tick leaves the queue to it; tick " << tick;
    }
    engine.guiTick();
    EXPECT_EQ(ran(), 2u);
    engine.defer(recorder.action(), nullptr);
    engine.guiTick();
    EXPECT_EQ(ran(), 3u) << "from then on every tick drains, until audio runs again";
    engine.runCycle(blockFrames);
    engine.defer(recorder.action(), nullptr);
    engine.guiTick();
    EXPECT_EQ(ran(), 3u);
}

TEST(DeferredQueue, EntriesPostedWhileCyclesRunAreNeverLost) {
    CQV engine(EngineOptions{false, 2});
    connectAudio(*add<Source>(engine, 1), *add<CAudioOut>(engine));
    std::atomic<bool> running{true};
    std::thread audio([&] {
        while (running.load()) engine.runCycle(64);
    });
    Recorder recorder;  // read only once the audio thread has gone
    size_t posted = 0;
    while (posted < 5000) {
        if (engine.defer(recorder.action(), nullptr)) ++posted;
        else std::this_thread::yield();
    }
    while (engine.deferred->count() > 0) std::this_thread::yield();
    running = false;
    audio.join();
    EXPECT_EQ(recorder.seen.size(), posted);
}

TEST(Exclusive, HandshakeKeepsTheCallbackOutWhileTheJobRuns) {
    CQV engine(singleThread());
    auto* source = add<Source>(engine, 1);
    connectAudio(*source, *add<CAudioOut>(engine));

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
    CQV engine(singleThread());
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
    CQV engine(singleThread());
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

TEST(RealTime, TenThousandCyclesOfStripsAndUndoWithWorkersAllocateNothingAndLockOnlyThePool) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    constexpr int32_t frames = 1024;
    CQV engine(EngineOptions{false, 4});
    ASSERT_GT(engine.workers->threadCount, 0);
    RandomGraph graph = stripGraph(engine, 64, 7, frames);
    auto* in = add<CMIDIIn>(engine);
    auto* through = add<MIDIThrough>(engine);
    connectMIDI(*in, *through);
    connectMIDI(*through, *graph.nodes.back());
    engine.start();
    // Warm up: threads started, first pins and lazy thread-local state are out of the way.
    for (int i = 0; i < 10; ++i) engine.runCycle(frames);

    // One step of every kind of move, applied by the first measured cycle, then undone and redone in turn.
    int32_t word = 1;
    auto* fresh = new Stage(&engine, 1.0f);
    fresh->createPorts();
    fresh->setBlockSize(frames);
    TList<CObject> list;
    list.add(new CObject);
    CUndo* step = beginUndo(engine, "Edit", graph.nodes[0], 0x10 | 0x20);
    removeItem(*step, graph.nodes[33], &engine.comps, nullptr, -1);
    removeItem(*step, graph.nodes[1]->firstOutputChannel(), &graph.nodes[1]->outputChannels, nullptr, -1);
    removeItem(*step, through->firstOutputPort(), &through->outputPorts, nullptr, -1);
    insertItem(*step, fresh, engine.comps, 0);
    swapItem(*step, list.getAt(0), new CObject, list);
    saveWord(*step, &word);
    word = 2;
    engine.postUndo(step, false);

    int32_t words[10] = {};
    int64_t allocations = 0, foreignLocks = 0, locks = 0;
    {
        rtprobe::Scope probe;
        for (int cycle = 0; cycle < 10000; ++cycle) {
            if (cycle % 1000 == 500) (cycle / 1000) % 2 == 0 ? engine.undo() : engine.redo();
            engine.beginCycle(frames);
            in->firstOutputPort()->appendEvent(cycle % frames, packMIDI(0x90, 60, 100));
            // Fader, EQ and send events cut the strips that have inserts.
            for (size_t n = 0; n < graph.nodes.size(); n += 8) {
                COutputChannel* channel = graph.nodes[n]->firstOutputChannel();
                CInputPort* port = graph.nodes[n]->firstInputPort();
                const float volume = 0.3f + 0.001f * static_cast<float>(cycle % 100);
                port->addEvent(17.0, 0, EventType::param, volume, stripparam::volume, channel);
                port->addEvent(100.0, 0, EventType::param, 0.6f, stripparam::firstEQ + 5, channel);
                port->addEvent(200.0, 0, EventType::param, 0.4f, 0, channel->sends[1]);
            }
            engine.process(frames);
            if (cycle % 1000 == 999) words[cycle / 1000] = word;
        }
        // Read before any assertion, which may allocate for its message.
        allocations = probe.allocations();
        foreignLocks = probe.locksOtherThan(engine.workers->lock.identity());
        locks = probe.locks();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(foreignLocks, 0);
    EXPECT_GT(locks, 0) << "the pool's lock is taken, so the probe sees locks";
    EXPECT_GT(engine.workers->peakItems, 1);
    EXPECT_EQ(std::vector<int32_t>(words, words + 10), (std::vector<int32_t>{1, 2, 1, 2, 1, 2, 1, 2, 1, 2}))
        << "the step was undone and redone";
    EXPECT_EQ(engine.comps.indexOf(graph.nodes[33]), -1);
    list.deleteAll();
}
