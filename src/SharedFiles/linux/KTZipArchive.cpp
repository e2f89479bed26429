#include "SharedFiles/linux/KTZipArchive.h"

#include "SharedFiles/linux/KTServiceModule.h"

bool KTZipArchive::compress(const std::string& source, const std::string& destination,
                            bool keepParent, std::string* error) {
    const KTServiceTable* table = KTServiceModule::services();
    if (!table) {
        if (error)
            *error = destination + ": no zip writer (" + KTServiceModule::kFileName +
                     " could not be loaded)";
        return false;
    }
    return table->zipCompress(source, destination, keepParent, error);
}
