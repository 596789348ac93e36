#include "core/accounts/FileSessionStore.h"

#include "core/support/AtomicFile.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace kavelo {

FileSessionStore::FileSessionStore(std::filesystem::path path, std::shared_ptr<CoreLogger> logger)
    : path_(std::move(path)), logger_(std::move(logger)) {}

std::optional<AuthSession> FileSessionStore::load() {
    struct stat info {};
    if (::stat(path_.c_str(), &info) != 0) {
        if (errno != ENOENT) {
            logger_->error("sessiebestand load faalde: " + std::string(std::strerror(errno)));
        }
        return std::nullopt;
    }
    if ((info.st_mode & 077) != 0) {
        // Someone widened the permissions: the tokens may have been read. Use them, but say so.
        logger_->warn("sessiebestand is leesbaar voor anderen dan de eigenaar: " + path_.string());
    }
    std::optional<Bytes> bytes = readWholeFile(path_);
    if (!bytes) {
        logger_->error("sessiebestand load faalde: niet te lezen");
        return std::nullopt;
    }
    try {
        return AuthSession::fromJson(CoreJSON::decode(*bytes));
    } catch (const std::exception&) {
        logger_->error("sessiebestand load: bestand aanwezig maar niet te decoderen");
        return std::nullopt;
    }
}

void FileSessionStore::save(const AuthSession& session) {
    try {
        createPrivateDirectories(path_.parent_path());
        writeFileAtomically(path_, CoreJSON::encodeBytes(session.toJson()), 0600);
    } catch (const std::exception& e) {
        logger_->error("sessiebestand save faalde: " + std::string(e.what()) +
                       " — sessie leeft alleen in geheugen en overleeft de herstart niet");
    }
}

void FileSessionStore::clear() {
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) {
        logger_->error("sessiebestand delete faalde: " + std::string(std::strerror(errno)));
    }
}

} // namespace kavelo
