#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/engine_graph.h"
#include "support/rt_probe.h"

using namespace testgraph;

namespace {

constexpr int32_t frames = 256;

// Counts its deletions, so that a test can tell what the history let go of.
class Counted : public CObject {
public:
    explicit Counted(int* deleted) : deleted(deleted) {}
    ~Counted() override { ++*deleted; }
    int* deleted;
};

std::vector<void*> itemsOf(const CList& list) {
    std::vector<void*> items;
    for (CList::Cell* cell = list.head(); cell; cell = cell->next) items.push_back(cell->item);
    return items;
}

struct Heard {
    const CComp* who;
    const CUndoItem* item;
    int32_t direction;
    std::thread::id thread;
};

// Writes down every undoApplied it gets; with compSequencer it stands for a sequencer.
class Listener : public CComp {
public:
    Listener(CQV* engine, std::vector<Heard>* log, int32_t type = compPlain) : CComp(engine, type), log(log) {}
    void undoApplied(CUndoItem* item, int32_t direction) override {
        log->push_back({this, item, direction, std::this_thread::get_id()});
    }
    void changed(uint32_t flags) override { changedWith = flags; }
    std::vector<Heard>* log;
    uint32_t changedWith = 0;
};

// A component with one terminal of each kind that counts its runs.
class Node : public CComp {
public:
    Node(CQV* engine, const char* label) : CComp(engine) { name = label; }
    void createPorts() override {
        addInputPort();
        addOutputPort();
        addInputChannel();
        addOutputChannel();
    }
    bool takesAudio() const override { return true; }
    void processBlock(int32_t /*frames*/) override { ++runs; }
    int runs = 0;
};

// A graph around one component, "victim", with cables that leave it towards ordinary components, the
// hardware output and a group channel, and one cable into it that travels with it.
struct Patch {
    explicit Patch(CQV& engine) {
        out = add<CAudioOut>(engine);
        out->name = "out";
        a = add<Node>(engine, "a");
        victim = add<Node>(engine, "victim");
        b = add<Node>(engine, "b");
        stage = add<Node>(engine, "stage");
        sink = add<Node>(engine, "sink");
        group = new CGroupCh(&engine);
        group->name = "group";
        group->createPorts();
        engine.addGroupChannel(group);

        intoVictim = connectAudio(*a, *victim);
        connectAudio(*a, *stage);
        connectAudio(*victim, *stage);
        connectAudio(*b, *stage);
        connectAudio(*victim, *out);
        connectAudio(*stage, *out);
        connectAudio(*victim, *group);
        connectAudio(*group, *out);
        connectMIDI(*a, *sink);
        connectMIDI(*victim, *sink);
        connectMIDI(*b, *sink);
    }

    // Every cable list of the graph, by pointer.
    std::vector<std::vector<void*>> cables() const {
        std::vector<std::vector<void*>> lists;
        for (const CComp* comp : std::initializer_list<const CComp*>{out, a, victim, b, stage, sink, group}) {
            lists.push_back(itemsOf(comp->audioCablesIn));
            lists.push_back(itemsOf(comp->midiCablesIn));
        }
        return lists;
    }

    CAudioOut* out;
    Node *a, *victim, *b, *stage, *sink;
    CGroupCh* group;
    CAudioCable* intoVictim;
};

// The components in order, each with the sources of its cables in order.
std::vector<std::string> describe(const CQV& engine) {
    std::vector<std::string> lines;
    auto line = [&lines](const CComp& comp) {
        std::string text = comp.name.c_str();
        text.append(" <");
        for (const CAudioCable* cable : comp.audioCablesIn) text.append(" ").append(cable->source->name.c_str());
        text.append(" | MIDI");
        for (const CMIDICable* cable : comp.midiCablesIn) text.append(" ").append(cable->source->name.c_str());
        lines.push_back(text);
    };
    for (const CComp* comp : engine.comps) line(*comp);
    for (const CGroupCh* group : engine.groupChannels) line(*group);
    return lines;
}

Node* newNode(CQV& engine, const char* label) {
    auto* node = new Node(&engine, label);
    node->createPorts();
    node->setBlockSize(engine.blockSize);
    node->setSampleRate(engine.sampleRate);
    return node;
}

}  // namespace

TEST(Undo, StepFlagsAreRoutedByTheTableAndAnEmptyStepLeavesNoHistory) {
    CQV engine(EngineOptions{false, 1});
    std::vector<Heard> log;
    auto* seq = add<Listener>(engine, &log, compSequencer);
    auto* other = add<Listener>(engine, &log);

    CUndo* empty = beginUndo(engine, "Nothing", other, 0x10 | 0x40);
    EXPECT_TRUE(engine.editOpen.load());
    engine.postUndo(empty, true);
    EXPECT_FALSE(engine.editOpen.load());
    EXPECT_EQ(engine.undoSteps.count(), 0);
    EXPECT_FALSE(engine.canUndo());
    EXPECT_FALSE(engine.modified);
    EXPECT_EQ(other->changeFlags.load(), 0x50u) << "an empty step hands its flags to its owner as they are";
    EXPECT_EQ(engine.changeFlags.load() & change::undoApplied, 0u);
    other->changeFlags = 0;

    int32_t word = 1;
    CUndo* step = beginUndo(engine, "Edit", seq, 0x10 | 0x20 | 0x200 | 0x400000 | 0x40);
    const CUndoItem& item = saveWord(*step, &word);
    word = 2;
    engine.postUndo(step, true);
    EXPECT_FALSE(engine.editOpen.load());
    EXPECT_EQ(engine.changeFlags.load() & (0x1 | 0x2 | 0x200 | 0x400000 | change::undoApplied),
              0x1u | 0x2u | 0x200u | 0x400000u | change::undoApplied);
    EXPECT_EQ(seq->changeFlags.load(), 0x40u) << "only the bits outside the table reach the owner";
    EXPECT_EQ(seq->changedWith, step->flags);
    // The owner hears the item once, although it is also the sequencer; 0x20 then tells every component.
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].who, seq);
    EXPECT_EQ(log[0].item, &item);
    EXPECT_EQ(log[0].direction, undodirection::forward);
    EXPECT_EQ(log[1].who, seq);
    EXPECT_EQ(log[1].item, nullptr);
    EXPECT_EQ(log[2].who, other);
    EXPECT_EQ(log[2].item, nullptr);
    EXPECT_EQ(word, 2);
}

TEST(Undo, InsertRemoveMoveAndSwapRoundTripsPutEveryObjectBackInItsPlace) {
    int deleted = 0;
    CQV engine(EngineOptions{false, 1});
    TList<CObject> list, other;
    std::vector<Counted*> o;
    for (int i = 0; i < 5; ++i) o.push_back(new Counted(&deleted));
    for (int i = 0; i < 4; ++i) list.add(o[i]);
    other.add(o[4]);
    auto* fresh = new Counted(&deleted);
    auto* replacement = new Counted(&deleted);

    using State = std::pair<std::vector<void*>, std::vector<void*>>;
    auto state = [&] { return State{itemsOf(list), itemsOf(other)}; };
    std::vector<State> states{state()};

    CUndo* insert = beginUndo(engine, "Insert", nullptr, 0);
    insertItem(*insert, fresh, list, 1);
    engine.postUndo(insert, true);
    states.push_back(state());
    EXPECT_EQ(states.back().first, (std::vector<void*>{o[0], fresh, o[1], o[2], o[3]}));

    // Two neighbours in one step: only a walk from the last item to the first restores their order.
    CUndo* remove = beginUndo(engine, "Delete", nullptr, 0);
    removeItem(*remove, o[1], &list, nullptr, -1);
    removeItem(*remove, o[2], &list, nullptr, -1);
    engine.postUndo(remove, true);
    states.push_back(state());
    EXPECT_EQ(states.back().first, (std::vector<void*>{o[0], fresh, o[3]}));

    CUndo* move = beginUndo(engine, "Move", nullptr, 0);
    removeItem(*move, fresh, &list, &other, 0);
    engine.postUndo(move, true);
    states.push_back(state());
    EXPECT_EQ(states.back(), (State{{o[0], o[3]}, {fresh, o[4]}}));

    CUndo* replace = beginUndo(engine, "Replace", nullptr, 0);
    swapItem(*replace, o[3], replacement, list);
    engine.postUndo(replace, true);
    states.push_back(state());
    EXPECT_EQ(states.back().first, (std::vector<void*>{o[0], replacement}));

    for (int round = 0; round < 2; ++round) {
        for (int i = 3; i >= 0; --i) {
            ASSERT_TRUE(engine.canUndo());
            engine.undo();
            engine.guiTick();
            ASSERT_EQ(state(), states[i]) << "round " << round << ", undo to state " << i;
        }
        EXPECT_FALSE(engine.canUndo());
        for (int i = 1; i <= 4; ++i) {
            ASSERT_TRUE(engine.canRedo());
            engine.redo();
            engine.guiTick();
            ASSERT_EQ(state(), states[i]) << "round " << round << ", redo to state " << i;
        }
        EXPECT_FALSE(engine.canRedo());
    }
    EXPECT_EQ(deleted, 0);
    list.deleteAll();
    other.deleteAll();
}

TEST(Undo, ANewStepAfterUndoCutsTheRedoTailAndDeletesWhatOnlyTheTailHeld) {
    int deleted = 0;
    TList<CObject> list;
    auto* kept = new Counted(&deleted);
    auto* removedForGood = new Counted(&deleted);
    list.add(kept);
    list.add(removedForGood);
    auto* undoneInsert = new Counted(&deleted);
    auto* laterInsert = new Counted(&deleted);
    {
        CQV engine(EngineOptions{false, 1});
        CUndo* insert = beginUndo(engine, "Insert", nullptr, 0);
        insertItem(*insert, undoneInsert, list, -1);
        engine.postUndo(insert, true);
        CUndo* remove = beginUndo(engine, "Delete", nullptr, 0);
        removeItem(*remove, kept, &list, nullptr, -1);
        engine.postUndo(remove, true);
        engine.undo();
        engine.undo();
        engine.guiTick();
        ASSERT_EQ(itemsOf(list), (std::vector<void*>{kept, removedForGood}));
        EXPECT_EQ(engine.undoSteps.count(), 2);

        CUndo* again = beginUndo(engine, "Insert", nullptr, 0);
        insertItem(*again, laterInsert, list, 0);
        engine.postUndo(again, true);
        EXPECT_EQ(engine.undoSteps.count(), 1);
        EXPECT_FALSE(engine.canRedo());
        EXPECT_EQ(deleted, 1) << "the insert that was undone goes; the object back in the list stays";
        EXPECT_EQ(itemsOf(list), (std::vector<void*>{laterInsert, kept, removedForGood}));

        CUndo* last = beginUndo(engine, "Delete", nullptr, 0);
        removeItem(*last, removedForGood, &list, nullptr, -1);
        engine.postUndo(last, true);
        EXPECT_EQ(deleted, 1) << "a removed object lives as long as the history can bring it back";
    }
    EXPECT_EQ(deleted, 2);
    EXPECT_EQ(itemsOf(list), (std::vector<void*>{laterInsert, kept}));
    list.deleteAll();
}

TEST(Undo, AStepCutOffWhileItsUndoIsStillQueuedLivesUntilTheUndoHasRun) {
    int deleted = 0;
    TList<CObject> list;
    auto* first = new Counted(&deleted);
    auto* second = new Counted(&deleted);
    CQV engine(EngineOptions{false, 1});
    engine.runCycle(frames);  // audio runs: steps wait for the end of the next cycle

    CUndo* insert = beginUndo(engine, "Insert", nullptr, 0);
    insertItem(*insert, first, list, -1);
    engine.postUndo(insert, false);
    engine.runCycle(frames);
    engine.undo();
    CUndo* next = beginUndo(engine, "Insert", nullptr, 0);
    insertItem(*next, second, list, -1);
    engine.postUndo(next, false);
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(engine.retiredSteps.count(), 1);

    engine.runCycle(frames);
    EXPECT_EQ(itemsOf(list), (std::vector<void*>{second}));
    engine.guiTick();
    EXPECT_EQ(engine.retiredSteps.count(), 0);
    EXPECT_EQ(deleted, 1);
    list.deleteAll();
}

TEST(Undo, UndoAndRedoAreRefusedWhileRecordingAndAStepTheQueueCannotTakeIsDropped) {
    int deleted = 0;
    TList<CObject> list;
    CQV engine(EngineOptions{false, 1});
    engine.runCycle(frames);
    CUndo* insert = beginUndo(engine, "Insert", nullptr, 0);
    insertItem(*insert, new Counted(&deleted), list, -1);
    engine.postUndo(insert, false);
    engine.runCycle(frames);
    ASSERT_EQ(list.count(), 1);

    engine.recording = 1;
    engine.undo();
    EXPECT_EQ(engine.deferred->count(), 0);
    EXPECT_EQ(engine.undoIndex, 0);
    engine.recording = 0;

    struct Idle {
        void run(void*) {}
    } idle;
    while (engine.defer(CDeferredAction::of<&Idle::run>(&idle), nullptr)) {
    }
    CUndo* lost = beginUndo(engine, "Insert", nullptr, 0);
    insertItem(*lost, new Counted(&deleted), list, -1);
    engine.postUndo(lost, false);
    EXPECT_EQ(engine.undoSteps.count(), 1);
    EXPECT_EQ(engine.undoIndex, 0);
    EXPECT_EQ(deleted, 1) << "the new object of a step that never ran goes with the step";
    EXPECT_FALSE(engine.editOpen.load());
    engine.undo();
    EXPECT_EQ(engine.undoIndex, 0) << "an undo the queue could not take is not counted";

    engine.runCycle(frames);
    EXPECT_EQ(list.count(), 1);
    list.deleteAll();
}

TEST(Undo, SavedCellsKeepTheNewValueWhenAppliedAndSwapOnUndoAndRedo) {
    class Contents : public CObject {
    public:
        explicit Contents(int value) : value(value) {}
        int value;
    };
    SwapContents swapValues = [](CObject* a, CObject* b) {
        std::swap(static_cast<Contents*>(a)->value, static_cast<Contents*>(b)->value);
    };
    CQV engine(EngineOptions{false, 1});
    Contents part(1), original(0), later(0);
    auto* copy = new Contents(10);

    int32_t word = 1;
    float gain = 0.5f;
    CObject* target = &original;
    CUndo* step = beginUndo(engine, "Edit", nullptr, 0);
    saveWord(*step, &word);
    saveSecond(*step, &gain);
    savePointer(*step, &target);
    swapContentsItem(*step, &part, copy, swapValues);
    EXPECT_EQ(step->items.count(), 3) << "the second cell joins the word's item";
    word = 2;
    gain = 0.75f;
    target = &later;
    swapValues(&part, copy);  // the edit swaps the new contents in itself, as it writes the words

    using State = std::tuple<int32_t, float, CObject*, int, int>;
    auto state = [&] { return State{word, gain, target, part.value, copy->value}; };
    const State applied{2, 0.75f, &later, 10, 1}, undone{1, 0.5f, &original, 1, 10};
    engine.postUndo(step, true);
    EXPECT_EQ(state(), applied);
    for (int round = 0; round < 2; ++round) {
        engine.undo();
        engine.guiTick();
        EXPECT_EQ(state(), undone) << "round " << round;
        engine.redo();
        engine.guiTick();
        EXPECT_EQ(state(), applied) << "round " << round;
    }
}

TEST(Undo, RemovingAComponentTakesTheCablesLeavingItAndUndoBringsThemBackInPlace) {
    CQV engine(EngineOptions{false, 1});
    engine.setBlockSize(frames);
    std::vector<Heard> log;
    auto* seq = add<Listener>(engine, &log, compSequencer);
    seq->name = "seq";
    auto* owner = add<Listener>(engine, &log);
    owner->name = "owner";
    Patch patch(engine);
    const std::vector<void*> comps = itemsOf(engine.comps);
    const auto cables = patch.cables();
    const std::vector<std::string> removed{
        "seq < | MIDI",   "owner < | MIDI",  "out < stage group | MIDI", "a < | MIDI",    "b < | MIDI",
        "stage < a b | MIDI", "sink < | MIDI a b", "group < | MIDI"};
    engine.changeFlags = 0;

    CUndo* step = beginUndo(engine, "Delete", owner, 0);
    const CUndoItem& item = removeItem(*step, patch.victim, &engine.comps, nullptr, -1);
    engine.postUndo(step, true);
    EXPECT_EQ(describe(engine), removed);
    EXPECT_EQ(itemsOf(patch.victim->audioCablesIn), (std::vector<void*>{patch.intoVictim}))
        << "the cables a component holds go with it";
    EXPECT_TRUE(engine.changeFlags.load() & change::latency);
    EXPECT_TRUE(seq->changeFlags.load() & undoflag::sequencerPorts);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].who, seq) << "the sequencer hears of it before the owner";
    EXPECT_EQ(log[1].who, owner);
    EXPECT_EQ(log[1].item, &item);
    EXPECT_EQ(log[1].direction, undodirection::forward);

    for (int i = 0; i < 3; ++i) engine.runCycle(frames);
    EXPECT_EQ(patch.victim->runs, 0) << "nothing pulls a removed component";
    EXPECT_EQ(patch.stage->runs, 3);

    for (int round = 0; round < 2; ++round) {
        engine.undo();
        engine.runCycle(frames);
        EXPECT_EQ(itemsOf(engine.comps), comps);
        EXPECT_EQ(patch.cables(), cables);
        EXPECT_EQ(log.back().direction, undodirection::backward);
        const int runs = patch.victim->runs;
        engine.runCycle(frames);
        EXPECT_EQ(patch.victim->runs, runs + 1) << "it is pulled again";

        engine.redo();
        engine.runCycle(frames);
        EXPECT_EQ(describe(engine), removed);
        const int runsBeforeRemoval = patch.victim->runs;
        engine.runCycle(frames);
        EXPECT_EQ(patch.victim->runs, runsBeforeRemoval);
    }
}

TEST(Undo, RemovingATerminalTakesOnlyTheCablesThatTouchIt) {
    CQV engine(EngineOptions{false, 1});
    Patch patch(engine);
    const auto cables = patch.cables();
    CUndo* step = beginUndo(engine, "Delete output", patch.victim, 0);
    removeItem(*step, patch.victim->firstOutputChannel(), &patch.victim->outputChannels, nullptr, -1);
    engine.postUndo(step, true);
    EXPECT_EQ(describe(engine),
              (std::vector<std::string>{"out < stage group | MIDI", "a < | MIDI", "victim < a | MIDI", "b < | MIDI",
                                        "stage < a b | MIDI", "sink < | MIDI a victim b", "group < | MIDI"}));
    engine.undo();
    engine.guiTick();
    EXPECT_EQ(patch.cables(), cables);
}

namespace {

// Deletes the victim with its cables, adds a component with a cable, then undoes and redoes both.
// settle() returns once what was posted has run. Returns the graph after each operation.
template <class Settle>
std::vector<std::vector<std::string>> editScript(CQV& engine, Patch& patch, Listener& owner, Settle settle) {
    std::vector<std::vector<std::string>> states;
    CUndo* remove = beginUndo(engine, "Delete", &owner, 0x10);
    removeItem(*remove, patch.victim, &engine.comps, nullptr, -1);
    engine.postUndo(remove, false);
    settle();
    states.push_back(describe(engine));

    Node* fresh = newNode(engine, "fresh");
    CUndo* insert = beginUndo(engine, "Insert", &owner, 0x10);
    insertItem(*insert, fresh, engine.comps, 1);
    insertItem(*insert, makeAudioCable(patch.stage, fresh->firstOutputChannel(), patch.stage->firstInputChannel()),
               patch.stage->audioCablesIn, 0);
    engine.postUndo(insert, false);
    settle();
    states.push_back(describe(engine));

    for (auto run : {&CQV::undo, &CQV::undo, &CQV::redo, &CQV::redo}) {
        (engine.*run)();
        settle();
        states.push_back(describe(engine));
    }
    return states;
}

}  // namespace

TEST(Undo, StepsAppliedByRunningCyclesEndLikeStepsAppliedWithoutAudio) {
    std::vector<Heard> quietLog, liveLog;

    CQV quiet(EngineOptions{false, 1});
    Patch quietPatch(quiet);
    auto* quietOwner = add<Listener>(quiet, &quietLog);
    quietOwner->name = "owner";
    const auto expected = editScript(quiet, quietPatch, *quietOwner, [&] { quiet.guiTick(); });

    CQV live(EngineOptions{false, 3});
    live.setBlockSize(frames);
    Patch livePatch(live);
    auto* liveOwner = add<Listener>(live, &liveLog);
    liveOwner->name = "owner";
    std::atomic<bool> running{true};
    std::atomic<int> cycles{0};
    std::thread::id audioThread;
    std::thread audio([&] {
        audioThread = std::this_thread::get_id();
        while (running.load()) {
            live.runCycle(frames);
            cycles.fetch_add(1);
        }
    });
    while (cycles.load() == 0) std::this_thread::yield();
    const auto actual = editScript(live, livePatch, *liveOwner, [&] {
        while (live.deferred->count() > 0) std::this_thread::sleep_for(std::chrono::microseconds(100));
    });
    running = false;
    audio.join();

    EXPECT_EQ(actual, expected);
    EXPECT_NE(expected[1], expected[0]);
    ASSERT_EQ(liveLog.size(), quietLog.size());
    for (const Heard& heard : liveLog) EXPECT_EQ(heard.thread, audioThread);
    for (const Heard& heard : quietLog) EXPECT_EQ(heard.thread, std::this_thread::get_id());
}

TEST(Undo, ApplyUndoAndRedoAllocateNothing) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    CQV engine(EngineOptions{false, 1});
    engine.setBlockSize(frames);
    Patch patch(engine);
    for (int i = 0; i < 3; ++i) engine.runCycle(frames);

    int32_t word = 1;
    Node* fresh = newNode(engine, "fresh");
    auto* replacement = new CObject;
    TList<CObject> list;
    list.add(new CObject);
    CUndo* step = beginUndo(engine, "Edit", patch.a, 0x10 | 0x20);
    removeItem(*step, patch.victim, &engine.comps, nullptr, -1);
    removeItem(*step, patch.b->firstOutputPort(), &patch.b->outputPorts, nullptr, -1);
    insertItem(*step, fresh, engine.comps, 0);
    swapItem(*step, list.getAt(0), replacement, list);
    saveWord(*step, &word);
    word = 2;
    engine.postUndo(step, false);

    // The first cycle runs the step, the second works the latency out again.
    auto allocationsOverTwoCycles = [&] {
        rtprobe::Scope probe;
        engine.runCycle(frames);
        engine.runCycle(frames);
        return probe.allocations();
    };
    EXPECT_EQ(allocationsOverTwoCycles(), 0);
    ASSERT_EQ(engine.comps.indexOf(patch.victim), -1);
    engine.undo();
    EXPECT_EQ(allocationsOverTwoCycles(), 0);
    ASSERT_GE(engine.comps.indexOf(patch.victim), 0);
    ASSERT_EQ(word, 1);
    engine.redo();
    EXPECT_EQ(allocationsOverTwoCycles(), 0);
    ASSERT_EQ(engine.comps.indexOf(patch.victim), -1);
    list.deleteAll();
}
