#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/engine_graph.h"

using namespace testgraph;

namespace {

constexpr int32_t frames = 256;
constexpr int32_t forward = undodirection::forward;
constexpr int32_t backward = undodirection::backward;

EngineOptions singleThread() { return EngineOptions{false, 1}; }

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

// Opens a step, lets `build` add its items and posts it.
template <class Build>
void post(CQV& engine, Build build, bool wait = true) {
    CUndo* step = beginUndo(engine, "Edit", nullptr, 0);
    build(*step);
    engine.postUndo(step, wait);
}

// Every undoApplied the listeners of a test got, in order, and the thread each came on.
using Heard = std::tuple<const CComp*, const CUndoItem*, int32_t>;
struct Log {
    std::vector<Heard> heard;
    std::vector<std::thread::id> threads;
};

// Logs every undoApplied it gets; with compSequencer it stands for a sequencer.
class Listener : public CComp {
public:
    Listener(CQV* engine, Log* log, int32_t type = compPlain) : CComp(engine, type), log(log) {}
    void undoApplied(CUndoItem* item, int32_t direction) override {
        log->heard.emplace_back(this, item, direction);
        log->threads.push_back(std::this_thread::get_id());
    }
    void changed(uint32_t flags) override { changedWith = flags; }
    Log* log;
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
    CQV engine(singleThread());
    Log log;
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

    int32_t word = 1;
    CUndo* step = beginUndo(engine, "Edit", seq, 0x10 | 0x20 | 0x200 | 0x400000 | 0x40);
    const CUndoItem& item = saveWord(*step, &word);
    word = 2;
    engine.postUndo(step, true);
    EXPECT_FALSE(engine.editOpen.load());
    EXPECT_TRUE(engine.modified);
    EXPECT_EQ(engine.changeFlags.load() & (0x1 | 0x2 | 0x200 | 0x400000 | change::undoApplied),
              0x1u | 0x2u | 0x200u | 0x400000u | change::undoApplied);
    EXPECT_EQ(seq->changeFlags.load(), 0x40u) << "only the bits outside the table reach the owner";
    EXPECT_EQ(seq->changedWith, step->flags);
    // The owner hears the item once, although it is also the sequencer; 0x20 then tells every component.
    EXPECT_EQ(log.heard,
              (std::vector<Heard>{{seq, &item, forward}, {seq, nullptr, forward}, {other, nullptr, forward}}));
    EXPECT_EQ(word, 2);
}

TEST(Undo, InsertRemoveMoveAndSwapRoundTripsPutEveryObjectBackInItsPlace) {
    int deleted = 0;
    CQV engine(singleThread());
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
    auto step = [&](auto build) {
        post(engine, build);
        states.push_back(state());
        return states.back();
    };
    EXPECT_EQ(step([&](CUndo& s) { insertItem(s, fresh, list, 1); }).first,
              (std::vector<void*>{o[0], fresh, o[1], o[2], o[3]}));
    // Two neighbours in one step: only a walk from the last item to the first restores their order.
    EXPECT_EQ(step([&](CUndo& s) {
                  removeItem(s, o[1], &list, nullptr, -1);
                  removeItem(s, o[2], &list, nullptr, -1);
              }).first,
              (std::vector<void*>{o[0], fresh, o[3]}));
    EXPECT_EQ(step([&](CUndo& s) { removeItem(s, fresh, &list, &other, 0); }),
              (State{{o[0], o[3]}, {fresh, o[4]}}));
    EXPECT_EQ(step([&](CUndo& s) { swapItem(s, o[3], replacement, list); }).first,
              (std::vector<void*>{o[0], replacement}));

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
        CQV engine(singleThread());
        post(engine, [&](CUndo& s) { insertItem(s, undoneInsert, list, -1); });
        post(engine, [&](CUndo& s) { removeItem(s, kept, &list, nullptr, -1); });
        engine.undo();
        engine.undo();
        engine.guiTick();
        ASSERT_EQ(itemsOf(list), (std::vector<void*>{kept, removedForGood}));
        EXPECT_EQ(engine.undoSteps.count(), 2);

        post(engine, [&](CUndo& s) { insertItem(s, laterInsert, list, 0); });
        EXPECT_EQ(engine.undoSteps.count(), 1);
        EXPECT_FALSE(engine.canRedo());
        EXPECT_EQ(deleted, 1) << "the insert that was undone goes; the object back in the list stays";
        EXPECT_EQ(itemsOf(list), (std::vector<void*>{laterInsert, kept, removedForGood}));

        post(engine, [&](CUndo& s) { removeItem(s, removedForGood, &list, nullptr, -1); });
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
    CQV engine(singleThread());
    engine.runCycle(frames);  // audio runs: steps wait for the end of the next cycle

    post(engine, [&](CUndo& s) { insertItem(s, first, list, -1); }, false);
    engine.runCycle(frames);
    engine.undo();
    post(engine, [&](CUndo& s) { insertItem(s, second, list, -1); }, false);
    EXPECT_EQ(itemsOf(list), (std::vector<void*>{first})) << "nothing runs before the cycle";
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
    CQV engine(singleThread());
    engine.runCycle(frames);
    post(engine, [&](CUndo& s) { insertItem(s, new Counted(&deleted), list, -1); }, false);
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
    post(engine, [&](CUndo& s) { insertItem(s, new Counted(&deleted), list, -1); }, false);
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
    CQV engine(singleThread());
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
    CQV engine(singleThread());
    engine.setBlockSize(frames);
    Log log;
    auto* seq = add<Listener>(engine, &log, compSequencer);
    seq->name = "seq";
    auto* owner = add<Listener>(engine, &log);
    owner->name = "owner";
    Patch patch(engine);
    const std::vector<std::string> whole = describe(engine);
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
    EXPECT_EQ(log.heard, (std::vector<Heard>{{seq, &item, forward}, {owner, &item, forward}}))
        << "the sequencer hears of it before the owner";

    for (int i = 0; i < 3; ++i) engine.runCycle(frames);
    EXPECT_EQ(patch.victim->runs, 0) << "nothing pulls a removed component";
    EXPECT_EQ(patch.stage->runs, 3);

    for (int round = 0; round < 2; ++round) {
        engine.undo();
        engine.runCycle(frames);
        EXPECT_EQ(describe(engine), whole) << "every component and cable back in its place";
        EXPECT_EQ(std::get<2>(log.heard.back()), backward);
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
    CQV engine(singleThread());
    Patch patch(engine);
    const std::vector<std::string> whole = describe(engine);
    post(engine, [&](CUndo& s) {
        removeItem(s, patch.victim->firstOutputChannel(), &patch.victim->outputChannels, nullptr, -1);
        removeItem(s, patch.stage->firstInputChannel(), &patch.stage->inputChannels, nullptr, -1);
    });
    EXPECT_EQ(describe(engine),
              (std::vector<std::string>{"out < stage group | MIDI", "a < | MIDI", "victim < a | MIDI", "b < | MIDI",
                                        "stage < | MIDI", "sink < | MIDI a victim b", "group < | MIDI"}));
    engine.undo();
    engine.guiTick();
    EXPECT_EQ(describe(engine), whole);
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
    Log quietLog, liveLog;
    CQV quiet(singleThread());
    Patch quietPatch(quiet);
    auto* quietOwner = add<Listener>(quiet, &quietLog);
    const auto expected = editScript(quiet, quietPatch, *quietOwner, [&] { quiet.guiTick(); });

    CQV live(EngineOptions{false, 3});
    live.setBlockSize(frames);
    Patch livePatch(live);
    auto* liveOwner = add<Listener>(live, &liveLog);
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
    ASSERT_EQ(liveLog.heard.size(), quietLog.heard.size());
    for (std::thread::id thread : liveLog.threads) EXPECT_EQ(thread, audioThread);
    for (std::thread::id thread : quietLog.threads) EXPECT_EQ(thread, std::this_thread::get_id());
}
