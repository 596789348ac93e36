// The reference for bench/run-app-start.sh: the smallest Qt Quick Controls program that shows one window,
// with the same style as kavely, printing "first frame" when its first frame is on screen.
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickStyle>
#include <QQuickWindow>

#include <cstdio>

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QQuickStyle::setStyle(QStringLiteral("Basic"));
    QQmlApplicationEngine engine;
    engine.loadData(R"(import QtQuick
import QtQuick.Controls
ApplicationWindow { title: "Minimal"; width: 1100; height: 720; visible: true
    Label { anchors.centerIn: parent; text: "Hello" } })");
    for (auto* object : engine.rootObjects()) {
        if (auto* window = qobject_cast<QQuickWindow*>(object)) {
            QObject::connect(window, &QQuickWindow::frameSwapped, window, [] {
                static bool reported = false;
                if (!reported) {
                    reported = true;
                    std::printf("first frame\n");
                    std::fflush(stdout);
                }
            });
        }
    }
    return app.exec();
}
