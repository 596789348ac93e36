#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <string>
#include <string_view>

namespace kavelo {

// The language tables as QML sees them: `copy.text(key)`. The tables answer from any thread; this object
// lives on the main thread and tells the screens when the language changes, so every binding that reads a
// text is evaluated again.
class CopyObject : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString language READ language WRITE setLanguage NOTIFY languageChanged)

  public:
    struct Source {
        std::function<std::string(std::string_view key)> text;
        std::function<std::string()> language;
        std::function<void(const std::string& code)> setLanguage;
    };

    explicit CopyObject(Source source, QObject* parent = nullptr);

    QString language() const;
    void setLanguage(const QString& code);

    Q_INVOKABLE QString text(const QString& key) const;
    // Replaces every "{{name}}" by its value; a placeholder without a value stays as it stands.
    Q_INVOKABLE QString format(const QString& key, const QVariantMap& values) const;

  signals:
    void languageChanged();

  private:
    Source source_;
};

} // namespace kavelo
