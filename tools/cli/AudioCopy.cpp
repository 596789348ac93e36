#include "tools/cli/AudioCopy.h"

#include "tools/cli/CliFailure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace kavelo::cli {

AudioCopy::AudioCopy(std::filesystem::path path, const std::string& failureText) : path_(std::move(path)) {
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0) {
        throw CliFailure(failureText + " (" + std::strerror(errno) + ")");
    }
}

AudioCopy::~AudioCopy() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void AudioCopy::append(const Bytes& data) {
    if (error_.load() != 0) {
        return;
    }
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd_, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error_.store(n < 0 ? errno : EIO);
            return;
        }
        done += static_cast<std::size_t>(n);
    }
    written_.fetch_add(done);
}

} // namespace kavelo::cli
