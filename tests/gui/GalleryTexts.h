#pragma once

#include <QHash>
#include <QString>

#include <string>
#include <string_view>

namespace kavelo {

// The language tables exactly as the program ships them (the JSON resources under :/copy/), flattened to
// "namespace.key". The gallery reads them itself so that what it checks is the texts, whatever the program
// does around them. A missing text reads as its key, so the raw-key check sees it; unlike the program it
// does not fall back to Dutch, so an English text that was forgotten shows up too.
class GalleryTexts {
  public:
    GalleryTexts();

    void setLanguage(const std::string& code) { language_ = QString::fromStdString(code); }
    std::string language() const { return language_.toStdString(); }
    std::string text(std::string_view key) const;
    int size(const QString& language) const;

  private:
    QHash<QString, QHash<QString, QString>> tables_;
    QString language_ = QStringLiteral("nl");
};

} // namespace kavelo
