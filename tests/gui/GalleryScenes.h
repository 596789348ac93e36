#pragma once

#include <QString>
#include <QVariantMap>
#include <QVector>

#include <utility>

namespace kavelo {

// One state of one screen: the section the window shows and the model's fields in that state.
struct GalleryScene {
    GalleryScene(QString sceneName, QString sceneSection, QVariantMap sceneFields, QString scroller = {})
        : name(std::move(sceneName)), section(std::move(sceneSection)), fields(std::move(sceneFields)),
          scrollToEnd(std::move(scroller)) {}

    QString name;
    QString section; // "home" or "settings"
    QVariantMap fields;
    // The object name of a scroll view to show scrolled to its end, for what lies below the fold.
    QString scrollToEnd;
    // An error the model reports in this scene, by language ("nl", "en"); none when empty.
    QVariantMap error;
};

// Every screen of the main window in each state it has, built on one signed-in baseline of the demo
// account so each scene differs from the others only where it means to.
class GalleryScenes {
  public:
    static QVariantMap baseline();
    static QVector<GalleryScene> all();
};

} // namespace kavelo
