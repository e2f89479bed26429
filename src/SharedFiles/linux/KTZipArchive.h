#pragma once

#include <string>

/// Zip archives made with libzip, in place of "/usr/bin/ditto -ck".
///
/// Entry names are flagged as UTF-8 (general-purpose bit 11) whenever they
/// are not plain ASCII, so that non-English file names unpack the same on
/// every system; a name that is not valid UTF-8 is stored as its raw bytes.
/// Folders get entries of their own (empty ones survive), symbolic links are
/// stored as links, and modes and modification times are kept.
class KTZipArchive {
  public:
    /// Zips the file or folder `source` into `destination`. With `keepParent`
    /// the entries start with the source's own name ("Logs/a.log"), as
    /// `ditto -ck --keepParent` makes them; without, a folder's contents sit
    /// at the top. The archive appears whole or not at all (libzip writes a
    /// temporary file beside it and renames it over the old one). An existing
    /// archive at `destination` is replaced. False with the reason in
    /// `error` when anything could not be read or written.
    static bool compress(const std::string& source, const std::string& destination, bool keepParent,
                         std::string* error = nullptr);
};
