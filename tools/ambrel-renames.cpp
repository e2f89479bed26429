// ambrel-renames: the lower bound for moving plug-ins, for the benchmarks.
//
//   ambrel-renames PAIRS [--prune FOLDER]
//
// PAIRS holds one move a line: the old path, a tab, the new path. Each is a
// single rename(2); when the new path's folder is missing the folders are
// made (as a batch disable must make the mirror of a plug-in's folder) and
// the rename is tried again. With --prune, the folders below FOLDER that a
// move leaves empty are removed, from the old path's folder up, until one
// is not empty (as a batch enable must clean up the mirror it leaves): the
// disk work of both directions is then the same as Ambrel's. Nothing else
// is looked at: no existence checks, no log, no catalogue.

#include <sys/stat.h>
#include <unistd.h>

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

/// rmdir of the path's folders strictly below `top`, bottom up, while they are empty.
void prune(const std::string& path, const std::string& top) {
    std::string folder = path;
    for (;;) {
        const auto slash = folder.rfind('/');
        if (slash == std::string::npos) return;
        folder.resize(slash);
        if (folder.size() <= top.size() || folder.compare(0, top.size(), top) != 0 ||
            folder[top.size()] != '/')
            return;
        if (::rmdir(folder.c_str()) != 0) return;
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string top;
    if (argc == 4 && std::strcmp(argv[2], "--prune") == 0) {
        top = argv[3];
        while (top.size() > 1 && top.back() == '/') top.pop_back();
    } else if (argc != 2) {
        std::fprintf(stderr, "usage: ambrel-renames PAIRS [--prune FOLDER]\n");
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
            if (!top.empty()) prune(from, top);
        } else {
            ++failed;
            std::fprintf(stderr, "ambrel-renames: %s: %s\n", from.c_str(), std::strerror(errno));
        }
    }
    std::printf("%ld moved, %ld failed\n", moved, failed);
    return failed == 0 ? 0 : 1;
}
