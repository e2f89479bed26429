// A batch of moves reuses what it found about the folders on the way, and
// trusts it only while its moves succeed.
#include "SharedFiles/KTMoveBatch.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "OperationsTestSupport.h"

TEST(KTMoveBatchTest, LocksSetBehindTheBatchsBackNeverStopAMove) {
    OperationsWorld w;
    for (const char* n : {"/Pack/Sub/A.fxplug/v", "/Pack/Sub/B.fxplug/v", "/Pack/Sub/C.fxplug/v",
                          "/Pack/Sub/D.fxplug/v"})
        ScratchRoot::writeFile(w.fx(n), "x");
    if (!ScratchRoot::setImmutable(w.fx("/Pack/Sub/A.fxplug"), true))
        GTEST_SKIP() << "no immutable flag here (needs root and a file system that keeps it)";
    ScratchRoot::setImmutable(w.fx("/Pack/Sub/A.fxplug"), false);
    w.load();

    KTMoveBatch batch;
    ASSERT_TRUE(
        w.outline().moveFilter(w.plugin("A.fxplug"), 0));  // the folders are now known unlocked
    // The plug-in's own folder, locked behind the batch's back, is looked at
    // again for the next move, and unlocked.
    ScratchRoot::setImmutable(w.fx("/Pack/Sub"), true);
    EXPECT_TRUE(w.outline().moveFilter(w.plugin("B.fxplug"), 0));
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Pack/Sub/B.fxplug/v"))));
    // So is the plug-in itself.
    ScratchRoot::setImmutable(w.fx("/Pack/Sub/C.fxplug"), true);
    EXPECT_TRUE(w.outline().moveFilter(w.plugin("C.fxplug"), 0));
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Pack/Sub/C.fxplug/v"))));
    // A folder higher up is not looked at again, and cannot stop the move:
    // a lock there guards only its own entries.
    ScratchRoot::setImmutable(w.fx("/Pack"), true);
    const bool d = w.outline().moveFilter(w.plugin("D.fxplug"), 0);
    ScratchRoot::setImmutable(w.fx("/Pack"), false);
    EXPECT_TRUE(d);
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Pack/Sub/D.fxplug/v"))));
    EXPECT_FALSE(pathExists(w.fx("/Pack/Sub/D.fxplug")));
}

TEST(KTMoveBatchTest, AFailedMoveMakesTheBatchLookAtEveryAncestorAgain) {
    OperationsWorld w;
    for (const char* n : {"/Pack/Sub/A.fxplug/v", "/Pack/Sub/B.fxplug/v", "/Pack/Sub/C.fxplug/v"})
        ScratchRoot::writeFile(w.fx(n), "x");
    if (!ScratchRoot::setImmutable(w.fx("/Pack/Sub/A.fxplug"), true))
        GTEST_SKIP() << "no immutable flag here (needs root and a file system that keeps it)";
    ScratchRoot::setImmutable(w.fx("/Pack/Sub/A.fxplug"), false);
    w.load();

    KTMoveBatch batch;
    ASSERT_TRUE(w.outline().moveFilter(w.plugin("A.fxplug"), 0));
    ScratchRoot::setImmutable(w.fx("/Pack"), true);
    // B's destination is taken: the move fails and the batch forgets.
    ScratchRoot::writeFile(w.mirror(w.fx("/Pack/Sub/B.fxplug")), "in the way");
    EXPECT_FALSE(w.outline().moveFilter(w.plugin("B.fxplug"), 0));
    EXPECT_TRUE(pathExists(w.fx("/Pack/Sub/B.fxplug/v")));
    // The next move walks every ancestor again and finds the lock higher up.
    EXPECT_TRUE(w.outline().moveFilter(w.plugin("C.fxplug"), 0));
    const bool lockedStill = !std::ofstream(w.fx("/Pack/probe"));
    ScratchRoot::setImmutable(w.fx("/Pack"), false);
    EXPECT_FALSE(lockedStill);
}

TEST(KTMoveBatchTest, ABatchBelongsToItsThreadAndNestsIntoTheOuterOne) {
    EXPECT_EQ(KTMoveBatch::current(), nullptr);
    KTMoveBatch outer;
    {
        KTMoveBatch inner;
        EXPECT_EQ(KTMoveBatch::current(), &outer);
        outer.noteUnlockedAncestor("/Pack", KTFileLook::at("/"));
    }
    EXPECT_EQ(KTMoveBatch::current(), &outer);
    EXPECT_NE(outer.unlockedAncestor("/Pack"), nullptr);
    std::thread([] { EXPECT_EQ(KTMoveBatch::current(), nullptr); }).join();
    KTMoveBatch::forgetCurrent();
    EXPECT_EQ(outer.unlockedAncestor("/Pack"), nullptr);
}
