#include "SharedFiles/linux/KTModuleLoader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "SharedFiles/linux/KTServiceModule.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace {

/// The folder the build puts its modules in.
std::string buildFolder() {
    return std::filesystem::path(ChildProcess::builtProgram("ambrel")).parent_path().string();
}

}  // namespace

TEST(KTModuleLoaderTest, TheFirstFolderHoldingTheModuleDecides) {
    ScratchRoot s;
    const std::string empty = s.base() + "/empty", broken = s.base() + "/broken";
    ScratchRoot::makeDirs(empty);
    ScratchRoot::writeFile(broken + "/" + KTServiceModule::kFileName, std::string(100, 'x'));
    std::string error;

    // Found past a folder without it.
    void* handle = KTModuleLoader::open(KTServiceModule::kFileName, {empty, buildFolder()}, &error);
    ASSERT_NE(handle, nullptr) << error;
    EXPECT_NE(::dlsym(handle, kServiceTableSymbol), nullptr);

    // A broken copy is not passed over for the good one further down: the
    // error names it and says why.
    EXPECT_EQ(
        KTModuleLoader::open(KTServiceModule::kFileName, {empty, broken, buildFolder()}, &error),
        nullptr);
    EXPECT_EQ(error.rfind(broken + "/" + KTServiceModule::kFileName + ": ", 0), 0u) << error;
    EXPECT_GT(error.size(), broken.size() + std::string(KTServiceModule::kFileName).size() + 3);

    // Nowhere: the file and every folder looked in.
    EXPECT_EQ(KTModuleLoader::open("ambrel-none.so", {empty, broken}, &error), nullptr);
    EXPECT_EQ(error, "ambrel-none.so not found in " + empty + " " + broken);
}

TEST(KTModuleLoaderTest, TheServicesTableFitsTheCoreThatLoadsIt) {
    const KTServiceTable* table = KTServiceModule::services();
    ASSERT_NE(table, nullptr) << "is " << KTServiceModule::kFileName << " built?";
    EXPECT_EQ(table->abiVersion, KTServiceTable::kAbiVersion);
    EXPECT_EQ(table->size, sizeof(KTServiceTable));
    EXPECT_EQ(KTServiceModule::services(), table) << "opened once";
}

TEST(KTModuleLoaderTest, AForbiddingProcessOpensNothingAfterwards) {
    // In a child: the prohibition lasts for the rest of the process.
    EXPECT_EXIT(
        {
            KTModuleLoader::forbid();
            std::string error;
            void* h = KTModuleLoader::open(KTServiceModule::kFileName, {buildFolder()}, &error);
            std::_Exit(h == nullptr && error.find("loads no modules") != std::string::npos ? 7 : 1);
        },
        ::testing::ExitedWithCode(7), "");
}
