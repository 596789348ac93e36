#pragma once

#include <QString>
#include <QVariantMap>
#include <QVector>

namespace kavelo {

// One state of one screen: the section the window shows and the model's fields in that state.
struct GalleryScene {
    QString name;
    QString section; // "home" or "settings"
    QVariantMap fields;
};

// Every screen of the main window in each state it has, built on one signed-in baseline of the demo
// account so each scene differs from the others only where it means to.
class GalleryScenes {
  public:
    static QVariantMap baseline();
    static QVector<GalleryScene> all();
};

} // namespace kavelo
