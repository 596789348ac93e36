#pragma once

#include "core/support/Bytes.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>

namespace kavelo::cli {

// A copy of everything the recorder cut, in one file: each chunk's ADTS frames appended in the order the
// recorder hands them over, so the file plays as one AAC stream. The chunks themselves are deleted once
// the server holds them; this is the user's own copy, asked for with `record --keep-audio`.
//
// append() comes from the recorder's thread; the descriptor is fixed at construction and each append is
// one write to a file opened for appending, so no lock is needed.
class AudioCopy {
  public:
    // Creates or empties the file (readable by the user alone); throws CliFailure when it cannot.
    AudioCopy(std::filesystem::path path, const std::string& failureText);
    ~AudioCopy();
    AudioCopy(const AudioCopy&) = delete;
    AudioCopy& operator=(const AudioCopy&) = delete;

    void append(const Bytes& data);

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::uint64_t bytesWritten() const { return written_.load(); }
    // The errno of the first failed write, 0 when none failed; later chunks are then not copied, so the
    // copy never has a hole in its middle.
    [[nodiscard]] int firstError() const { return error_.load(); }

  private:
    const std::filesystem::path path_;
    int fd_ = -1;
    std::atomic<std::uint64_t> written_{0};
    std::atomic<int> error_{0};
};

} // namespace kavelo::cli
