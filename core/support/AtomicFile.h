#pragma once

#include "core/support/Bytes.h"

#include <filesystem>
#include <optional>

namespace kavelo {

// Durable replacement of a file: write a temporary file in the same directory with the given mode, fsync
// it, rename it into place, fsync the directory. Once this returns, the content survives a crash of the
// process and of the machine. Throws std::system_error on any failure, leaving the old file in place.
void writeFileAtomically(const std::filesystem::path& path, const Bytes& data, unsigned mode = 0600);

// Creates a directory and its missing parents, new ones with the given mode. An existing one is success.
void createPrivateDirectories(const std::filesystem::path& dir, unsigned mode = 0700);

// The whole content of a file, or absent on any error.
std::optional<Bytes> readWholeFile(const std::filesystem::path& path);

} // namespace kavelo
