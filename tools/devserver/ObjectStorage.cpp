#include "tools/devserver/ObjectStorage.h"

#include "core/support/AtomicFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace kavelo {

namespace {

bool isPlainComponent(const std::string& part) {
    if (part.empty() || part.size() > 255 || part.front() == '.') {
        return false;
    }
    return std::all_of(part.begin(), part.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("._~@:+=-").find(c) != std::string_view::npos;
    });
}

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Writes a durable temporary file beside target and links it into place; false when target exists.
bool createExclusively(const std::filesystem::path& target, const Bytes& data) {
    std::string tmpl = (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
    int fd = ::mkstemp(tmpl.data());
    if (fd < 0) {
        throwErrno("create temporary file for " + target.string());
    }
    auto fail = [&](const std::string& what) {
        int saved = errno;
        ::close(fd);
        ::unlink(tmpl.c_str());
        errno = saved;
        throwErrno(what);
    };
    std::size_t written = 0;
    while (written < data.size()) {
        auto n = ::write(fd, data.data() + written, data.size() - written);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("write " + tmpl);
        }
        written += static_cast<std::size_t>(n);
    }
    if (::fsync(fd) != 0) {
        fail("fsync " + tmpl);
    }
    ::close(fd);
    int linked = ::link(tmpl.c_str(), target.c_str());
    int linkErrno = errno;
    ::unlink(tmpl.c_str());
    if (linked != 0) {
        if (linkErrno == EEXIST) {
            return false;
        }
        errno = linkErrno;
        throwErrno("link " + target.string());
    }
    fsyncDirectory(target.parent_path());
    return true;
}

} // namespace

ObjectStorage::ObjectStorage(std::filesystem::path root) : root_(std::move(root)) {}

bool ObjectStorage::isValidBucket(const std::string& bucket) {
    return !bucket.empty() && bucket.size() <= 63 && std::all_of(bucket.begin(), bucket.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
}

bool ObjectStorage::isValidObjectPath(const std::string& path) {
    if (path.empty() || path.size() > 1024) {
        return false;
    }
    std::size_t start = 0;
    while (true) {
        auto slash = path.find('/', start);
        if (!isPlainComponent(
                path.substr(start, slash == std::string::npos ? std::string::npos : slash - start))) {
            return false;
        }
        if (slash == std::string::npos) {
            return true;
        }
        start = slash + 1;
    }
}

std::filesystem::path ObjectStorage::locate(const std::string& bucket, const std::string& path) const {
    if (!isValidBucket(bucket) || !isValidObjectPath(path)) {
        throw std::invalid_argument("invalid object name");
    }
    return root_ / bucket / path;
}

ObjectStorage::PutResult ObjectStorage::put(const std::string& bucket, const std::string& path,
                                            const Bytes& data, bool upsert) {
    auto file = locate(bucket, path);
    createPrivateDirectories(file.parent_path());
    if (!upsert) {
        return createExclusively(file, data) ? PutResult::created : PutResult::conflict;
    }
    std::error_code ec;
    bool existed = std::filesystem::exists(file, ec);
    writeFileAtomically(file, data);
    return existed ? PutResult::replaced : PutResult::created;
}

std::optional<Bytes> ObjectStorage::read(const std::string& bucket, const std::string& path) const {
    if (!isValidBucket(bucket) || !isValidObjectPath(path)) {
        return std::nullopt;
    }
    return readWholeFile(root_ / bucket / path);
}

bool ObjectStorage::exists(const std::string& bucket, const std::string& path) const {
    if (!isValidBucket(bucket) || !isValidObjectPath(path)) {
        return false;
    }
    std::error_code ec;
    return std::filesystem::is_regular_file(root_ / bucket / path, ec);
}

std::vector<ObjectStorage::ObjectInfo> ObjectStorage::list(const std::string& bucket,
                                                           const std::string& prefix) const {
    std::vector<ObjectInfo> objects;
    if (!isValidBucket(bucket)) {
        return objects;
    }
    auto base = root_ / bucket;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(base, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (!it->is_regular_file(ec)) {
            continue;
        }
        auto rel = std::filesystem::relative(it->path(), base, ec).generic_string();
        if (ec || !isValidObjectPath(rel) || !rel.starts_with(prefix)) {
            continue; // temporary files start with a dot and are no objects
        }
        objects.push_back(ObjectInfo{bucket, rel, static_cast<std::uint64_t>(it->file_size(ec))});
    }
    std::sort(objects.begin(), objects.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
    return objects;
}

std::vector<std::string> ObjectStorage::filesIn(const std::string& bucket, const std::string& folder) const {
    std::vector<std::string> names;
    if (!isValidBucket(bucket) || !isValidObjectPath(folder)) {
        return names;
    }
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(root_ / bucket / folder, ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        auto name = it->path().filename().string();
        if (it->is_regular_file(ec) && isPlainComponent(name)) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace kavelo
