#pragma once

#include "core/support/Bytes.h"

#include <filesystem>
#include <optional>

namespace kavelo {

// Durable replacement of a file: write a temporary file in the same directory with the given mode, fsync
// it, rename it into place, fsync the directory. Once this returns, the content survives a crash of the
// process and of the machine. Throws std::system_error on any failure, leaving the old file in place.
void writeFileAtomically(const std::filesystem::path& path, const Bytes& data, unsigned mode = 0600);

// Appends to a file (created with the given mode when missing) and fsyncs it; a file created here has its
// directory synced too, so its name survives a crash as well. Throws std::system_error; after a failure the
// file may end in a part of data, so a caller that appends again must first put the file right.
void appendFileDurably(const std::filesystem::path& path, const Bytes& data, unsigned mode = 0600);

// Makes the entries of a directory (a rename, a new or removed name) durable. Throws std::system_error when
// the directory cannot be opened or synced: the caller then cannot count on the change surviving a crash.
void fsyncDirectory(const std::filesystem::path& dir);

// Creates a directory and its missing parents, new ones with the given mode, each new one's parent synced so
// that the new name survives a crash. An existing directory is success.
void createPrivateDirectories(const std::filesystem::path& dir, unsigned mode = 0700);

// The whole content of a file, or absent on any error.
std::optional<Bytes> readWholeFile(const std::filesystem::path& path);

} // namespace kavelo
