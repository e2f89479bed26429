#include "support/ScratchRoot.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {
void saveEnv(const char* name, std::string& value, bool& had) {
    const char* v = std::getenv(name);
    had = v != nullptr;
    if (had) value = v;
}
void restoreEnv(const char* name, const std::string& value, bool had) {
    if (had)
        setenv(name, value.c_str(), 1);
    else
        unsetenv(name);
}
}  // namespace

ScratchRoot::ScratchRoot() {
    std::string tmpl = (fs::temp_directory_path() / "ambrel-test-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    base_ = tmpl;
    root_ = base_ + "/root";
    home_ = base_ + "/home";
    fs::create_directories(root_);
    fs::create_directories(home_);
    saveEnv("AMBREL_ROOT", oldRoot_, hadRoot_);
    saveEnv("HOME", oldHome_, hadHome_);
    saveEnv("XDG_DATA_HOME", oldXdg_, hadXdg_);
    setenv("AMBREL_ROOT", root_.c_str(), 1);
    setenv("HOME", home_.c_str(), 1);
    unsetenv("XDG_DATA_HOME");
}

ScratchRoot::~ScratchRoot() {
    restoreEnv("AMBREL_ROOT", oldRoot_, hadRoot_);
    restoreEnv("HOME", oldHome_, hadHome_);
    restoreEnv("XDG_DATA_HOME", oldXdg_, hadXdg_);
    std::error_code ec;
    // Tests may leave read-only or immutable folders behind; make them writable first.
    for (auto it = fs::recursive_directory_iterator(base_, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    }
    fs::remove_all(base_, ec);
}

void ScratchRoot::writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string ScratchRoot::readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void ScratchRoot::makeDirs(const std::string& path) {
    fs::create_directories(path);
}

bool ScratchRoot::setImmutable(const std::string& path, bool on) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;
    bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (ok) {
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        ok = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    ::close(fd);
    return ok;
}
