#include "core/workspace/UpdateDocument.h"

#include "core/backend/WireJson.h"
#include "core/support/CoreJSON.h"
#include "core/workspace/SemVer.h"

#include <string>

namespace kavelo {

namespace {

std::string version(const Json& object, std::string_view key) {
    std::string value = WireJson::requireString(object, key);
    if (!SemVer::isAcceptable(value)) {
        throw DecodingError(std::string(key) + " is not a version of at most " +
                            std::to_string(SemVer::kMaxLength) + " characters and " +
                            std::to_string(SemVer::kMaxPieces) + " pieces");
    }
    return value;
}

std::string bounded(const Json& object, std::string_view key, std::size_t maxBytes) {
    std::string value = WireJson::requireString(object, key);
    if (value.size() > maxBytes) {
        throw DecodingError(std::string(key) + " is longer than " + std::to_string(maxBytes) + " bytes");
    }
    return value;
}

std::optional<TimePoint> optionalDate(const Json& object, std::string_view key) {
    const auto text = WireJson::optionalString(object, key);
    if (!text) {
        return std::nullopt;
    }
    if (text->size() > 64) {
        throw DecodingError(std::string(key) + " is not a date");
    }
    return CoreJSON::parseDate(*text);
}

// The address is handed to the browser, so only web addresses pass.
std::optional<std::string> downloadURL(const Json& object) {
    auto url = WireJson::optionalString(object, "download_url");
    if (!url) {
        return std::nullopt;
    }
    const bool web = url->rfind("https://", 0) == 0 || url->rfind("http://", 0) == 0;
    if (!web || url->size() > UpdateDocument::kMaxURLBytes ||
        url->find_first_of(std::string_view(" \t\r\n\0", 5)) != std::string::npos) {
        throw DecodingError("download_url is not a web address");
    }
    return url;
}

ReleaseNote note(const Json& value) {
    const Json& object = WireJson::object(value, "release note");
    ReleaseNote n;
    n.version = version(object, "version");
    n.title = bounded(object, "title", UpdateDocument::kMaxNoteTitleBytes);
    n.body = bounded(object, "body", UpdateDocument::kMaxNoteBodyBytes);
    n.date = optionalDate(object, "date");
    return n;
}

} // namespace

UpdateDocument UpdateDocument::parse(const Bytes& body) {
    if (body.size() > kMaxBytes) {
        throw DecodingError("update policy is larger than " + std::to_string(kMaxBytes) + " bytes");
    }
    const Json json = CoreJSON::decode(body);
    const Json& object = WireJson::object(json, "update policy");
    UpdateDocument document;
    document.policy.minimumSupportedVersion = version(object, "minimum_supported_version");
    document.policy.latestVersion = version(object, "latest_version");
    document.policy.downloadURL = downloadURL(object);
    document.policy.mandatoryAfter = optionalDate(object, "mandatory_after");
    const auto notes = object.find("release_notes");
    if (notes != object.end() && !notes->is_null()) {
        if (!notes->is_array()) {
            throw DecodingError("release_notes is not an array");
        }
        if (notes->size() > kMaxReleaseNotes) {
            throw DecodingError("more than " + std::to_string(kMaxReleaseNotes) + " release notes");
        }
        for (const Json& value : *notes) {
            document.releaseNotes.push_back(note(value));
        }
    }
    return document;
}

} // namespace kavelo
