// A batch of moves reuses what it found about the folders on the way, and
// trusts it only while its moves succeed.
#include "SharedFiles/KTMoveBatch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include <fstream>
#include <initializer_list>
#include <string>
#include <thread>

#include "OperationsTestSupport.h"

namespace {
/// The plug-ins named in /Pack/Sub, loaded; false where no immutable flag can
/// be set here (it needs root and a file system that keeps it).
bool loadPack(OperationsWorld& w, std::initializer_list<const char*> names) {
    for (const char* n : names)
        ScratchRoot::writeFile(w.fx(std::string("/Pack/Sub/") + n + "/v"), "x");
    if (!ScratchRoot::setImmutable(w.fx("/Pack/Sub/A.fxplug"), true)) return false;
    ScratchRoot::setImmutable(w.fx("/Pack/Sub/A.fxplug"), false);
    w.load();
    return true;
}
}  // namespace

TEST(KTMoveBatchTest, LocksSetBehindTheBatchsBackNeverStopAMove) {
    OperationsWorld w;
    if (!loadPack(w, {"A.fxplug", "B.fxplug", "C.fxplug", "D.fxplug"}))
        GTEST_SKIP() << "no immutable flag here (needs root and a file system that keeps it)";

    KTMoveBatch batch;
    ASSERT_TRUE(
        w.outline().moveFilter(w.plugin("A.fxplug"), 0));  // the folders are now known unlocked
    // The plug-in's own folder, locked behind the batch's back, refuses the
    // next move's rename; that move looks at it again, unlocks it, and moves.
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
    if (!loadPack(w, {"A.fxplug", "B.fxplug", "C.fxplug"}))
        GTEST_SKIP() << "no immutable flag here (needs root and a file system that keeps it)";

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

TEST(KTMoveBatchTest, AFolderRemovedBehindTheBatchsBackIsMadeAgainForTheNextMove) {
    OperationsWorld w;
    for (const char* n : {"A.fxplug", "B.fxplug"})
        ScratchRoot::writeFile(w.fx(std::string("/Pack/Sub/") + n + "/v"), "x");
    w.load();

    KTMoveBatch batch;
    ASSERT_TRUE(w.outline().moveFilter(w.plugin("A.fxplug"), 0));  // the mirror folder is known
    // Someone puts A back by hand and removes the folder the batch knows.
    const std::string mirrored = w.mirror(w.fx("/Pack/Sub"));
    ASSERT_EQ(::rename((mirrored + "/A.fxplug").c_str(), w.fx("/Pack/Sub/A.fxplug").c_str()), 0);
    ASSERT_EQ(::rmdir(mirrored.c_str()), 0);
    // The next move finds out, and makes it again rather than fail.
    EXPECT_TRUE(w.outline().moveFilter(w.plugin("B.fxplug"), 0));
    EXPECT_TRUE(pathExists(mirrored + "/B.fxplug/v"));
    EXPECT_FALSE(pathExists(w.fx("/Pack/Sub/B.fxplug")));
    EXPECT_TRUE(pathExists(w.fx("/Pack/Sub/A.fxplug/v")));
}
