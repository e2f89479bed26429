#pragma once

#include <string>
#include <vector>

/// Whole trees of files on disk: copying one (files, folders, links; modes,
/// times, extended attributes and, for the superuser, owners kept),
/// comparing a copy with its
/// original, removing one, and a rename that never replaces. The moves, the
/// installer's copies and the Trash all build their "whole or not at all"
/// steps from these.
class KTFileTree {
  public:
    /// Copies the tree at `from` to the new path `to`. False with `error`
    /// set on the first failure; what was copied so far stays for the caller
    /// to remove.
    static bool copyTree(const std::string& from, const std::string& to, std::string* error);
    /// True when `copy` holds the same tree as `original`: kinds, link
    /// targets, sizes, bytes and user attributes of every entry.
    static bool sameTree(const std::string& original, const std::string& copy);
    /// True when `path` and everything below it could be taken away: every
    /// folder writable (or ours to open up), no immutable or append-only
    /// entry, not on a read-only volume. Asked before a copy whose original
    /// must go afterwards.
    static bool canRemoveTree(const std::string& path, std::string* error);
    /// Removes the tree at `path`; false with `error` set when something stays.
    static bool removeTree(const std::string& path, std::string* error);
    /// A rename that never replaces: 0, or the errno (EEXIST when something is there).
    static int renameNoReplace(const std::string& from, const std::string& to);
    /// True when anything, a dangling link included, is at `path`.
    static bool existsNoFollow(const std::string& path);
    /// The names in a folder, "." and ".." left out; empty when unreadable.
    static std::vector<std::string> entriesOf(const std::string& folder);
    /// The names in a folder that begin with `prefix`. Asked of folders of
    /// thousands of entries where hardly any match: the others are never copied.
    static std::vector<std::string> entriesStartingWith(const std::string& folder,
                                                        const std::string& prefix);
    /// Makes the folder at `path` and any missing folders above it: 0 when
    /// made, EEXIST when anything (a dangling link included) is there
    /// already, else the errno of the first failure. Asks mkdir before
    /// looking: the folders a batch makes are missing, mostly one level deep.
    static int makeFolders(const std::string& path);
};
