#include "SharedFiles/linux/KTModuleLoader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <climits>

namespace {

std::atomic<bool> gForbidden{false};

/// The folder of the running executable, empty when /proc is not mounted.
std::string programFolder() {
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return {};
    std::string out(path, static_cast<std::size_t>(length));
    const auto slash = out.rfind('/');
    return slash == std::string::npos ? std::string() : out.substr(0, slash);
}

}  // namespace

std::vector<std::string> KTModuleLoader::folders() {
    std::vector<std::string> out;
    for (std::string folder :
         {programFolder(), std::string(AMBREL_MODULE_DIR), std::string(AMBREL_BUILD_MODULE_DIR)}) {
        if (folder.empty()) continue;
        bool seen = false;
        for (const auto& f : out) seen = seen || f == folder;
        if (!seen) out.push_back(std::move(folder));
    }
    return out;
}

void* KTModuleLoader::open(const std::string& fileName, std::string* error) {
    return open(fileName, folders(), error);
}

void* KTModuleLoader::open(const std::string& fileName, const std::vector<std::string>& folders,
                           std::string* error) {
    if (gForbidden) {
        if (error) *error = fileName + ": this program loads no modules";
        return nullptr;
    }
    for (const auto& folder : folders) {
        const std::string path = folder + "/" + fileName;
        if (::access(path.c_str(), F_OK) != 0) continue;
        // Local: the module's own symbols stay its own; the program's reach
        // it all the same.
        if (void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) return handle;
        const std::string why = ::dlerror() ?: "unknown error";
        // glibc's message mostly starts with the file already.
        if (error) *error = why.rfind(path, 0) == 0 ? why : path + ": " + why;
        return nullptr;
    }
    if (error) {
        *error = fileName + " not found in";
        for (const auto& folder : folders) *error += " " + folder;
    }
    return nullptr;
}

void* KTModuleLoader::entry(const std::string& fileName, const char* symbol, std::string* error) {
    void* handle = open(fileName, error);
    if (!handle) return nullptr;
    ::dlerror();
    void* found = ::dlsym(handle, symbol);
    if (!found && error) {
        const char* why = ::dlerror();
        *error = fileName + ": " + (why ? why : symbol);
    }
    // The handle stays open: the module is used until the program ends.
    return found;
}

void KTModuleLoader::forbid() {
    gForbidden = true;
}
