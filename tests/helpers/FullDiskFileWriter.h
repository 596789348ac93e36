#pragma once

#include "core/support/PosixFileWriter.h"

#include <atomic>
#include <cerrno>
#include <system_error>

namespace kavelo::testing {

// The real file writer with a switch that makes the disk full: while it is on, every write fails with
// ENOSPC as a full volume would, and nothing reaches the file system. Any thread may flip it.
class FullDiskFileWriter final : public FileWriter {
  public:
    void replace(const std::filesystem::path& path, const Bytes& data, unsigned mode) override {
        refuseWhenFull(path);
        real_.replace(path, data, mode);
    }
    void append(const std::filesystem::path& path, const Bytes& data, unsigned mode) override {
        refuseWhenFull(path);
        real_.append(path, data, mode);
    }
    void setFull(bool full) { full_ = full; }
    [[nodiscard]] int refusals() const { return refusals_; }

  private:
    void refuseWhenFull(const std::filesystem::path& path) {
        if (full_) {
            ++refusals_;
            throw std::system_error(ENOSPC, std::generic_category(), "write " + path.string());
        }
    }
    PosixFileWriter real_;
    std::atomic<bool> full_{false};
    std::atomic<int> refusals_{0};
};

} // namespace kavelo::testing
