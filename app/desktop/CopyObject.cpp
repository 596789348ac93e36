#include "app/desktop/CopyObject.h"

namespace kavelo {

CopyObject::CopyObject(Source source, QObject* parent) : QObject(parent), source_(std::move(source)) {}

QString CopyObject::language() const {
    return QString::fromStdString(source_.language());
}

void CopyObject::setLanguage(const QString& code) {
    if (code == language()) {
        return;
    }
    source_.setLanguage(code.toStdString());
    emit languageChanged();
}

QString CopyObject::text(const QString& key) const {
    const auto utf8 = key.toUtf8();
    return QString::fromStdString(source_.text(std::string_view(utf8.constData(), utf8.size())));
}

QString CopyObject::format(const QString& key, const QVariantMap& values) const {
    auto result = text(key);
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        result.replace(QStringLiteral("{{") + it.key() + QStringLiteral("}}"), it.value().toString());
    }
    return result;
}

} // namespace kavelo
