#include "GalleryTexts.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace kavelo {
namespace {

void flatten(const QJsonObject& object, const QString& prefix, QHash<QString, QString>& into) {
    for (auto it = object.begin(); it != object.end(); ++it) {
        const auto key = prefix + QLatin1Char('.') + it.key();
        if (it.value().isString()) {
            into.insert(key, it.value().toString());
        } else if (it.value().isObject()) {
            flatten(it.value().toObject(), key, into);
        }
    }
}

} // namespace

GalleryTexts::GalleryTexts() {
    const QDir dir(QStringLiteral(":/copy"));
    for (const auto& name : dir.entryList({QStringLiteral("*.json")}, QDir::Files)) {
        // "<language>.<namespace>.json"
        const auto parts = name.split(QLatin1Char('.'));
        if (parts.size() != 3) {
            continue;
        }
        QFile file(dir.filePath(name));
        if (!file.open(QIODevice::ReadOnly)) {
            continue;
        }
        const auto document = QJsonDocument::fromJson(file.read(4 * 1024 * 1024));
        if (document.isObject()) {
            flatten(document.object(), parts[1], tables_[parts[0]]);
        }
    }
}

std::string GalleryTexts::text(std::string_view key) const {
    const auto wanted = QString::fromUtf8(key.data(), static_cast<qsizetype>(key.size()));
    const auto table = tables_.constFind(language_);
    if (table != tables_.cend()) {
        const auto found = table->constFind(wanted);
        if (found != table->cend()) {
            return found->toStdString();
        }
    }
    return std::string(key);
}

int GalleryTexts::size(const QString& language) const {
    const auto table = tables_.constFind(language);
    return table == tables_.cend() ? 0 : static_cast<int>(table->size());
}

} // namespace kavelo
