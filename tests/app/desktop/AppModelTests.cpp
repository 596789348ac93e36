#include "app/desktop/AppModel.h"
#include "app/desktop/CopyObject.h"
#include "app/desktop/DesktopShell.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QGuiApplication>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace kavelo {
namespace {

// The desktop program's model on the mock world: the demo account signs itself in, the devices arrive, and
// the dashboard's controls drive a real coordinator through a recording.
class AppModelTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
        static int argc = 1;
        static char name[] = "test_app_desktop";
        static char* argv[] = {name, nullptr};
        static QGuiApplication app(argc, argv);
    }
    void SetUp() override {
        char pattern[] = "/tmp/kavely-model-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        home_ = pattern;
        AppEnvironment::Options options;
        options.env = [home = home_](const std::string& name) -> std::optional<std::string> {
            if (name == "KAVELO_BACKEND" || name == "KAVELO_RECORDER") {
                return "mock";
            }
            if (name == "HOME" || name == "XDG_DATA_HOME") {
                return home.string();
            }
            return std::nullopt;
        };
        options.sessionStorage = AppEnvironment::SessionStorage::memory;
        options.preferencesFile = home_ / "preferences.json";
        options.logSink = [](LogLevel, const std::string&, const std::string&) {};
        shell_ = std::make_unique<DesktopShell>(AppEnvironment::Mode::mock, std::move(options));
    }
    void TearDown() override {
        shell_.reset();
        std::filesystem::remove_all(home_);
    }
    // Runs the event loop until `done` holds; false after a generous bound.
    template <class F> bool eventually(F done) {
        QElapsedTimer timer;
        timer.start();
        while (!done()) {
            if (timer.elapsed() > 20000) {
                return false;
            }
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        }
        return true;
    }

    std::filesystem::path home_;
    std::unique_ptr<DesktopShell> shell_;
};

TEST_F(AppModelTest, TheDemoAccountRecordsToSuccessAndASignOutForgetsTheAccount) {
    auto& model = shell_->model();
    ASSERT_TRUE(eventually([&] { return model.canStartFromUI() && !model.microphones().isEmpty(); }))
        << "phase " << model.phase().toStdString();
    EXPECT_EQ(model.profile().value("email").toString().toStdString(), shell_->environment().demoEmail);
    EXPECT_FALSE(model.selectedMicrophoneId().isEmpty());
    // A first sign-in on this computer: no questionnaire for the demo account, the first coach mark waits.
    ASSERT_TRUE(eventually([&] { return model.educationFirstRecordingPending(); }));
    EXPECT_EQ(model.onboardingStep(), QStringLiteral("welcome"));
    EXPECT_FALSE(model.hasRecordedBefore());
    // The mock world's update host and tips answer after the sign-in.
    ASSERT_TRUE(eventually([&] { return !model.tips().isEmpty(); }));
    ASSERT_TRUE(
        eventually([&] { return model.updateStatus().value("state") == QStringLiteral("upToDate"); }));
    model.setTipsEnabled(false);
    EXPECT_TRUE(model.tips().isEmpty());
    model.setTipsEnabled(true);
    EXPECT_FALSE(model.tips().isEmpty()) << "the cached tips come back at once";
    // The program reads its texts from the tables it carries, in the chosen language.
    auto& copy = shell_->copy();
    copy.setLanguage(QStringLiteral("en"));
    EXPECT_EQ(copy.text(QStringLiteral("desktop.notify_action_open")), QStringLiteral("Open Kavely"));
    copy.setLanguage(QStringLiteral("nl"));
    EXPECT_EQ(copy.text(QStringLiteral("desktop.notify_action_open")), QStringLiteral("Kavely openen"));

    // A meeting noticed while idle is offered once, in the user's language; during a recording it is not.
    QStringList offers;
    QObject::connect(&model, &AppModel::meetingPromptWanted,
                     [&](const QString& title, const QString&, const QString&, const QString&,
                         const QString&) { offers << title; });
    model.onMeetingDetected(QStringLiteral("Gesprekken"));
    ASSERT_EQ(offers.size(), 1);
    EXPECT_TRUE(offers.front().contains(QStringLiteral("Gesprekken"))) << offers.front().toStdString();
    EXPECT_EQ(model.detectedMeetingApp(), QStringLiteral("Gesprekken"));
    model.dismissDetectedMeeting();
    EXPECT_TRUE(model.detectedMeetingApp().isEmpty());

    model.setMeetingName(QStringLiteral("Weekstart"));
    model.startRecording();
    ASSERT_TRUE(eventually([&] { return model.phase() == QStringLiteral("recording"); }))
        << "phase " << model.phase().toStdString() << ", blocker " << model.startBlocker().toStdString();
    EXPECT_TRUE(model.menuBarShowsRecording());
    EXPECT_FALSE(model.canStartFromUI());
    EXPECT_TRUE(model.indicatorVisible());
    EXPECT_FALSE(model.indicatorCollapsed());
    model.onMeetingDetected(QStringLiteral("Gesprekken"));
    EXPECT_EQ(offers.size(), 1);
    ASSERT_TRUE(eventually([&] { return model.elapsedSeconds() >= 1; }));

    model.pauseRecording();
    ASSERT_TRUE(eventually([&] { return model.phase() == QStringLiteral("paused_user"); }));
    model.resumeRecording();
    ASSERT_TRUE(eventually([&] { return model.phase() == QStringLiteral("recording"); }));
    model.stopRecording();
    ASSERT_TRUE(eventually([&] {
        return !model.menuBarShowsRecording() && model.phase() != "stopping_native_recorder";
    })) << "phase "
        << model.phase().toStdString();
    EXPECT_FALSE(model.indicatorVisible());
    auto& coordinator = *shell_->environment().coordinator;
    ASSERT_TRUE(eventually([&] { return model.phase() == QStringLiteral("speaker_review"); }));
    const int revision = model.speakerRevision();
    coordinator.confirmSpeakers();
    ASSERT_TRUE(eventually([&] { return model.phase() == QStringLiteral("share_review"); }));
    EXPECT_GT(model.speakerRevision(), revision);
    coordinator.submitShare(true);
    ASSERT_TRUE(eventually([&] { return model.phase() == QStringLiteral("success"); }));
    EXPECT_EQ(model.successSummary().value("meetingName").toString(), QStringLiteral("Weekstart"));
    EXPECT_EQ(model.successRecordingId().toStdString(), coordinator.currentRecordingId().value_or("?"));
    EXPECT_TRUE(model.hasRecordedBefore());
    // The submitted recording is on the dashboard, and the poll follows it.
    ASSERT_EQ(model.dashboardActivity().size(), 1);
    const auto item = model.dashboardActivity().front().toMap();
    EXPECT_EQ(item.value("recordingId").toString(), model.successRecordingId());
    EXPECT_EQ(item.value("meetingName").toString(), QStringLiteral("Weekstart"));
    EXPECT_TRUE(eventually([&] {
        return model.dashboardActivity().front().toMap().value("phase") == QStringLiteral("transcribing");
    }));

    // Signing out forgets what belonged to the account, and the next account starts clean.
    model.signOut();
    ASSERT_TRUE(eventually([&] { return !model.isSignedIn(); }));
    EXPECT_TRUE(model.profile().isEmpty());
    EXPECT_TRUE(model.successRecordingId().isEmpty());
    EXPECT_TRUE(model.meetingName().isEmpty());
    EXPECT_TRUE(model.dashboardActivity().isEmpty());
    EXPECT_TRUE(model.tips().isEmpty());
    QString refused;
    QObject::connect(&model, &AppModel::signInFailed, [&](const QString& kind) { refused = kind; });
    model.signInWithPassword(QString::fromStdString(shell_->environment().demoEmail), QStringLiteral("fout"));
    ASSERT_TRUE(eventually([&] { return !refused.isEmpty(); }));
    EXPECT_EQ(refused, QStringLiteral("invalidCredentials"));
    model.signInWithPassword(QString::fromStdString(shell_->environment().demoEmail),
                             QString::fromStdString(shell_->environment().demoPassword));
    ASSERT_TRUE(eventually([&] { return model.isSignedIn() && model.phase() == QStringLiteral("idle"); }));
}

} // namespace
} // namespace kavelo
