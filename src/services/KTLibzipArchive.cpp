#include "services/KTLibzipArchive.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct ZipCloser {
    void operator()(zip_t* z) const {
        if (z) zip_discard(z);
    }
};
using ZipPtr = std::unique_ptr<zip_t, ZipCloser>;

std::string lastComponent(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

/// Writes one archive; every failure leaves its reason in `error` and the
/// archive is discarded (nothing appears at the destination).
class Writer {
  public:
    Writer(zip_t* zip, std::string destination, std::string* error)
        : zip_(zip), destination_(std::move(destination)), error_(error) {}

    bool add(const std::string& path, const std::string& name) {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) return fail(path, std::strerror(errno));
        if (S_ISDIR(st.st_mode)) return addFolder(path, name, st);
        if (S_ISLNK(st.st_mode)) return addLink(path, name, st);
        if (S_ISREG(st.st_mode)) return addFile(path, name, st);
        return true;  // sockets, pipes and devices have no place in an archive
    }

  private:
    bool fail(const std::string& path, const std::string& reason) {
        if (error_) *error_ = path + ": " + reason;
        return false;
    }
    bool zipFail(const std::string& path) { return fail(path, zip_strerror(zip_)); }

    /// The name with the UTF-8 flag, or as raw bytes when libzip finds it is
    /// not valid UTF-8.
    zip_int64_t addEntry(const std::string& name, zip_source_t* source) {
        zip_int64_t index =
            source ? zip_file_add(zip_, name.c_str(), source, ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE)
                   : zip_dir_add(zip_, name.c_str(), ZIP_FL_ENC_UTF_8);
        if (index < 0 && zip_error_code_zip(zip_get_error(zip_)) == ZIP_ER_INVAL) {
            zip_error_clear(zip_);
            index =
                source ? zip_file_add(zip_, name.c_str(), source, ZIP_FL_ENC_RAW | ZIP_FL_OVERWRITE)
                       : zip_dir_add(zip_, name.c_str(), ZIP_FL_ENC_RAW);
        }
        return index;
    }

    bool finishEntry(const std::string& path, zip_int64_t index, const struct stat& st) {
        const auto index64 = static_cast<zip_uint64_t>(index);
        // The Unix mode in the high half of the external attributes is what
        // unzip and Python read to restore modes and links.
        const zip_uint32_t attributes = static_cast<zip_uint32_t>(st.st_mode & 0xFFFF) << 16;
        if (zip_file_set_external_attributes(zip_, index64, 0, ZIP_OPSYS_UNIX, attributes) != 0 ||
            zip_file_set_mtime(zip_, index64, st.st_mtime, 0) != 0)
            return zipFail(path);
        return true;
    }

    bool addFile(const std::string& path, const std::string& name, const struct stat& st) {
        // Opened now, so that an unreadable file names itself here rather
        // than failing the whole archive when it is written.
        if (::access(path.c_str(), R_OK) != 0) return fail(path, std::strerror(errno));
        zip_source_t* source = zip_source_file(zip_, path.c_str(), 0, -1);
        if (!source) return zipFail(path);
        const zip_int64_t index = addEntry(name, source);
        if (index < 0) {
            zip_source_free(source);
            return zipFail(path);
        }
        return finishEntry(path, index, st);
    }

    bool addLink(const std::string& path, const std::string& name, const struct stat& st) {
        std::string target(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 4096), '\0');
        const ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
        if (n < 0) return fail(path, std::strerror(errno));
        target.resize(static_cast<std::size_t>(n));
        // libzip reads the buffer when the archive is written: it gets its own copy.
        void* copy = std::malloc(target.size() + 1);
        if (!copy) return fail(path, "out of memory");
        std::memcpy(copy, target.data(), target.size());
        zip_source_t* source = zip_source_buffer(zip_, copy, target.size(), 1);
        if (!source) {
            std::free(copy);
            return zipFail(path);
        }
        const zip_int64_t index = addEntry(name, source);
        if (index < 0) {
            zip_source_free(source);
            return zipFail(path);
        }
        return finishEntry(path, index, st);
    }

    bool addFolder(const std::string& path, const std::string& name, const struct stat& st) {
        if (!name.empty()) {
            const zip_int64_t index = addEntry(name + "/", nullptr);
            if (index < 0) return zipFail(path);
            if (!finishEntry(path, index, st)) return false;
        }
        DIR* dir = ::opendir(path.c_str());
        if (!dir) return fail(path, std::strerror(errno));
        std::vector<std::string> names;
        errno = 0;
        while (dirent* entry = ::readdir(dir)) {
            const std::string child = entry->d_name;
            if (child != "." && child != "..") names.push_back(child);
        }
        const int readError = errno;
        ::closedir(dir);
        if (readError != 0) return fail(path, std::strerror(readError));
        // A stable order makes two archives of the same folder alike.
        std::sort(names.begin(), names.end());
        for (const auto& child : names) {
            const std::string childPath = path + "/" + child;
            // An archive written into the folder it archives leaves itself out.
            if (childPath == destination_) continue;
            if (!add(childPath, name.empty() ? child : name + "/" + child)) return false;
        }
        return true;
    }

    zip_t* zip_;
    std::string destination_;
    std::string* error_;
};

}  // namespace

bool KTLibzipArchive::compress(const std::string& source, const std::string& destination,
                               bool keepParent, std::string* error) {
    std::string from = source;
    while (from.size() > 1 && from.back() == '/') from.pop_back();
    struct stat st {};
    if (from.empty() || ::lstat(from.c_str(), &st) != 0) {
        if (error) *error = source + ": " + std::strerror(from.empty() ? ENOENT : errno);
        return false;
    }
    int openError = 0;
    ZipPtr zip(zip_open(destination.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &openError));
    if (!zip) {
        zip_error_t e;
        zip_error_init_with_code(&e, openError);
        if (error) *error = destination + ": " + zip_error_strerror(&e);
        zip_error_fini(&e);
        return false;
    }
    // A single file is always stored under its own name.
    const std::string top = keepParent || !S_ISDIR(st.st_mode) ? lastComponent(from) : "";
    Writer writer(zip.get(), destination, error);
    if (!writer.add(from, top)) return false;
    if (zip_close(zip.get()) != 0) {
        if (error) *error = destination + ": " + zip_strerror(zip.get());
        return false;
    }
    zip.release();  // zip_close freed it
    if (::access(destination.c_str(), F_OK) != 0) {
        // libzip writes no file for an archive without entries; an empty
        // folder still gets an (empty) archive, as ditto makes one.
        static const char kEmptyZip[22] = {'P', 'K', 5, 6};
        FILE* f = std::fopen(destination.c_str(), "wb");
        if (!f || std::fwrite(kEmptyZip, 1, sizeof kEmptyZip, f) != sizeof kEmptyZip) {
            if (error) *error = destination + ": " + std::strerror(errno);
            if (f) std::fclose(f);
            return false;
        }
        if (std::fclose(f) != 0) {
            if (error) *error = destination + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}
