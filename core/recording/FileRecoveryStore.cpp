#include "core/recording/FileRecoveryStore.h"

#include "core/support/AtomicFile.h"
#include "core/support/Bytes.h"
#include "core/support/CoreJSON.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kavelo {

namespace {

// Reads the manifest without following a symbolic link, without blocking on a FIFO or a device, and
// without reading more than limit bytes.
std::optional<Bytes> readRegularFile(const std::filesystem::path& path, std::size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    struct FdCloser {
        int fd;
        ~FdCloser() { ::close(fd); }
    } closer{fd};
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < 0 ||
        static_cast<std::size_t>(info.st_size) > limit) {
        return std::nullopt;
    }
    Bytes data(limit + 1);
    std::size_t total = 0;
    while (total < data.size()) {
        auto n = ::read(fd, data.data() + total, data.size() - total);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return std::nullopt;
        }
        if (n == 0) {
            break;
        }
        total += static_cast<std::size_t>(n);
    }
    if (total > limit) {
        return std::nullopt; // grew while we read
    }
    data.resize(total);
    return data;
}

} // namespace

FileRecoveryStore::FileRecoveryStore(const std::filesystem::path& directory) : url_(directory / fileName) {
    try {
        createPrivateDirectories(directory, 0700);
    } catch (...) {
        // Loads then find nothing and saves are dropped, as for any other failure of the disk.
    }
}

std::optional<RecordingManifest> FileRecoveryStore::load() {
    auto bytes = readRegularFile(url_, maxFileBytes);
    if (!bytes) {
        return std::nullopt;
    }
    try {
        return RecordingManifest::fromJson(CoreJSON::decode(*bytes));
    } catch (...) {
        return std::nullopt;
    }
}

void FileRecoveryStore::save(const RecordingManifest& manifest) {
    Bytes bytes;
    try {
        bytes = CoreJSON::encodeBytes(manifest.toJson());
        // JSON has no form for a non-finite number: such a value would come out as null and make the file
        // unreadable. That is an encoding failure, and the earlier file must stand.
        RecordingManifest::fromJson(CoreJSON::decode(bytes));
    } catch (const std::exception& e) {
        throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                                std::string("manifest cannot be encoded: ") + e.what());
    }
    writeFileAtomically(url_, bytes, 0600);
}

void FileRecoveryStore::clear() {
    if (::unlink(url_.c_str()) == 0) {
        // Without this a crash of the machine could bring a finished recording back at the next start.
        fsyncDirectory(url_.parent_path());
    } else if (errno != ENOENT) {
        throw std::system_error(errno, std::generic_category(), "remove " + url_.string());
    }
}

} // namespace kavelo
