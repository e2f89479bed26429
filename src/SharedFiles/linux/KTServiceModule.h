#pragma once

#include "SharedFiles/linux/KTServiceTable.h"

/// ambrel-services.so, opened on the first call that needs libsecret,
/// OpenSSL, libzip, libcurl or GIO, once per process whichever thread asks
/// first. Verbs that need none of them never load those libraries.
class KTServiceModule {
  public:
    static constexpr const char* kFileName = "ambrel-services.so";

    /// The module's calls, or null when the module cannot be found, opened
    /// or is of another version (said once in the log, with the file and the
    /// loader's reason); each caller then fails as when its service is
    /// missing.
    static const KTServiceTable* services();
};
