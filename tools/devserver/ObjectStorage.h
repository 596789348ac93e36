#pragma once

#include "core/support/Bytes.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// Storage objects as files: <root>/<bucket>/<path>. Object names come from the network, so a name is
// accepted only when every component is plain (letters, digits and ._~@:+=-, no leading dot); nothing
// outside the root can be named. Writes are durable before they are acknowledged.
//
// Thread-safety: any thread, without a lock: a create that must not overwrite links its finished
// temporary file into place, which the file system does atomically, so two racing creates of one object
// give one success and one conflict.
class ObjectStorage {
  public:
    enum class PutResult { created, replaced, conflict };
    struct ObjectInfo {
        std::string bucket;
        std::string path;
        std::uint64_t size = 0;
        bool operator==(const ObjectInfo&) const = default;
    };

    explicit ObjectStorage(std::filesystem::path root);

    static bool isValidBucket(const std::string& bucket);
    static bool isValidObjectPath(const std::string& path);

    // Throws std::invalid_argument for a bad name, std::system_error when the disk refuses.
    PutResult put(const std::string& bucket, const std::string& path, const Bytes& data, bool upsert);
    [[nodiscard]] std::optional<Bytes> read(const std::string& bucket, const std::string& path) const;
    [[nodiscard]] bool exists(const std::string& bucket, const std::string& path) const;
    // Objects whose path starts with prefix, sorted by path.
    [[nodiscard]] std::vector<ObjectInfo> list(const std::string& bucket, const std::string& prefix) const;
    // The plain names directly inside a folder of a bucket (no descent), sorted.
    [[nodiscard]] std::vector<std::string> filesIn(const std::string& bucket,
                                                   const std::string& folder) const;

  private:
    [[nodiscard]] std::filesystem::path locate(const std::string& bucket, const std::string& path) const;

    const std::filesystem::path root_;
};

} // namespace kavelo
