#include <gtest/gtest.h>

#include "support/engine_graph.h"
#include "support/rt_probe.h"

using namespace testgraph;

TEST(RealTime, TenThousandCyclesWithWorkersAllocateNothingAndLockOnlyThePool) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    constexpr int32_t frames = 1024;
    CQV engine(EngineOptions{false, 4});
    ASSERT_GT(engine.workers->threadCount, 0);
    engine.setBlockSize(frames);
    RandomGraph graph = buildRandomGraph(engine, 64, 7);
    auto* in = add<CMIDIIn>(engine);
    auto* through = add<MIDIThrough>(engine);
    connectMIDI(*in, *through);
    connectMIDI(*through, *graph.nodes.back());
    engine.raise(change::latency);
    engine.start();
    // Warm up: threads started, first pins and lazy thread-local state are out of the way.
    for (int i = 0; i < 10; ++i) engine.runCycle(frames);

    int64_t allocations = 0, foreignLocks = 0, locks = 0;
    {
        rtprobe::Scope probe;
        for (int cycle = 0; cycle < 10000; ++cycle) {
            engine.beginCycle(frames);
            in->firstOutputPort()->appendEvent(cycle % frames, packMIDI(0x90, 60, 100));
            engine.process(frames);
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
}
