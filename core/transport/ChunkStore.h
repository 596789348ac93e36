#pragma once

#include "core/support/Bytes.h"

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavelo {

// The numbered audio chunks of each recording on the local disk, between the moment the recorder cuts
// them and the moment the server holds them. Layout: <root>/kavelo_chunks/<safe id>/chunks/00012.aac.
// A chunk file holds exactly the bytes handed to store(). Directories and files are the user's alone.
//
// Thread-safety: any thread. Only store() takes the lock, so two stores never interleave; the atomic
// write means a concurrent read sees the old or the new bytes, never half a file.
class ChunkStore {
  public:
    // A recording id that no folder name can stand for: empty, or too long once encoded.
    class UnstorableRecordingId : public std::invalid_argument {
      public:
        UnstorableRecordingId();
    };
    static constexpr std::size_t maxFolderNameBytes = 255;

    explicit ChunkStore(std::filesystem::path root);

    // The folder of a recording: injective, so two ids never share one. Throws UnstorableRecordingId.
    static std::string safeRecordingId(const std::string& recordingId);
    // The id whose folder this is; absent for a name that safeRecordingId does not make.
    static std::optional<std::string> recordingIdOfFolder(const std::string& folder);
    static std::string filename(int sequence);

    [[nodiscard]] std::filesystem::path chunkDirectory(const std::string& recordingId) const;
    // The ids of the recordings that have a chunk directory, sorted; for status displays.
    [[nodiscard]] std::vector<std::string> storedRecordings() const;
    [[nodiscard]] std::filesystem::path chunkURL(const std::string& recordingId, int sequence) const;

    // chunkDirectory, chunkURL, prepareDirectory and store throw UnstorableRecordingId for such an id; the
    // readers and removers treat it as a recording with nothing stored.
    //
    // Throws std::filesystem::filesystem_error (or std::system_error) unchanged.
    void prepareDirectory(const std::string& recordingId) const;
    // Durable atomic write, replacing any file already there. Returns the number of bytes written.
    long long store(const std::string& recordingId, int sequence, const Bytes& data);

    [[nodiscard]] std::optional<Bytes> read(const std::string& recordingId, int sequence) const;
    [[nodiscard]] bool exists(const std::string& recordingId, int sequence) const;
    void remove(const std::string& recordingId, int sequence) const;
    [[nodiscard]] std::vector<int> storedSequences(const std::string& recordingId) const;
    void removeAll(const std::string& recordingId) const;
    // Bytes available to an unprivileged user on the volume of root; absent when the volume cannot answer.
    [[nodiscard]] std::optional<std::int64_t> availableDiskBytes() const;

    [[nodiscard]] const std::filesystem::path& root() const { return root_; }

  private:
    static std::optional<std::string> folderName(const std::string& recordingId);

    const std::filesystem::path root_;
    std::mutex mutex_;
};

} // namespace kavelo
