#include "core/workspace/DashboardActivityFile.h"

#include <fstream>

namespace kavelo {

std::optional<std::vector<DashboardActivityItem>> DashboardActivityFile::decode(const Bytes& data) {
    if (data.size() > maxBytes) {
        return std::nullopt;
    }
    try {
        const Json json = CoreJSON::decode(data);
        if (!json.is_array()) {
            return std::nullopt;
        }
        std::vector<DashboardActivityItem> items;
        for (const Json& entry : json) {
            if (items.size() == maxEntries) {
                break;
            }
            items.push_back(DashboardActivityItem::fromJson(entry));
        }
        return items;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

Bytes DashboardActivityFile::encode(const std::vector<DashboardActivityItem>& items) {
    Json array = Json::array();
    for (const auto& item : items) {
        array.push_back(item.toJson());
    }
    return CoreJSON::encodeBytes(array);
}

std::optional<Bytes> DashboardActivityFile::readBounded(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    Bytes data(maxBytes + 1);
    in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(data.size()));
    if (in.bad()) {
        return std::nullopt;
    }
    const auto count = static_cast<std::size_t>(in.gcount());
    if (count > maxBytes) {
        return std::nullopt;
    }
    data.resize(count);
    return data;
}

} // namespace kavelo
