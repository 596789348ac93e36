#pragma once

#include "core/support/Bytes.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace kavelo::fuzz {

// A private folder for the readers of files, made once per fuzzing process and removed at its end. Each
// input is written to the same file name, which is where the program under test looks.
class ScratchFile {
  public:
    explicit ScratchFile(const std::string& name) {
        std::string pattern = (std::filesystem::temp_directory_path() / "kavelo-fuzz-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        directory_ = pattern;
        path_ = directory_ / name;
    }
    ~ScratchFile() {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

    void write(const Bytes& bytes) const {
        std::ofstream out(path_, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            std::abort();
        }
    }

  private:
    std::filesystem::path directory_;
    std::filesystem::path path_;
};

} // namespace kavelo::fuzz
