#include "app/shell/SecretServiceSessionStore.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace kavelo;
namespace fs = std::filesystem;

namespace {

bool onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        std::size_t end = dirs.find(':', start);
        std::string dir = dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!dir.empty() && ::access((dir + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return false;
}

// Runs a program with stdin and stdout on pipes; returns its pid, or -1.
pid_t spawn(const std::vector<std::string>& argv, int* stdinFd, int* stdoutFd) {
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    if ((stdinFd && ::pipe2(in, O_CLOEXEC) != 0) || (stdoutFd && ::pipe2(out, O_CLOEXEC) != 0)) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd) {
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    }
    if (stdoutFd) {
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    }
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    if (stdinFd) {
        ::close(in[0]);
        *stdinFd = in[1];
    }
    if (stdoutFd) {
        ::close(out[1]);
        *stdoutFd = out[0];
    }
    return pid;
}

int runToEnd(const std::vector<std::string>& argv, const std::string& input = "",
             std::string* output = nullptr) {
    int in = -1;
    int out = -1;
    pid_t pid = spawn(argv, &in, &out);
    if (pid < 0) {
        return -1;
    }
    if (!input.empty()) {
        (void)!::write(in, input.data(), input.size());
    }
    ::close(in);
    char buf[4096];
    ssize_t n;
    while ((n = ::read(out, buf, sizeof buf)) > 0) {
        if (output) {
            output->append(buf, static_cast<std::size_t>(n));
        }
    }
    ::close(out);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A private session bus with gnome-keyring's secret service, unlocked, in a temporary home. The test
// process talks to it through DBUS_SESSION_BUS_ADDRESS; everything goes when the suite ends.
class PrivateSecretService {
  public:
    static bool available() {
        return onPath("dbus-daemon") && onPath("gnome-keyring-daemon") && onPath("gdbus");
    }

    bool start() {
        char templ[] = "/tmp/kavelo-keyring-XXXXXX";
        if (!::mkdtemp(templ)) {
            return false;
        }
        dir_ = templ;
        fs::create_directories(dir_ / "data");
        for (const char* name : kVariables) {
            const char* value = std::getenv(name);
            saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
        }
        ::setenv("HOME", dir_.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (dir_ / "data").c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);

        int out = -1;
        busPid_ = spawn({"dbus-daemon", "--session", "--nofork", "--print-address=1",
                         "--address=unix:path=" + (dir_ / "bus").string()},
                        nullptr, &out);
        if (busPid_ < 0) {
            return false;
        }
        // The daemon prints its address once it listens: reading it is the rendezvous.
        std::string address;
        char c;
        while (::read(out, &c, 1) == 1 && c != '\n') {
            address += c;
        }
        ::close(out);
        if (address.empty()) {
            return false;
        }
        ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);

        int in = -1;
        keyringPid_ =
            spawn({"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"}, &in, nullptr);
        if (keyringPid_ < 0) {
            return false;
        }
        // The login keyring's password, then end of input: the daemon unlocks (creating it) with it.
        (void)!::write(in, "pw", 2);
        ::close(in);
        return runToEnd({"gdbus", "wait", "--session", "--timeout", "20", "org.freedesktop.secrets"}) == 0;
    }

    void stop() {
        SecretServiceSessionStore::disconnect();
        for (pid_t* pid : {&keyringPid_, &busPid_}) {
            if (*pid > 0) {
                ::kill(*pid, SIGTERM);
                ::waitpid(*pid, nullptr, 0);
                *pid = -1;
            }
        }
        for (const auto& [name, value] : saved_) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
        saved_.clear();
        if (!dir_.empty()) {
            std::error_code ignored;
            fs::remove_all(dir_, ignored);
        }
    }

  private:
    static constexpr const char* kVariables[] = {"HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR",
                                                 "DBUS_SESSION_BUS_ADDRESS"};
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
    fs::path dir_;
    pid_t busPid_ = -1;
    pid_t keyringPid_ = -1;
};

AuthSession sampleSession(std::string access) {
    AuthSession s;
    s.accessToken = std::move(access);
    s.refreshToken = "refresh";
    s.expiresAt = 1772003600;
    s.user.id = "u1";
    s.user.email = "a@b.nl";
    s.user.createdAt = CoreJSON::parseDate("2026-02-25T06:13:20Z");
    return s;
}

struct LoggedStore {
    std::shared_ptr<CoreLogger> logger = std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 100);
    SecretServiceSessionStore store;
    explicit LoggedStore(std::string service) : store(std::move(service), "auth-session", logger) {}
    std::vector<std::string> errors() const {
        std::vector<std::string> out;
        for (const auto& e : logger->allEntries()) {
            out.push_back(e.message);
        }
        return out;
    }
};

class SecretServiceSessionStoreTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (!PrivateSecretService::available()) {
            return;
        }
        service_ = new PrivateSecretService;
        started_ = service_->start();
    }
    static void TearDownTestSuite() {
        if (service_) {
            service_->stop();
            delete service_;
            service_ = nullptr;
        }
    }
    void SetUp() override {
        if (!PrivateSecretService::available()) {
            GTEST_SKIP() << "dbus-daemon, gnome-keyring-daemon or gdbus is not installed "
                            "(scripts/install-deps.sh installs them)";
        }
        ASSERT_TRUE(started_) << "the private session bus with gnome-keyring did not come up";
    }

    static inline PrivateSecretService* service_ = nullptr;
    static inline bool started_ = false;
};

} // namespace

TEST_F(SecretServiceSessionStoreTest, KeepsTheSessionAsSortedJsonUnderServiceAndAccount) {
    LoggedStore live("com.kavely.mac.session");
    LoggedStore mock("com.kavely.mac.session.mock");
    EXPECT_EQ(live.store.load(), std::nullopt);

    live.store.save(sampleSession("first"));
    live.store.save(sampleSession("second"));
    EXPECT_EQ(live.store.load(), sampleSession("second"));
    EXPECT_EQ(mock.store.load(), std::nullopt); // the mock world never sees the live item

    // Other tools find the same item by the same two attributes.
    std::string text;
    ASSERT_EQ(
        runToEnd({"secret-tool", "lookup", "service", "com.kavely.mac.session", "account", "auth-session"},
                 "", &text),
        0);
    EXPECT_EQ(text, CoreJSON::encode(sampleSession("second").toJson()));

    live.store.clear();
    live.store.clear(); // nothing left to clear is not a failure
    EXPECT_EQ(live.store.load(), std::nullopt);
    EXPECT_TRUE(live.errors().empty());
    EXPECT_TRUE(mock.errors().empty());
}

TEST_F(SecretServiceSessionStoreTest, AnUndecodableItemReadsAsSignedOutWithOneErrorAndStays) {
    ASSERT_EQ(runToEnd({"secret-tool", "store", "--label=x", "service", "com.kavely.test", "account",
                        "auth-session"},
                       "{\"accessToken\":"),
              0);
    LoggedStore broken("com.kavely.test");
    EXPECT_EQ(broken.store.load(), std::nullopt);
    EXPECT_EQ(broken.errors(),
              (std::vector<std::string>{"keychain load: item aanwezig maar niet te decoderen"}));
    std::string text;
    runToEnd({"secret-tool", "lookup", "service", "com.kavely.test", "account", "auth-session"}, "", &text);
    EXPECT_EQ(text, "{\"accessToken\":");
}

TEST(SecretServiceWithoutServiceTest, EveryFailureIsLoggedAndNothingIsThrown) {
    // A bus address where nothing listens: the situation of a session without a Secret Service.
    SecretServiceSessionStore::disconnect();
    const char* saved = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    std::string previous = saved ? saved : "";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/kavelo-test-bus", 1);

    LoggedStore store("com.kavely.mac.session");
    EXPECT_EQ(store.store.load(), std::nullopt);
    store.store.save(sampleSession("a"));
    store.store.clear();
    auto lines = store.errors();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].rfind("Secret Service load faalde: status ", 0), 0u);
    EXPECT_EQ(lines[1].rfind("Secret Service update faalde: status ", 0), 0u);
    EXPECT_TRUE(lines[1].ends_with(" — probeer delete+add"));
    EXPECT_TRUE(lines[2].ends_with(" — sessie leeft alleen in geheugen en overleeft de herstart niet"));
    EXPECT_EQ(lines[3].rfind("Secret Service delete faalde: status ", 0), 0u);
    for (const auto& line : lines) {
        EXPECT_EQ(line.find("refresh"), std::string::npos); // no token in any line
    }

    SecretServiceSessionStore::disconnect();
    if (saved) {
        ::setenv("DBUS_SESSION_BUS_ADDRESS", previous.c_str(), 1);
    } else {
        ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
}
