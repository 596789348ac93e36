#pragma once

#include "core/support/Bytes.h"

#include <filesystem>

namespace kavelo {

// How durable bytes reach the disk: the one seam between the stores that must not lose data and the file
// system, so that a test can make the disk refuse (ENOSPC) without filling a real volume.
// PosixFileWriter is the real one.
class FileWriter {
  public:
    virtual ~FileWriter() = default;
    // Durable atomic replacement (writeFileAtomically). Throws std::system_error, the old file standing.
    virtual void replace(const std::filesystem::path& path, const Bytes& data, unsigned mode) = 0;
    // Durable append (appendFileDurably). Throws std::system_error; the file may then end in a torn part.
    virtual void append(const std::filesystem::path& path, const Bytes& data, unsigned mode) = 0;
};

} // namespace kavelo
