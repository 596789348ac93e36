#include "app/desktop/DesktopShell.h"
#include "app/shell/EnvironmentSettings.h"

#include <QGuiApplication>
#include <QQuickStyle>
#include <QtQml/QQmlExtensionPlugin>

#include <cstdio>

Q_IMPORT_QML_PLUGIN(Kavely_ScreensPlugin)

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("Kavely"));
    QGuiApplication::setOrganizationName(QStringLiteral("Kavely"));
    QGuiApplication::setDesktopFileName(QStringLiteral("nl.kavely.Kavely"));
    // One style everywhere, drawn by our theme, so the program looks the same on every desktop.
    QQuickStyle::setStyle(QStringLiteral("Basic"));

    const bool mock = app.arguments().contains(QStringLiteral("--mock"));
    kavelo::AppEnvironment::Options options;
    if (mock) {
        options.env = [](const std::string& name) -> std::optional<std::string> {
            if (name == "KAVELO_BACKEND" || name == "KAVELO_RECORDER") {
                return std::string("mock");
            }
            return kavelo::processEnvironment()(name);
        };
        // The demo account signs itself in again at every start; nothing of it belongs in the keyring.
        options.sessionStorage = kavelo::AppEnvironment::SessionStorage::memory;
    }
    try {
        const auto mode = kavelo::AppEnvironment::detectMode(options);
        options.preferencesFile = kavelo::EnvironmentSettings::preferencesFile(mode, options.env);
        kavelo::DesktopShell shell(mode, std::move(options));
        if (!shell.load(QStringLiteral("Main.qml"))) {
            std::fprintf(stderr, "kavely: the main window could not be created\n");
            return 1;
        }
        return app.exec();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kavely: %s\n", error.what());
        return 1;
    }
}
