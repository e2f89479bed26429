// ambrel-renames: the lower bound for moving plug-ins, for the benchmarks.
//
//   ambrel-renames PAIRS
//
// PAIRS holds one move a line: the old path, a tab, the new path. Each is a
// single rename(2); when the new path's folder is missing the folders are
// made (as a batch disable must make the mirror of a plug-in's folder) and
// the rename is tried again. Nothing else is looked at: no existence checks,
// no log, no catalogue.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

/// mkdir -p of a path's parent folder.
bool makeParents(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return true;
    const std::string folder = path.substr(0, slash);
    if (::mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST) return true;
    if (errno != ENOENT) return false;
    return makeParents(folder) && (::mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: ambrel-renames PAIRS\n");
        return 2;
    }
    std::ifstream in(argv[1]);
    if (!in) {
        std::fprintf(stderr, "ambrel-renames: cannot read %s\n", argv[1]);
        return 2;
    }
    std::string line;
    long moved = 0, failed = 0;
    while (std::getline(in, line)) {
        const auto tab = line.find('\t');
        if (tab == std::string::npos) continue;
        const std::string from = line.substr(0, tab), to = line.substr(tab + 1);
        bool ok = ::rename(from.c_str(), to.c_str()) == 0;
        if (!ok && errno == ENOENT && makeParents(to)) ok = ::rename(from.c_str(), to.c_str()) == 0;
        if (ok) {
            ++moved;
        } else {
            ++failed;
            std::fprintf(stderr, "ambrel-renames: %s: %s\n", from.c_str(), std::strerror(errno));
        }
    }
    std::printf("%ld moved, %ld failed\n", moved, failed);
    return failed == 0 ? 0 : 1;
}
