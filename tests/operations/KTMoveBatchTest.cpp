// A batch of moves reuses what it found about the folders on the way, and
// trusts it only while its moves succeed.
#include "SharedFiles/KTMoveBatch.h"

#include <gtest/gtest.h>

#include <thread>

#include "OperationsTestSupport.h"

TEST(KTMoveBatchTest, ALockFoundAfterTheFirstMoveIsClearedOnceAMoveFails) {
    OperationsWorld w;
    for (const char* n : {"/Pack/A.fxplug/v", "/Pack/B.fxplug/v", "/Pack/C.fxplug/v"})
        ScratchRoot::writeFile(w.fx(n), "x");
    if (!ScratchRoot::setImmutable(w.fx("/Pack/A.fxplug"), true))
        GTEST_SKIP() << "no immutable flag here (needs root and a file system that keeps it)";
    ScratchRoot::setImmutable(w.fx("/Pack/A.fxplug"), false);
    w.load();

    KTMoveBatch batch;
    ASSERT_TRUE(
        w.outline().moveFilter(w.plugin("A.fxplug"), 0));  // the folders are now known unlocked
    // Someone locks the plug-in's folder behind the batch's back.
    ScratchRoot::setImmutable(w.fx("/Pack"), true);
    const bool b = w.outline().moveFilter(w.plugin("B.fxplug"), 0);
    const bool c = w.outline().moveFilter(w.plugin("C.fxplug"), 0);
    ScratchRoot::setImmutable(w.fx("/Pack"), false);
    // The batch believed the folder unlocked, so B's move failed and nothing
    // was lost; the failure made it look again, so C's move unlocked the folder.
    EXPECT_FALSE(b);
    EXPECT_TRUE(pathExists(w.fx("/Pack/B.fxplug/v")));
    EXPECT_TRUE(c);
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Pack/C.fxplug/v"))));
}

TEST(KTMoveBatchTest, ABatchBelongsToItsThreadAndNestsIntoTheOuterOne) {
    EXPECT_EQ(KTMoveBatch::current(), nullptr);
    KTMoveBatch outer;
    {
        KTMoveBatch inner;
        EXPECT_EQ(KTMoveBatch::current(), &outer);
        outer.noteUnlocked(1, 2);
    }
    EXPECT_EQ(KTMoveBatch::current(), &outer);
    EXPECT_TRUE(outer.isKnownUnlocked(1, 2));
    std::thread([] { EXPECT_EQ(KTMoveBatch::current(), nullptr); }).join();
    KTMoveBatch::forgetCurrent();
    EXPECT_FALSE(outer.isKnownUnlocked(1, 2));
}
