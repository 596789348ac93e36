#include "core/support/PosixFileWriter.h"

#include "core/support/AtomicFile.h"

namespace kavelo {

void PosixFileWriter::replace(const std::filesystem::path& path, const Bytes& data, unsigned mode) {
    writeFileAtomically(path, data, mode);
}

void PosixFileWriter::append(const std::filesystem::path& path, const Bytes& data, unsigned mode) {
    appendFileDurably(path, data, mode);
}

} // namespace kavelo
