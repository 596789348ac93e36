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

void writeAll(int fd, const Bytes& data, const std::string& what) {
    std::size_t written = 0;
    while (written < data.size()) {
        auto n = ::write(fd, data.data() + written, data.size() - written);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            throwErrno("write " + what);
        }
        written += static_cast<std::size_t>(n);
    }
}

} // namespace

void fsyncDirectory(const std::filesystem::path& dir) {
    const auto name = dir.empty() ? std::filesystem::path(".") : dir;
    FileDescriptor fd(::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) {
        throwErrno("open directory " + name.string());
    }
    // Some file systems cannot sync a directory at all (EINVAL); they keep no such state to lose.
    if (::fsync(fd.get()) != 0 && errno != EINVAL) {
        throwErrno("fsync directory " + name.string());
    }
}

void appendFileDurably(const std::filesystem::path& path, const Bytes& data, unsigned mode) {
    int raw = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    bool created = false;
    if (raw < 0 && errno == ENOENT) {
        raw = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        created = true;
    }
    FileDescriptor fd(raw);
    if (fd.get() < 0) {
        throwErrno("open " + path.string());
    }
    writeAll(fd.get(), data, path.string());
    if (::fsync(fd.get()) != 0) {
        throwErrno("fsync " + path.string());
    }
    if (created) {
        fsyncDirectory(path.parent_path());
    }
}

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
    try {
        writeAll(fd.get(), data, tmpl);
    } catch (...) {
        cleanup();
        throw;
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
        if (::mkdir(current.c_str(), mode) == 0) {
            fsyncDirectory(current.has_parent_path() ? current.parent_path() : std::filesystem::path("."));
        } else if (errno != EEXIST) {
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
