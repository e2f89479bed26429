#pragma once

#include <string>

/// Zip archives written with libzip, inside ambrel-services.so: the work
/// behind KTZipArchive::compress, which documents it.
class KTLibzipArchive {
  public:
    static bool compress(const std::string& source, const std::string& destination, bool keepParent,
                         std::string* error);
};
