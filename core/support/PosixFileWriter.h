#pragma once

#include "core/support/FileWriter.h"

namespace kavelo {

// The file writer of the running program: the durable helpers of AtomicFile. Thread-safety: any thread.
class PosixFileWriter final : public FileWriter {
  public:
    void replace(const std::filesystem::path& path, const Bytes& data, unsigned mode) override;
    void append(const std::filesystem::path& path, const Bytes& data, unsigned mode) override;
};

} // namespace kavelo
