#pragma once

#include <string>

/// A scratch system root and home for one test: a fresh temporary folder
/// holding "root" and "home", with AMBREL_ROOT and HOME pointed at them (and
/// XDG_DATA_HOME cleared) until the guard goes, when both are restored and
/// the folder is removed.
class ScratchRoot {
  public:
    ScratchRoot();
    ~ScratchRoot();
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    const std::string& base() const { return base_; }
    const std::string& root() const { return root_; }
    const std::string& home() const { return home_; }

    /// Path under the root or home; `rel` starts with "/".
    std::string rootPath(const std::string& rel) const { return root_ + rel; }
    std::string homePath(const std::string& rel) const { return home_ + rel; }

    /// Writes a file (creating its folders) with the given content.
    static void writeFile(const std::string& path, const std::string& content = "");
    static std::string readFile(const std::string& path);
    static void makeDirs(const std::string& path);
    /// Sets or clears the immutable (locked) flag; false where the file
    /// system or the user cannot.
    static bool setImmutable(const std::string& path, bool on);

  private:
    std::string base_, root_, home_;
    std::string oldRoot_, oldHome_, oldXdg_;
    bool hadRoot_ = false, hadHome_ = false, hadXdg_ = false;
};
