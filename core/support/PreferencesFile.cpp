#include "core/support/PreferencesFile.h"

#include "core/support/AtomicFile.h"

#include <openssl/evp.h>

#include <fstream>
#include <system_error>

namespace kavelo {
namespace {

std::string toBase64(const Bytes& bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3), '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(),
                                        static_cast<int>(bytes.size()));
    out.resize(written < 0 ? 0 : static_cast<std::size_t>(written));
    return out;
}

std::optional<Bytes> fromBase64(const std::string& text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    Bytes out(3 * (text.size() / 4));
    const int written = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                        static_cast<int>(text.size()));
    if (written < 0) {
        return std::nullopt;
    }
    // EVP_DecodeBlock counts the padding as zero bytes.
    std::size_t size = static_cast<std::size_t>(written);
    for (auto it = text.rbegin(); it != text.rend() && *it == '=' && size > 0; ++it) {
        --size;
    }
    out.resize(size);
    return out;
}

bool isStoredValue(const nlohmann::json& value) {
    if (value.is_string() || value.is_boolean()) {
        return true;
    }
    return value.is_object() && value.size() == 1 && value.contains("base64") && value["base64"].is_string();
}

} // namespace

PreferencesFile::PreferencesFile(std::filesystem::path path, Warn warn)
    : path_(std::move(path)), warn_(std::move(warn)) {
    load();
}

void PreferencesFile::load() {
    std::error_code ec;
    if (!std::filesystem::exists(path_, ec)) {
        return;
    }
    std::string problem;
    const auto size = std::filesystem::file_size(path_, ec);
    if (ec) {
        problem = "cannot be read (" + ec.message() + ")";
    } else if (size > kMaxFileBytes) {
        problem = "is larger than " + std::to_string(kMaxFileBytes / 1024) + " KiB";
    } else {
        const auto bytes = readWholeFile(path_);
        const auto parsed = bytes ? nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false)
                                  : nlohmann::json(nlohmann::json::value_t::discarded);
        if (!parsed.is_object()) {
            problem = "is not a JSON object";
        } else if (parsed.size() > kMaxEntries) {
            problem = "holds more than " + std::to_string(kMaxEntries) + " entries";
        } else {
            for (const auto& [key, value] : parsed.items()) {
                // One value of a kind the store never writes is dropped; the others stay.
                if (isStoredValue(value)) {
                    values_[key] = value;
                }
            }
            return;
        }
    }
    auto aside = path_;
    aside += ".broken";
    std::filesystem::rename(path_, aside, ec);
    if (warn_) {
        warn_("preferences file " + path_.string() + " " + problem + "; moved aside to " + aside.string() +
              (ec ? " (failed: " + ec.message() + ")" : "") + ", going on with the defaults");
    }
}

std::optional<std::string> PreferencesFile::string(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto it = values_.find(key);
    if (it == values_.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

std::optional<Bytes> PreferencesFile::data(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto it = values_.find(key);
    if (it == values_.end() || !it->is_object()) {
        return std::nullopt;
    }
    return fromBase64((*it)["base64"].get<std::string>());
}

std::optional<bool> PreferencesFile::boolean(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto it = values_.find(key);
    if (it == values_.end() || !it->is_boolean()) {
        return std::nullopt;
    }
    return it->get<bool>();
}

void PreferencesFile::setString(const std::optional<std::string>& value, const std::string& key) {
    change(key, value ? std::optional<nlohmann::json>(*value) : std::nullopt);
}

void PreferencesFile::setData(const std::optional<Bytes>& value, const std::string& key) {
    change(key, value ? std::optional<nlohmann::json>(nlohmann::json{{"base64", toBase64(*value)}})
                      : std::nullopt);
}

void PreferencesFile::setBool(bool value, const std::string& key) {
    change(key, nlohmann::json(value));
}

void PreferencesFile::removeValue(const std::string& key) {
    change(key, std::nullopt);
}

void PreferencesFile::change(const std::string& key, std::optional<nlohmann::json> value) {
    {
        std::lock_guard lock(mutex_);
        if (value) {
            values_[key] = std::move(*value);
        } else if (!values_.erase(key)) {
            return;
        }
    }
    std::lock_guard order(writeOrder_);
    std::string snapshot;
    {
        std::lock_guard lock(mutex_);
        snapshot = values_.dump(2);
    }
    std::string failure;
    try {
        createPrivateDirectories(path_.parent_path());
        writeFileAtomically(path_, bytesFromString(snapshot + "\n"), 0600);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    bool report = false;
    {
        std::lock_guard lock(mutex_);
        report = !failure.empty() && !writeFailureReported_;
        writeFailureReported_ = writeFailureReported_ || report;
    }
    if (report && warn_) {
        warn_("preferences file " + path_.string() + " cannot be written (" + failure +
              "); changes last until the program ends");
    }
}

} // namespace kavelo
