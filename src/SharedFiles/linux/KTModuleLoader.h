#pragma once

#include <string>
#include <vector>

/// Finds and opens Ambrel's own loadable modules (the window, the services).
///
/// A module is looked for beside the running program (the build tree), then
/// in the folder the installed package keeps them in, then in the build
/// folder (test programs run from below it): never where the environment
/// says, since a path someone else chose would run their code in our
/// process. The first folder holding the file decides: a module that is
/// there but cannot be opened is an error, not a reason to load an older
/// copy from further down the list.
class KTModuleLoader {
  public:
    /// The folders looked in, in order.
    static std::vector<std::string> folders();

    /// The handle of `fileName` opened with every symbol bound now (a module
    /// that does not fit the program fails here, not halfway through a
    /// call), or null with the file looked for and dlerror() in `error`.
    static void* open(const std::string& fileName, std::string* error);
    /// As open, in the given folders only.
    static void* open(const std::string& fileName, const std::vector<std::string>& folders,
                      std::string* error);

    /// `symbol` of the module `fileName`, or null with the reason.
    static void* entry(const std::string& fileName, const char* symbol, std::string* error);

    /// From now on nothing is opened in this process (the privileged helper
    /// calls it first thing: it runs as root and needs none of our modules).
    static void forbid();
};
