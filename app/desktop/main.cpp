#include "app/desktop/AppModel.h"
#include "app/desktop/AutomationService.h"
#include "app/desktop/DesktopNotifications.h"
#include "app/desktop/DesktopShell.h"
#include "app/desktop/SingleInstance.h"
#include "app/shell/EnvironmentSettings.h"
#include "app/shell/KavelyUrlRoute.h"

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QtQml/QQmlExtensionPlugin>

#include <cstdio>

Q_IMPORT_QML_PLUGIN(Kavely_ScreensPlugin)

namespace {

constexpr int exitUsage = 2;

const char* const usage = R"(Usage: kavely [--mock] [--show] [kavely://ADDRESS ...]

Kavely records a meeting (your microphone and the computer's sound), sends it to the
backend while it runs, and asks for the written report when you stop.

Options:
  --mock       run against the built-in practice world: the demo account is signed in,
               nothing leaves this computer (data in ~/.local/share/Kavely/Mock)
  --show       bring the window of the running Kavely to the front
  --version    print the version and exit
  --help       print this help and exit

Addresses:
  kavely://open/home, kavely://open/settings   open that part of the window

Only one Kavely runs per user and mode: a second start hands its addresses and --show
to the running one and exits. Without --mock the backend comes from the build or from
the JSON file named by KAVELO_INFO_FILE; a program without one says so and exits 1.
A D-Bus interface (nl.kavely.Kavely on the session bus) starts, stops, pauses and
resumes recordings; see the README.
)";

struct Arguments {
    bool mock = false;
    bool show = false;
    QStringList urls;
};

void raise(QQmlApplicationEngine& engine) {
    for (auto* object : engine.rootObjects()) {
        if (auto* window = qobject_cast<QQuickWindow*>(object)) {
            window->show();
            window->raise();
            window->requestActivate();
        }
    }
}

void route(kavelo::AppModel& model, QQmlApplicationEngine& engine, const QStringList& arguments) {
    for (const auto& argument : arguments) {
        if (argument == QStringLiteral("--show")) {
            raise(engine);
        } else if (const auto target = kavelo::KavelyUrlRoute::parse(argument.toStdString())) {
            // Said in the log so that whoever sent the address can see where it went.
            std::fprintf(stderr, "kavely: %s opens the %s section\n", qPrintable(argument),
                         target->section.c_str());
            model.setRequestedSection(QString::fromStdString(target->section));
            raise(engine);
        } else if (!argument.isEmpty()) {
            std::fprintf(stderr, "kavely: ignored an address it does not know: %s\n",
                         qPrintable(argument.left(200)));
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    Arguments args;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        if (argument == QStringLiteral("--help") || argument == QStringLiteral("-h")) {
            std::fputs(usage, stdout);
            return 0;
        }
        if (argument == QStringLiteral("--version")) {
            std::printf("kavely %s\n", KAVELO_VERSION);
            return 0;
        }
        if (argument == QStringLiteral("--mock")) {
            args.mock = true;
        } else if (argument == QStringLiteral("--show")) {
            args.show = true;
        } else if (argument.startsWith(QStringLiteral("kavely:"), Qt::CaseInsensitive)) {
            args.urls << argument;
        } else {
            std::fprintf(stderr, "kavely: unknown option or argument: %s\n\n%s", argv[i], usage);
            return exitUsage;
        }
    }

    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("Kavely"));
    QGuiApplication::setOrganizationName(QStringLiteral("Kavely"));
    QGuiApplication::setApplicationVersion(QStringLiteral(KAVELO_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral("nl.kavely.Kavely"));
    // One style everywhere, drawn by our theme, so the program looks the same on every desktop.
    QQuickStyle::setStyle(QStringLiteral("Basic"));

    kavelo::AppEnvironment::Options options;
    if (args.mock) {
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
        QStringList handed = args.urls;
        if (args.show) {
            handed.prepend(QStringLiteral("--show"));
        }
        kavelo::SingleInstance instance(kavelo::SingleInstance::defaultDirectory(),
                                        QString::fromUtf8(kavelo::toRaw(mode).data()));
        switch (instance.handOver(handed)) {
        case kavelo::SingleInstance::Outcome::handedOver:
            return 0;
        case kavelo::SingleInstance::Outcome::unanswered:
            std::fprintf(stderr, "kavely: a Kavely is already running in this mode but did not answer; "
                                 "close it or end its process, then start again\n");
            return 1;
        case kavelo::SingleInstance::Outcome::first:
        case kavelo::SingleInstance::Outcome::alone:
            break;
        }
        options.preferencesFile = kavelo::EnvironmentSettings::preferencesFile(mode, options.env);
        kavelo::DesktopShell shell(mode, std::move(options));
        if (!shell.load(QStringLiteral("Main.qml"))) {
            std::fprintf(stderr, "kavely: the main window could not be created\n");
            return 1;
        }
        auto& model = shell.model();
        auto& engine = shell.engine();
        QObject::connect(&instance, &kavelo::SingleInstance::argumentsReceived, &shell,
                         [&model, &engine](const QStringList& received) {
                             route(model, engine,
                                   received.isEmpty() ? QStringList{QStringLiteral("--show")} : received);
                         });
        kavelo::AutomationService automation(model);
        QObject::connect(&automation, &kavelo::AutomationService::showRequested, &shell,
                         [&engine] { raise(engine); });
        automation.registerOnSessionBus();
        kavelo::DesktopNotifications notifications;
        QObject::connect(&model, &kavelo::AppModel::notificationWanted, &notifications,
                         &kavelo::DesktopNotifications::post);
        QObject::connect(&model, &kavelo::AppModel::meetingPromptWanted, &notifications,
                         &kavelo::DesktopNotifications::postMeetingPrompt);
        QObject::connect(&notifications, &kavelo::DesktopNotifications::meetingAnswered, &model,
                         [&model](const QString& answer) {
                             if (answer == QStringLiteral("record")) {
                                 model.recordDetectedMeeting();
                             } else if (answer == QStringLiteral("mute")) {
                                 model.muteDetectedMeeting();
                             } else {
                                 model.dismissDetectedMeeting();
                             }
                         });
        QObject::connect(&notifications, &kavelo::DesktopNotifications::openRequested, &shell,
                         [&engine] { raise(engine); });
        if (qEnvironmentVariableIntValue("KAVELO_REPORT_FIRST_FRAME") == 1) {
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
        }
        route(model, engine, args.urls);
        return app.exec();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kavely: %s\n", error.what());
        return 1;
    }
}
