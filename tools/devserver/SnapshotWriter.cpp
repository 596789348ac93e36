#include "tools/devserver/SnapshotWriter.h"

#include "core/support/AtomicFile.h"

#include <iostream>
#include <stdexcept>

namespace kavelo {

SnapshotWriter::SnapshotWriter(std::filesystem::path file) : file_(std::move(file)) {
    createPrivateDirectories(file_.parent_path());
    thread_ = std::thread([this] { run(); });
}

SnapshotWriter::~SnapshotWriter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

std::optional<Json> SnapshotWriter::load() const {
    auto bytes = readWholeFile(file_);
    if (!bytes) {
        return std::nullopt;
    }
    try {
        return CoreJSON::decode(*bytes);
    } catch (const DecodingError&) {
        return std::nullopt;
    }
}

void SnapshotWriter::save(std::uint64_t version, Json snapshot) {
    std::unique_lock lock(mutex_);
    if (version > pendingVersion_ && version > writtenVersion_) {
        pending_ = std::move(snapshot);
        pendingVersion_ = version;
        changed_.notify_all();
    }
    changed_.wait(lock, [&] { return writtenVersion_ >= version || stopping_; });
    if (failedVersion_ >= version && failedVersion_ == writtenVersion_) {
        throw std::runtime_error("state could not be written to " + file_.string());
    }
}

void SnapshotWriter::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [&] { return pending_.has_value() || stopping_; });
        if (!pending_) {
            return;
        }
        Json snapshot = std::move(*pending_);
        pending_.reset();
        auto version = pendingVersion_;
        lock.unlock();
        bool ok = true;
        try {
            writeFileAtomically(file_, CoreJSON::encodeBytes(snapshot));
        } catch (const std::exception& e) {
            ok = false;
            std::cerr << "kavelo-devserver: " << e.what() << "\n";
        }
        lock.lock();
        writtenVersion_ = version;
        if (!ok) {
            failedVersion_ = version;
        }
        changed_.notify_all();
    }
}

} // namespace kavelo
