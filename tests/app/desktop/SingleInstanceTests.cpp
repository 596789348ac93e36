#include "app/desktop/SingleInstance.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QLocalServer>
#include <QLocalSocket>
#include <QtEndian>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <future>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kavelo {
namespace {

// Two instances in one test process: the "second start" runs its blocking hand-over on a thread while the
// first one's event loop turns here, as it would in the running program.
class SingleInstanceTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (QCoreApplication::instance() == nullptr) {
            ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
            static int argc = 1;
            static char name[] = "test_app_desktop";
            static char* argv[] = {name, nullptr};
            static QGuiApplication app(argc, argv);
        }
    }
    void SetUp() override {
        char pattern[] = "/tmp/kavely-instance-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = QString::fromLocal8Bit(pattern);
    }
    void TearDown() override { std::filesystem::remove_all(dir_.toStdString()); }

    // Runs `second` on a thread and the event loop here until it returns; its result.
    template <class F> auto whileServing(F second) {
        auto result = std::async(std::launch::async, second);
        QElapsedTimer timer;
        timer.start();
        while (result.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready &&
               timer.elapsed() < 20000) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        return result.get();
    }

    QString dir_;
};

TEST_F(SingleInstanceTest, ASecondStartHandsItsArgumentsToTheFirstOfTheSameModeOnly) {
    SingleInstance first(dir_, QStringLiteral("mock"));
    ASSERT_EQ(first.handOver({}), SingleInstance::Outcome::first);
    QList<QStringList> received;
    QObject::connect(&first, &SingleInstance::argumentsReceived,
                     [&](const QStringList& arguments) { received << arguments; });

    const auto outcome = whileServing([this] {
        SingleInstance second(dir_, QStringLiteral("mock"));
        return second.handOver({QStringLiteral("--show"), QStringLiteral("kavely://open/settings"),
                                QStringLiteral("kavely://forged\nline")});
    });
    EXPECT_EQ(outcome, SingleInstance::Outcome::handedOver);
    ASSERT_EQ(received.size(), 1);
    // The argument with a line break in it never arrives as two.
    EXPECT_EQ(received[0], (QStringList{QStringLiteral("--show"), QStringLiteral("kavely://open/settings")}));

    // The live world is another program: it does not reach the practice one.
    SingleInstance live(dir_, QStringLiteral("live"));
    EXPECT_EQ(live.handOver({}), SingleInstance::Outcome::first);
    EXPECT_EQ(received.size(), 1);
}

TEST_F(SingleInstanceTest, ASocketLeftByACrashIsTakenOver) {
    const SingleInstance probe(dir_, QStringLiteral("mock"));
    // A bound socket whose process died: the file stays and nobody accepts on it.
    const auto path = probe.socketPath().toLocal8Bit();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(static_cast<std::size_t>(path.size()), sizeof(address.sun_path));
    std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
    const int dead = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(dead, 0);
    ASSERT_EQ(::bind(dead, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ::close(dead);
    ASSERT_TRUE(QFile::exists(probe.socketPath()));

    SingleInstance first(dir_, QStringLiteral("mock"));
    EXPECT_EQ(first.handOver({}), SingleInstance::Outcome::first);
    QStringList received;
    QObject::connect(&first, &SingleInstance::argumentsReceived,
                     [&](const QStringList& arguments) { received = arguments; });
    const auto outcome = whileServing([this] {
        SingleInstance second(dir_, QStringLiteral("mock"));
        return second.handOver({QStringLiteral("--show")});
    });
    EXPECT_EQ(outcome, SingleInstance::Outcome::handedOver);
    EXPECT_EQ(received, QStringList{QStringLiteral("--show")});
}

TEST_F(SingleInstanceTest, AnOversizedOrSilentPeerIsDroppedWithoutDelivering) {
    SingleInstance first(dir_, QStringLiteral("mock"));
    first.setPeerTimeout(200);
    ASSERT_EQ(first.handOver({}), SingleInstance::Outcome::first);
    int delivered = 0;
    QObject::connect(&first, &SingleInstance::argumentsReceived, [&](const QStringList&) { ++delivered; });

    // A length beyond the bound: the first hangs up without answering and routes nothing.
    const auto answered = whileServing([path = first.socketPath()] {
        QLocalSocket peer;
        peer.connectToServer(path);
        if (!peer.waitForConnected(2000)) {
            return QByteArray("no connection");
        }
        QByteArray header(4, '\0');
        qToBigEndian<qint32>(SingleInstance::kMaxMessageBytes + 1, header.data());
        peer.write(header + QByteArray(100, 'x'));
        peer.waitForBytesWritten(2000);
        peer.waitForDisconnected(5000);
        return peer.readAll();
    });
    EXPECT_EQ(answered, QByteArray());
    EXPECT_EQ(delivered, 0);

    // A peer that connects and says nothing is hung up on rather than kept open.
    const bool droppedSilent = whileServing([path = first.socketPath()] {
        QLocalSocket peer;
        peer.connectToServer(path);
        return peer.waitForConnected(2000) && peer.waitForDisconnected(5000);
    });
    EXPECT_TRUE(droppedSilent);
    EXPECT_EQ(delivered, 0);

    // An instance that is there but never answers: the second start says so instead of claiming success.
    QLocalServer deaf;
    const SingleInstance probe(dir_, QStringLiteral("deaf"));
    ASSERT_TRUE(deaf.listen(probe.socketPath()));
    const auto outcome = whileServing([this] {
        SingleInstance second(dir_, QStringLiteral("deaf"));
        second.setPeerTimeout(200);
        return second.handOver({QStringLiteral("--show")});
    });
    EXPECT_EQ(outcome, SingleInstance::Outcome::unanswered);
}

} // namespace
} // namespace kavelo
