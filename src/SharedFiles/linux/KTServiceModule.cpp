#include "SharedFiles/linux/KTServiceModule.h"

#include <string>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/linux/KTModuleLoader.h"

namespace {

const KTServiceTable* load() {
    std::string error;
    auto entry = reinterpret_cast<KTServiceTableEntry>(
        KTModuleLoader::entry(KTServiceModule::kFileName, kServiceTableSymbol, &error));
    const KTServiceTable* table = entry ? entry() : nullptr;
    if (entry && (!table || table->abiVersion != KTServiceTable::kAbiVersion ||
                  table->size != sizeof(KTServiceTable))) {
        error = std::string(KTServiceModule::kFileName) + ": built for another version of Ambrel";
        table = nullptr;
    }
    if (!table)
        KTLog::appendLog(
            "Unable to load the services module (keychain, certificates, zip, "
            "uploads): %@",
            error);
    return table;
}

}  // namespace

const KTServiceTable* KTServiceModule::services() {
    // A static's initialisation runs once even when threads race to it.
    static const KTServiceTable* const table = load();
    return table;
}
