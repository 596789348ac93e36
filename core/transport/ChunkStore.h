#pragma once

#include "core/support/Bytes.h"
#include "core/support/FileWriter.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <set>
#include <string>
#include <vector>

namespace kavelo {

// The numbered audio chunks of each recording on the local disk, between the moment the recorder cuts
// them and the moment the server holds them. Layout: <root>/kavelo_chunks/<safe id>/chunks/00012.aac.
// A chunk file holds exactly the bytes handed to store(). Directories and files are the user's alone.
//
// Beside the chunks lies the journal of the chunk being filled (00013.journal): the recorder appends to it
// about once a second, so that a crash loses about a second of audio instead of a whole chunk. Storing a
// chunk removes its journal; sealJournals turns the journals an ended process left into chunks.
//
// This class is the one that deletes chunk and journal files.
//
// Thread-safety: any thread, without a lock: every write goes to a file of its own and lands whole by a
// rename (or, for the journal, is appended by the one thread that feeds it), so a concurrent read sees the
// old or the new bytes, never half a file.
class ChunkStore {
  public:
    // A recording id that no folder name can stand for: empty, or too long once encoded.
    class UnstorableRecordingId : public std::invalid_argument {
      public:
        UnstorableRecordingId();
    };
    static constexpr std::size_t maxFolderNameBytes = 255;

    // The size at which the recorder cuts its stream into chunks, at the next frame boundary.
    static constexpr std::size_t cutBytes = 98304;
    // A journal holds one chunk in the making; a file far beyond that is not one we wrote.
    static constexpr std::size_t maxJournalBytes = 16 * 1024 * 1024;

    // writer: how bytes reach the disk; absent means the real file system.
    explicit ChunkStore(std::filesystem::path root, std::shared_ptr<FileWriter> writer = nullptr);

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
    // Durable atomic write, replacing any file already there, then removes the chunk's journal. Returns the
    // number of bytes written. Throws std::system_error (ENOSPC for a full disk) with nothing replaced.
    long long store(const std::string& recordingId, int sequence, const Bytes& data);

    // The journal of the chunk being filled. Both throw std::system_error; after a failed append the file
    // may end in a torn part, which replaceJournal (or sealJournals, which keeps whole frames) puts right.
    void appendJournal(const std::string& recordingId, int sequence, const Bytes& data);
    void replaceJournal(const std::string& recordingId, int sequence, const Bytes& data);
    void removeJournal(const std::string& recordingId, int sequence) const;
    [[nodiscard]] std::vector<int> journalSequences(const std::string& recordingId) const;
    // Turns the journals of a recording whose capture has ended into chunks: the whole frames of the
    // journal of chunk N become chunk N (and N+1, ... for a journal longer than cutBytes). A journal whose
    // chunk exists here or in serverHeld is a leftover and goes. Returns the sequences written. Throws
    // std::system_error when a chunk cannot be written; that journal then stays for the next try.
    std::vector<int> sealJournals(const std::string& recordingId, const std::set<int>& serverHeld);

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
    [[nodiscard]] std::filesystem::path journalURL(const std::string& recordingId, int sequence) const;

    const std::filesystem::path root_;
    const std::shared_ptr<FileWriter> writer_;
};

} // namespace kavelo
