#include "core/transport/ChunkStore.h"

#include "core/support/AtomicFile.h"
#include "core/support/PosixFileWriter.h"
#include "core/support/RecordingLimits.h"
#include "core/transport/AdtsFrames.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <sys/statvfs.h>

namespace kavelo {

namespace {

constexpr std::string_view kChunkSuffix = ".aac";
constexpr std::string_view kJournalSuffix = ".journal";

// The sequences of the files in dir named <number><suffix>, ascending.
std::vector<int> numberedFiles(const std::filesystem::path& dir, std::string_view suffix) {
    std::vector<int> sequences;
    std::error_code ec;
    std::filesystem::directory_iterator it(dir, ec);
    if (ec) {
        return sequences;
    }
    for (const auto& entry : it) {
        std::string name = entry.path().filename().string();
        if (name.size() <= suffix.size() || !name.ends_with(suffix)) {
            continue;
        }
        std::string_view digits(name.data(), name.size() - suffix.size());
        int value = 0;
        auto [ptr, err] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        // A name no chunk of ours can have (a planted 2147483647.aac) must not become a range to walk.
        if (err != std::errc() || ptr != digits.data() + digits.size() || !RecordingLimits::isSequence(value)) {
            continue;
        }
        sequences.push_back(value);
    }
    std::sort(sequences.begin(), sequences.end());
    return sequences;
}

// At most limit bytes of a file; absent when it cannot be read.
std::optional<Bytes> readAtMost(const std::filesystem::path& path, std::size_t limit) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    Bytes data(limit);
    in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(limit));
    if (in.bad()) {
        return std::nullopt;
    }
    data.resize(static_cast<std::size_t>(in.gcount()));
    return data;
}

} // namespace

ChunkStore::ChunkStore(std::filesystem::path root, std::shared_ptr<FileWriter> writer)
    : root_(std::move(root)), writer_(writer ? std::move(writer) : std::make_shared<PosixFileWriter>()) {}

ChunkStore::UnstorableRecordingId::UnstorableRecordingId()
    : std::invalid_argument("recording id cannot name a chunk folder") {}

std::optional<std::string> ChunkStore::folderName(const std::string& recordingId) {
    // Letters, digits, '-' and '_' stand for themselves and every other byte, '%' included, becomes %XX:
    // two ids never share a folder (deleting one recording's chunks cannot touch another's), and "." or
    // ".." can never come out.
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string safe;
    for (unsigned char c : recordingId) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
            c == '_') {
            safe += static_cast<char>(c);
        } else {
            safe += '%';
            safe += hex[c >> 4];
            safe += hex[c & 0xF];
        }
    }
    if (safe.empty() || safe.size() > maxFolderNameBytes) {
        return std::nullopt;
    }
    return safe;
}

std::string ChunkStore::safeRecordingId(const std::string& recordingId) {
    auto safe = folderName(recordingId);
    if (!safe) {
        throw UnstorableRecordingId();
    }
    return *safe;
}

std::optional<std::string> ChunkStore::recordingIdOfFolder(const std::string& folder) {
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    };
    std::string id;
    for (std::size_t i = 0; i < folder.size(); ++i) {
        if (folder[i] != '%') {
            id += folder[i];
            continue;
        }
        if (i + 2 >= folder.size() || digit(folder[i + 1]) < 0 || digit(folder[i + 2]) < 0) {
            return std::nullopt;
        }
        id += static_cast<char>(digit(folder[i + 1]) * 16 + digit(folder[i + 2]));
        i += 2;
    }
    // Only the folder that this id encodes to belongs to it; anything else was not made by this store.
    if (folderName(id) != folder) {
        return std::nullopt;
    }
    return id;
}

std::string ChunkStore::filename(int sequence) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%05d.aac", sequence);
    return buf;
}

std::filesystem::path ChunkStore::chunkDirectory(const std::string& recordingId) const {
    return root_ / "kavelo_chunks" / safeRecordingId(recordingId) / "chunks";
}

std::vector<std::string> ChunkStore::storedRecordings() const {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(root_ / "kavelo_chunks", error)) {
        if (!entry.is_directory(error)) {
            continue;
        }
        if (auto id = recordingIdOfFolder(entry.path().filename().string())) {
            names.push_back(std::move(*id));
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::filesystem::path ChunkStore::chunkURL(const std::string& recordingId, int sequence) const {
    return chunkDirectory(recordingId) / filename(sequence);
}

void ChunkStore::prepareDirectory(const std::string& recordingId) const {
    // Audio of a meeting is private: every level we create is the user's alone.
    createPrivateDirectories(chunkDirectory(recordingId), 0700);
}

long long ChunkStore::store(const std::string& recordingId, int sequence, const Bytes& data) {
    prepareDirectory(recordingId);
    writer_->replace(chunkURL(recordingId, sequence), data, 0600);
    // The chunk holds all the journal held. Should this removal not survive a crash, sealJournals finds
    // the chunk beside the journal and drops the journal then.
    removeJournal(recordingId, sequence);
    return static_cast<long long>(data.size());
}

std::filesystem::path ChunkStore::journalURL(const std::string& recordingId, int sequence) const {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%05d", sequence);
    return chunkDirectory(recordingId) / (std::string(buf) + std::string(kJournalSuffix));
}

void ChunkStore::appendJournal(const std::string& recordingId, int sequence, const Bytes& data) {
    prepareDirectory(recordingId);
    writer_->append(journalURL(recordingId, sequence), data, 0600);
}

void ChunkStore::replaceJournal(const std::string& recordingId, int sequence, const Bytes& data) {
    prepareDirectory(recordingId);
    writer_->replace(journalURL(recordingId, sequence), data, 0600);
}

void ChunkStore::removeJournal(const std::string& recordingId, int sequence) const {
    std::error_code ec;
    std::filesystem::remove(journalURL(recordingId, sequence), ec);
}

std::vector<int> ChunkStore::journalSequences(const std::string& recordingId) const {
    if (!folderName(recordingId)) {
        return {};
    }
    return numberedFiles(chunkDirectory(recordingId), kJournalSuffix);
}

std::vector<int> ChunkStore::sealJournals(const std::string& recordingId, const std::set<int>& serverHeld) {
    std::vector<int> written;
    for (const int first : journalSequences(recordingId)) {
        if (serverHeld.contains(first) || exists(recordingId, first)) {
            removeJournal(recordingId, first);
            continue;
        }
        const auto data = readAtMost(journalURL(recordingId, first), maxJournalBytes);
        if (!data) {
            continue; // unreadable now; the next recovery tries again
        }
        int sequence = first;
        for (const auto& chunk : AdtsFrames::cut(*data, cutBytes)) {
            if (!serverHeld.contains(sequence) && !exists(recordingId, sequence)) {
                store(recordingId, sequence, chunk);
                written.push_back(sequence);
            }
            ++sequence;
        }
        removeJournal(recordingId, first);
    }
    return written;
}

std::optional<Bytes> ChunkStore::read(const std::string& recordingId, int sequence) const {
    if (!folderName(recordingId)) {
        return std::nullopt;
    }
    return readWholeFile(chunkURL(recordingId, sequence));
}

bool ChunkStore::exists(const std::string& recordingId, int sequence) const {
    if (!folderName(recordingId)) {
        return false;
    }
    std::error_code ec;
    return std::filesystem::symlink_status(chunkURL(recordingId, sequence), ec).type() !=
               std::filesystem::file_type::not_found &&
           !ec;
}

void ChunkStore::remove(const std::string& recordingId, int sequence) const {
    if (!folderName(recordingId)) {
        return;
    }
    std::error_code ec;
    std::filesystem::remove(chunkURL(recordingId, sequence), ec);
}

std::vector<int> ChunkStore::storedSequences(const std::string& recordingId) const {
    if (!folderName(recordingId)) {
        return {};
    }
    return numberedFiles(chunkDirectory(recordingId), kChunkSuffix);
}

void ChunkStore::removeAll(const std::string& recordingId) const {
    if (!folderName(recordingId)) {
        return;
    }
    std::error_code ec;
    std::filesystem::remove_all(chunkDirectory(recordingId).parent_path(), ec);
}

std::optional<std::int64_t> ChunkStore::availableDiskBytes() const {
    // The nearest existing ancestor answers for a store that has not been created yet.
    std::filesystem::path probe = root_;
    std::error_code ec;
    while (!probe.empty() && !std::filesystem::exists(probe, ec)) {
        if (probe == probe.parent_path()) {
            break;
        }
        probe = probe.parent_path();
    }
    struct statvfs info {};
    if (probe.empty() || ::statvfs(probe.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(info.f_bavail) * static_cast<std::int64_t>(info.f_frsize);
}

} // namespace kavelo
