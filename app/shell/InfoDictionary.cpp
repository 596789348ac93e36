#include "app/shell/InfoDictionary.h"

#include "app/shell/EnvironmentError.h"
#include "app/shell/KaveloInfo.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kavelo {

EnvironmentReader processEnvironment() {
    return [](const std::string& name) -> std::optional<std::string> {
        const char* value = std::getenv(name.c_str());
        if (value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    };
}

InfoDictionary::InfoDictionary(Json object, std::string source)
    : object_(object.is_object() ? std::move(object) : Json::object()), source_(std::move(source)) {}

InfoDictionary InfoDictionary::embedded() {
    Json parsed = Json::parse(kEmbeddedInfoJSON, nullptr, false);
    return InfoDictionary(parsed.is_discarded() ? Json::object() : std::move(parsed));
}

InfoDictionary InfoDictionary::fromFile(const std::filesystem::path& path) {
    using Kind = EnvironmentError::Kind;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw EnvironmentError(Kind::infoFileUnreadable, path.string(), std::strerror(errno));
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        throw EnvironmentError(Kind::infoFileUnreadable, path.string(), std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        throw EnvironmentError(Kind::infoFileUnreadable, path.string(), "not a regular file");
    }
    if (static_cast<std::uintmax_t>(info.st_size) > kMaxFileBytes) {
        throw EnvironmentError(Kind::infoFileNotAnObject, path.string(),
                               "larger than " + std::to_string(kMaxFileBytes / 1024) + " KiB");
    }
    std::string text(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t got = 0;
    while (got < text.size()) {
        const ssize_t n = ::read(fd, text.data() + got, text.size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throw EnvironmentError(Kind::infoFileUnreadable, path.string(), std::strerror(errno));
        }
        if (n == 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    Json parsed;
    try {
        parsed = Json::parse(text);
    } catch (const Json::exception& error) {
        throw EnvironmentError(Kind::infoFileNotAnObject, path.string(), error.what());
    }
    if (!parsed.is_object()) {
        throw EnvironmentError(Kind::infoFileNotAnObject, path.string(), "the top level is not an object");
    }
    return InfoDictionary(std::move(parsed), path.string());
}

InfoDictionary InfoDictionary::load(const EnvironmentReader& env) {
    if (const auto path = env("KAVELO_INFO_FILE"); path && !path->empty()) {
        return fromFile(*path);
    }
    return embedded();
}

std::optional<std::string> InfoDictionary::value(const std::string& key) const {
    const auto it = object_.find(key);
    if (it == object_.end() || !it->is_string()) {
        return std::nullopt;
    }
    std::string text = it->get<std::string>();
    if (text.empty() || text.rfind("$(", 0) == 0) {
        return std::nullopt;
    }
    return text;
}

} // namespace kavelo
