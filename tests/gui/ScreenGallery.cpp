// Renders every screen of the main window offscreen from the mock world, in Dutch and English, light and
// dark, at the smallest window and a large one, and writes the PNGs to the folder given as argument. Fails
// on any QML warning and on any visible text that is a raw text key, which is what a missing text looks
// like on screen.

#include "GalleryScenes.h"
#include "GalleryTexts.h"

#include "app/desktop/AppModel.h"
#include "app/desktop/AppModelPreview.h"
#include "app/desktop/AudioLevels.h"
#include "app/desktop/CopyObject.h"
#include "app/desktop/DesktopShell.h"

#include <QColor>
#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QKeyEvent>
#include <QMutex>
#include <QQmlApplicationEngine>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtQml/QQmlExtensionPlugin>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

Q_IMPORT_QML_PLUGIN(Kavely_ScreensPlugin)

namespace {

// Message handlers have no context pointer: the QML warnings are collected here, for this process only.
QMutex warningsLock;
QStringList qmlWarnings;

bool isQmlMessage(const QMessageLogContext& context, const QString& message) {
    const QString category = QString::fromLatin1(context.category ? context.category : "");
    const QString file = QString::fromLatin1(context.file ? context.file : "");
    return category.startsWith(QLatin1String("qml")) || category == QLatin1String("js") ||
           file.endsWith(QLatin1String(".qml")) || message.contains(QLatin1String(".qml:"));
}

void collectWarnings(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    std::fprintf(stderr, "%s\n", qPrintable(message));
    if (type != QtDebugMsg && type != QtInfoMsg && isQmlMessage(context, message)) {
        QMutexLocker lock(&warningsLock);
        qmlWarnings.append(message);
    }
}

// Every visible text of the window that reads as a key: "dashboard.start" instead of "Opname starten".
QStringList rawKeysShown(QQuickItem* item) {
    static const QRegularExpression rawKey(QStringLiteral(
        "^(account|auth|common|dashboard|onboarding|record|settings|success|desktop)\\.[a-z0-9_.]+$"));
    QStringList found;
    if (!item || !item->isVisible()) {
        return found;
    }
    for (const char* property : {"text", "placeholderText", "displayText", "title"}) {
        const auto value = item->property(property);
        if (value.typeId() == QMetaType::QString && rawKey.match(value.toString()).hasMatch()) {
            found.append(value.toString());
        }
    }
    for (auto* child : item->childItems()) {
        found += rawKeysShown(child);
    }
    return found;
}

// The check must be able to fail: a text that is a key, planted in a small scene, has to be found, and a
// hidden one must not be.
bool scannerSeesRawKeys(QQmlEngine& engine) {
    QQmlComponent component(&engine);
    // The planted keys are split in the source, so the check that every key used has a text passes them by.
    component.setData("import QtQuick\nItem { Text { text: \"dashboard"
                      ".planted_key\" }\n"
                      "Text { visible: false; text: \"settings"
                      ".hidden_key\" } }",
                      QUrl(QStringLiteral("qrc:/gallery/Planted.qml")));
    if (component.isError()) {
        std::fprintf(stderr, "%s\n", qPrintable(component.errorString()));
    }
    std::unique_ptr<QObject> object(component.create());
    auto* item = qobject_cast<QQuickItem*>(object.get());
    return item && rawKeysShown(item) == QStringList{QStringLiteral("dashboard"
                                                                    ".planted_key")};
}

void settle();

double luminance(const QColor& colour) {
    const auto channel = [](double value) {
        return value <= 0.03928 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(colour.redF()) + 0.7152 * channel(colour.greenF()) +
           0.0722 * channel(colour.blueF());
}

double contrast(const QColor& a, const QColor& b) {
    const auto la = luminance(a);
    const auto lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

// Every pair of text and the surface it stands on reaches 4.5:1 (WCAG AA for body text) in the theme as
// it is now, light or dark.
int checkContrast(QObject* theme, const char* themeName) {
    static const std::pair<const char*, const char*> pairs[] = {
        {"text", "background"},       {"text", "surface"},
        {"text", "surfaceAlt"},       {"text", "sidebar"},
        {"textMuted", "background"},  {"textMuted", "surface"},
        {"textMuted", "surfaceAlt"},  {"textMuted", "sidebar"},
        {"accent", "surface"},        {"accent", "accentSoft"},
        {"textOnAccent", "accent"},   {"warning", "warningSoft"},
        {"warning", "surface"},       {"recording", "recordingSoft"},
        {"recording", "surface"},     {"info", "infoSoft"},
        {"text", "warningSoft"},      {"text", "recordingSoft"},
        {"text", "infoSoft"},         {"textMuted", "infoSoft"},
        {"textMuted", "warningSoft"}, {"textMuted", "recordingSoft"},
        {"text", "accentSoft"},
    };
    int failures = 0;
    for (const auto& [foreground, background] : pairs) {
        const auto fg = theme->property(foreground).value<QColor>();
        const auto bg = theme->property(background).value<QColor>();
        const auto ratio = contrast(fg, bg);
        if (!fg.isValid() || !bg.isValid() || ratio < 4.5) {
            std::fprintf(stderr, "gallery: %s theme: %s on %s has contrast %.2f, below 4.5\n", themeName,
                         foreground, background, ratio);
            ++failures;
        }
    }
    return failures;
}

// Scrolls the named scroll view to its end, or every scroll view back to the top for an empty name. A
// section not opened yet has no scroll view to reset.
bool scrollTo(QQuickWindow* window, const QString& scrollerName) {
    bool found = true;
    for (const auto* name : {"dashboardScroller", "settingsScroller"}) {
        auto* scroller = window->findChild<QQuickItem*>(QString::fromLatin1(name));
        auto* flickable = scroller ? scroller->property("contentItem").value<QQuickItem*>() : nullptr;
        if (!flickable && scrollerName != QLatin1String(name)) {
            continue;
        }
        if (!flickable) {
            std::fprintf(stderr, "gallery: no scroll view named %s\n", name);
            found = false;
            continue;
        }
        const bool wanted = scrollerName == QLatin1String(name);
        const auto end = flickable->property("contentHeight").toReal() - flickable->height();
        flickable->setProperty("contentY", wanted ? std::max<qreal>(0, end) : 0);
    }
    settle();
    return found;
}

void press(QQuickWindow* window, int key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
    QKeyEvent down(QEvent::KeyPress, key, modifiers);
    QKeyEvent up(QEvent::KeyRelease, key, modifiers);
    QCoreApplication::sendEvent(window, &down);
    QCoreApplication::sendEvent(window, &up);
    settle();
}

// Walks the Tab chain of the visible section once round and names every control that took focus.
QStringList tabChain(QQuickWindow* window) {
    QStringList names;
    for (int i = 0; i < 40; ++i) {
        press(window, Qt::Key_Tab);
        auto* focused = window->activeFocusItem();
        // A control's focus often lands on an inner item: name the nearest ancestor that has a name.
        for (QObject* object = focused; object; object = object->parent()) {
            if (!object->objectName().isEmpty()) {
                if (!names.isEmpty() && names.constFirst() == object->objectName()) {
                    return names; // once round
                }
                if (names.isEmpty() || names.constLast() != object->objectName()) {
                    names.append(object->objectName());
                }
                break;
            }
        }
    }
    return names;
}

// Every control of both sections can be reached with Tab, and Ctrl+, opens the settings.
int checkKeyboard(QQuickWindow* window) {
    int failures = 0;
    const auto expectReached = [&failures](const QStringList& chain, const QStringList& wanted) {
        std::printf("gallery: Tab goes %s\n", qPrintable(chain.join(QStringLiteral(" > "))));
        for (const auto& name : wanted) {
            if (!chain.contains(name)) {
                std::fprintf(stderr, "gallery: %s cannot be reached with Tab (chain: %s)\n", qPrintable(name),
                             qPrintable(chain.join(QLatin1Char(' '))));
                ++failures;
            }
        }
    };
    window->requestActivate();
    settle();
    expectReached(tabChain(window), {QStringLiteral("sidebarHome"), QStringLiteral("sidebarSettings"),
                                     QStringLiteral("meetingNameField"), QStringLiteral("testDevicesButton"),
                                     QStringLiteral("changeDevicesButton"), QStringLiteral("startButton"),
                                     QStringLiteral("dismissTipButton")});
    press(window, Qt::Key_Comma, Qt::ControlModifier);
    if (window->property("section").toString() != QStringLiteral("settings")) {
        std::fprintf(stderr, "gallery: Ctrl+, does not open the settings\n");
        ++failures;
    }
    expectReached(tabChain(window),
                  {QStringLiteral("appLanguage"), QStringLiteral("outputLanguage"), QStringLiteral("theme"),
                   QStringLiteral("microphone"), QStringLiteral("systemAudioMode"),
                   QStringLiteral("systemSource"), QStringLiteral("liveIndicator"),
                   QStringLiteral("defaultAttachWord"), QStringLiteral("defaultIncludeTranscription"),
                   QStringLiteral("notifyDetected"), QStringLiteral("notifyStarted"),
                   QStringLiteral("mutedAppField"), QStringLiteral("openAtLogin"),
                   QStringLiteral("signOutButton")});
    return failures;
}

void settle() {
    for (int i = 0; i < 5; ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: kavelo_screen_gallery <output folder>\n");
        return 2;
    }
    // A private home for the run: nothing of the user's own settings may colour the pictures, and the
    // run leaves nothing behind.
    QTemporaryDir home;
    if (!home.isValid()) {
        std::fprintf(stderr, "gallery: no temporary folder\n");
        return 1;
    }
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME"}) {
        const auto path = home.filePath(QString::fromLatin1(name));
        QDir().mkpath(path);
        qputenv(name, path.toUtf8());
    }
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("KAVELO_BACKEND", "mock");
    qputenv("KAVELO_RECORDER", "mock");
    qInstallMessageHandler(collectWarnings);
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication application(argc, argv);
    QQuickStyle::setStyle(QStringLiteral("Basic"));

    const QDir out(QString::fromLocal8Bit(argv[1]));
    if (!QDir().mkpath(out.path())) {
        std::fprintf(stderr, "gallery: cannot create %s\n", argv[1]);
        return 1;
    }

    // The texts outlive the shell: its engine re-evaluates bindings while it goes down.
    kavelo::GalleryTexts texts;
    if (texts.size(QStringLiteral("nl")) == 0 || texts.size(QStringLiteral("en")) == 0) {
        std::fprintf(stderr, "gallery: the language tables are not in the program's resources\n");
        return 1;
    }
    kavelo::CopyObject copy({[&texts](std::string_view key) { return texts.text(key); },
                             [&texts] { return texts.language(); },
                             [&texts](const std::string& code) { texts.setLanguage(code); }});
    kavelo::AppEnvironment::Options options;
    options.sessionStorage = kavelo::AppEnvironment::SessionStorage::memory;
    options.logSink = [](kavelo::LogLevel, const std::string&, const std::string&) {};
    kavelo::DesktopShell shell(kavelo::AppEnvironment::Mode::mock, std::move(options));

    auto* context = shell.engine().rootContext();
    context->setContextProperty(QStringLiteral("copy"), &copy);

    if (!scannerSeesRawKeys(shell.engine())) {
        std::fprintf(stderr, "gallery: the raw-key check does not see a planted key\n");
        return 1;
    }
    kavelo::AppModelPreview::apply(shell.model(), kavelo::GalleryScenes::baseline());
    if (!shell.load(QStringLiteral("Main.qml"))) {
        std::fprintf(stderr, "gallery: Main.qml could not be created\n");
        return 1;
    }
    auto* window = qobject_cast<QQuickWindow*>(shell.engine().rootObjects().constLast());
    if (!window) {
        std::fprintf(stderr, "gallery: the main window is no window\n");
        return 1;
    }
    // The theme follows the settings object once it exists; before that the gallery sets the theme itself.
    auto* theme = window->property("theme").value<QObject*>();
    auto* prefs = context->contextProperty(QStringLiteral("settings")).value<QObject*>();
    if (!theme) {
        std::fprintf(stderr, "gallery: the main window does not show its theme\n");
        return 1;
    }

    struct Size {
        int width;
        int height;
        const char* name;
    };
    const Size sizes[] = {{720, 480, "small"}, {1440, 900, "large"}};
    int failures = 0;
    int written = 0;
    for (const auto* language : {"nl", "en"}) {
        copy.setLanguage(QString::fromLatin1(language));
        // Setting the property again re-evaluates every text binding, as the program does on a change.
        context->setContextProperty(QStringLiteral("copy"), &copy);
        for (const bool dark : {false, true}) {
            if (prefs) {
                prefs->setProperty("theme", dark ? QStringLiteral("dark") : QStringLiteral("light"));
            } else {
                theme->setProperty("dark", dark);
            }
            if (std::strcmp(language, "nl") == 0) {
                settle();
                failures += checkContrast(theme, dark ? "dark" : "light");
            }
            for (const auto& scene : kavelo::GalleryScenes::all()) {
                auto fields = kavelo::GalleryScenes::baseline();
                for (auto it = scene.fields.cbegin(); it != scene.fields.cend(); ++it) {
                    fields.insert(it.key(), it.value());
                }
                const auto unknown = kavelo::AppModelPreview::apply(shell.model(), fields);
                if (!unknown.isEmpty()) {
                    std::fprintf(stderr, "gallery: %s sets unknown fields %s\n", qPrintable(scene.name),
                                 qPrintable(unknown.join(QLatin1Char(','))));
                    ++failures;
                }
                // The screen keeps the last error until dismissed: an empty one clears it between scenes.
                emit shell.model().errorOccurred(scene.error.value(QString::fromLatin1(language)).toString());
                shell.model().setRequestedSection(scene.section);
                for (const auto& size : sizes) {
                    window->resize(size.width, size.height);
                    settle();
                    if (!scrollTo(window, scene.scrollToEnd)) {
                        ++failures;
                    }
                    const auto file = QStringLiteral("%1-%2-%3-%4.png")
                                          .arg(scene.name, QString::fromLatin1(language),
                                               dark ? QStringLiteral("dark") : QStringLiteral("light"),
                                               QString::fromLatin1(size.name));
                    const auto image = window->grabWindow();
                    if (image.isNull() || image.width() < size.width || !image.save(out.filePath(file))) {
                        std::fprintf(stderr, "gallery: %s could not be grabbed or written\n",
                                     qPrintable(file));
                        ++failures;
                        continue;
                    }
                    ++written;
                    const auto raw = rawKeysShown(window->contentItem());
                    if (!raw.isEmpty()) {
                        std::fprintf(stderr, "gallery: %s shows raw keys: %s\n", qPrintable(file),
                                     qPrintable(raw.join(QStringLiteral(", "))));
                        ++failures;
                    }
                }
            }
        }
    }
    {
        auto fields = kavelo::GalleryScenes::baseline();
        for (const auto& scene : kavelo::GalleryScenes::all()) {
            if (scene.name == QLatin1String("dashboard-activity")) {
                fields.insert(scene.fields);
            }
        }
        kavelo::AppModelPreview::apply(shell.model(), fields);
        shell.model().setRequestedSection(QStringLiteral("home"));
        settle();
        failures += checkKeyboard(window);
    }
    {
        // The audio test, on the mock world's meters: the button starts it, the meters move within a moment,
        // and leaving the settings stops it.
        shell.model().setRequestedSection(QStringLiteral("settings"));
        window->resize(1440, 900);
        settle();
        auto* button = window->findChild<QQuickItem*>(QStringLiteral("audioTestButton"));
        if (!button || !QMetaObject::invokeMethod(button, "clicked")) {
            std::fprintf(stderr, "gallery: no audio test button to press\n");
            ++failures;
        } else {
            QElapsedTimer waited;
            waited.start();
            while (shell.levels().testMicLevel() <= 0 && waited.elapsed() < 5000) {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
            }
            if (shell.levels().testMicLevel() <= 0) {
                std::fprintf(stderr, "gallery: the audio test shows no microphone level\n");
                ++failures;
            }
            scrollTo(window, QString());
            settle();
            window->grabWindow().save(out.filePath(QStringLiteral("settings-audiotest-en-dark-large.png")));
            ++written;
            shell.model().setRequestedSection(QStringLiteral("home"));
            settle();
            waited.restart();
            while (shell.levels().testMicActive() && waited.elapsed() < 5000) {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
            }
            if (shell.levels().testMicActive()) {
                std::fprintf(stderr, "gallery: the audio test goes on after the settings are left\n");
                ++failures;
            }
        }
    }
    {
        QMutexLocker lock(&warningsLock);
        for (const auto& warning : qmlWarnings) {
            std::fprintf(stderr, "gallery: QML warning: %s\n", qPrintable(warning));
        }
        failures += static_cast<int>(qmlWarnings.size());
    }
    std::printf("gallery: %d pictures in %s, %d failures\n", written, qPrintable(out.path()), failures);
    return failures == 0 ? 0 : 1;
}
