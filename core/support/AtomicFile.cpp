#include "core/support/AtomicFile.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kavelo {

namespace {

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

void fsyncDirectory(const std::filesystem::path& dir) {
    FileDescriptor fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() >= 0) {
        ::fsync(fd.get()); // a directory that cannot be synced still holds the renamed entry
    }
}

} // namespace

void writeFileAtomically(const std::filesystem::path& path, const Bytes& data, unsigned mode) {
    auto dir = path.parent_path();
    std::string tmpl = (dir / ("." + path.filename().string() + ".XXXXXX")).string();
    FileDescriptor fd(::mkstemp(tmpl.data()));
    if (fd.get() < 0) {
        throwErrno("create temporary file in " + dir.string());
    }
    auto cleanup = [&] { ::unlink(tmpl.c_str()); };
    if (::fchmod(fd.get(), mode) != 0) {
        cleanup();
        throwErrno("chmod " + tmpl);
    }
    std::size_t written = 0;
    while (written < data.size()) {
        auto n = ::write(fd.get(), data.data() + written, data.size() - written);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            cleanup();
            throwErrno("write " + tmpl);
        }
        written += static_cast<std::size_t>(n);
    }
    if (::fsync(fd.get()) != 0) {
        cleanup();
        throwErrno("fsync " + tmpl);
    }
    if (::close(fd.release()) != 0) {
        cleanup();
        throwErrno("close " + tmpl);
    }
    if (::rename(tmpl.c_str(), path.c_str()) != 0) {
        cleanup();
        throwErrno("rename to " + path.string());
    }
    fsyncDirectory(dir);
}

void createPrivateDirectories(const std::filesystem::path& dir, unsigned mode) {
    std::filesystem::path current;
    for (const auto& part : dir) {
        current /= part;
        if (::mkdir(current.c_str(), mode) != 0 && errno != EEXIST) {
            throwErrno("create directory " + current.string());
        }
    }
    if (!std::filesystem::is_directory(dir)) {
        throw std::system_error(std::make_error_code(std::errc::not_a_directory), dir.string());
    }
}

std::optional<Bytes> readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    Bytes data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        return std::nullopt;
    }
    return data;
}

} // namespace kavelo
