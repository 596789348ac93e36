#include "core/accounts/AuthError.h"
#include "core/accounts/InMemorySessionStore.h"
#include "core/accounts/SessionManager.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <thread>
#include <vector>

using namespace kavelo;
using namespace std::chrono_literals;

namespace {

const TimePoint kNow = dateFromSecondsSince1970(1'772'000'000);

AuthSession makeSession(std::string access, std::string refresh, double expiresIn,
                        std::string email = "a@b.nl") {
    AuthSession s;
    s.accessToken = std::move(access);
    s.refreshToken = std::move(refresh);
    s.expiresAt = secondsSince1970(kNow) + expiresIn;
    s.user.id = "user-1";
    s.user.email = std::move(email);
    return s;
}

// A door that the refresher waits behind, so a test can act while a refresh is under way.
class Gate {
  public:
    void enter() {
        std::unique_lock lock(mutex_);
        ++entered_;
        cv_.notify_all();
        cv_.wait_for(lock, 10s, [&] { return open_; });
    }
    bool waitUntilEntered(int count) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, 10s, [&] { return entered_ >= count; });
    }
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int entered_ = 0;
    bool open_ = false;
};

// A clock that counts how often the date is read: every token request reads it once before refreshing.
class CountingClock final : public Clock {
  public:
    TimePoint now() const override {
        std::lock_guard lock(mutex_);
        ++reads_;
        cv_.notify_all();
        return kNow;
    }
    void sleep(double) override {}
    bool waitForReads(int count) const {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, 10s, [&] { return reads_ >= count; });
    }

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    mutable int reads_ = 0;
};

struct SessionManagerTest : ::testing::Test {
    std::shared_ptr<InMemorySessionStore> store = std::make_shared<InMemorySessionStore>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(kNow);
    std::vector<std::string> events;
    std::mutex eventsMutex;

    std::unique_ptr<SessionManager> makeManager(std::optional<AuthSession> stored) {
        if (stored) {
            store->save(*stored);
        }
        auto manager = std::make_unique<SessionManager>(store, clock);
        manager->onChange([this](const SessionManager::State& s) {
            std::lock_guard lock(eventsMutex);
            events.push_back(s.isSignedIn() ? "in:" + s.session()->accessToken : "out");
        });
        manager->onSignOut([this] {
            std::lock_guard lock(eventsMutex);
            events.push_back("signOut");
        });
        return manager;
    }
};

} // namespace

TEST(AuthSessionTest, ExpiresThirtySecondsEarlyAndRoundTripsThroughJson) {
    EXPECT_TRUE(makeSession("a", "r", 30).isExpired(kNow));
    EXPECT_FALSE(makeSession("a", "r", 31).isExpired(kNow));

    AuthSession s = makeSession("acc", "ref", 3600);
    s.user.workProfile = "sales";
    s.user.createdAt = dateFromSecondsSince1970(1'772'000'000);
    std::string text = CoreJSON::encode(s.toJson());
    EXPECT_EQ(
        text,
        R"({"accessToken":"acc","expiresAt":1772003600.0,"refreshToken":"ref","user":)"
        R"({"createdAt":"2026-02-25T06:13:20Z","email":"a@b.nl","id":"user-1","workProfile":"sales"}})");
    EXPECT_EQ(AuthSession::fromJson(CoreJSON::decode(text)), s);
    EXPECT_THROW(
        AuthSession::fromJson(CoreJSON::decode(R"({"accessToken":"a","refreshToken":"r","user":{}})")),
        DecodingError);
}

TEST_F(SessionManagerTest, StartRestoresTheStoredSessionWithoutTellingAnyone) {
    auto manager = makeManager(makeSession("old", "r1", -500));
    EXPECT_TRUE(manager->state().isSignedIn());
    EXPECT_TRUE(events.empty());
    // No refresher yet: the expired token is handed out as it is.
    EXPECT_EQ(manager->currentAccessToken(), "old");
    EXPECT_EQ(manager->refreshSession().accessToken, "old");
}

TEST_F(SessionManagerTest, InstallAndSignOutKeepStoreAndObserversInStep) {
    auto manager = makeManager(std::nullopt);
    EXPECT_EQ(manager->currentAccessToken(), std::nullopt);
    // Observers run after the lock is released, so they may call the manager.
    manager->onChange([&](const SessionManager::State&) { (void)manager->session(); });

    manager->install(makeSession("a1", "r1", 3600));
    EXPECT_EQ(store->load()->accessToken, "a1");
    EXPECT_EQ(manager->currentAccessToken(), "a1");
    manager->signOut();
    EXPECT_FALSE(store->load().has_value());
    EXPECT_EQ(manager->state(), SessionManager::State::signedOut());
    EXPECT_EQ(events, (std::vector<std::string>{"in:a1", "signOut", "out"}));
}

// A store whose save asks the manager for the token from another thread while the save is under way, as
// any caller might while a slow disk writes. The answer must not wait for the write.
class ProbingStore final : public SessionStore {
  public:
    std::optional<AuthSession> load() override { return inner.load(); }
    void save(const AuthSession& session) override {
        reader = std::async(std::launch::async, [this] { return manager->currentAccessToken(); });
        // A rendezvous with a generous bound: the manager's lock held across this call makes the reader
        // wait for the whole save, so it cannot be ready here.
        answeredDuringSave = reader.wait_for(5s) == std::future_status::ready;
        inner.save(session);
    }
    void clear() override { inner.clear(); }
    SessionManager* manager = nullptr;
    std::future<std::optional<std::string>> reader;
    bool answeredDuringSave = false;
    InMemorySessionStore inner;
};

TEST_F(SessionManagerTest, AStoreWriteOnASlowDiskKeepsNoReaderWaiting) {
    auto probing = std::make_shared<ProbingStore>();
    SessionManager manager(probing, clock);
    probing->manager = &manager;
    manager.install(makeSession("a1", "r1", 3600));
    EXPECT_TRUE(probing->answeredDuringSave);
    EXPECT_EQ(probing->reader.get(), "a1");
    EXPECT_EQ(probing->inner.load()->accessToken, "a1");
}

TEST_F(SessionManagerTest, NobodySignedInMeansNoRefresh) {
    auto manager = makeManager(std::nullopt);
    std::atomic<int> calls{0};
    manager->setRefresher([&](const std::string&) {
        ++calls;
        return makeSession("x", "y", 3600);
    });
    EXPECT_EQ(manager->refreshedAccessToken(), std::nullopt);
    try {
        manager->refreshSession();
        FAIL() << "expected AuthError";
    } catch (const AuthError& e) {
        EXPECT_EQ(e, AuthError::unknown("no session"));
    }
    EXPECT_EQ(calls.load(), 0);
}

TEST_F(SessionManagerTest, ConcurrentCallersShareOneRefresh) {
    auto countingClock = std::make_shared<CountingClock>();
    store->save(makeSession("old", "r-old", 10));
    SessionManager manager(store, countingClock);
    std::mutex m;
    std::vector<std::string> tokensUsed;
    manager.setRefresher([&](const std::string& token) {
        {
            std::lock_guard lock(m);
            tokensUsed.push_back(token);
        }
        // Hold the refresh until all ten callers have decided that the token expired.
        countingClock->waitForReads(10);
        return makeSession("new", "r-new", 3600, "");
    });

    std::vector<std::optional<std::string>> results(10);
    std::vector<std::thread> threads;
    for (int i = 0; i < 10; ++i) {
        threads.emplace_back([&, i] { results[i] = manager.currentAccessToken(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    for (const auto& r : results) {
        EXPECT_EQ(r, "new");
    }
    // A caller that arrives after the flight ended refreshes with the new token, never the old one again.
    EXPECT_EQ(std::count(tokensUsed.begin(), tokensUsed.end(), "r-old"), 1);
    // The answer had no e-mail address: the known one stays.
    EXPECT_EQ(manager.session()->user.email, "a@b.nl");
    EXPECT_EQ(store->load()->refreshToken, "r-new");
}

TEST_F(SessionManagerTest, FailedRefreshKeepsTheSessionAndTellsNobody) {
    auto manager = makeManager(makeSession("old", "r1", 0));
    manager->setRefresher([](const std::string&) -> AuthSession { throw AuthError::refreshRejected(); });
    EXPECT_EQ(manager->currentAccessToken(), "old");
    EXPECT_EQ(manager->refreshedAccessToken(), std::nullopt);
    EXPECT_THROW(manager->refreshSession(), AuthError);
    EXPECT_EQ(manager->session()->accessToken, "old");
    EXPECT_TRUE(events.empty());
    // The failed flight is cleared: the next attempt calls the refresher again.
    manager->setRefresher([](const std::string&) { return makeSession("new", "r2", 3600); });
    EXPECT_EQ(manager->refreshedAccessToken(), "new");
}

TEST_F(SessionManagerTest, RefreshMergesMissingUserFieldsFromTheKnownSession) {
    AuthSession known = makeSession("old", "r1", 0);
    known.user.workProfile = "legal";
    known.user.createdAt = kNow;
    auto manager = makeManager(known);
    manager->setRefresher([](const std::string&) {
        AuthSession fresh = makeSession("new", "r2", 3600, "");
        fresh.user.id = "";
        return fresh;
    });
    AuthSession result = manager->refreshSession();
    EXPECT_EQ(result.user, known.user);
    EXPECT_EQ(events, (std::vector<std::string>{"in:new"}));
}

TEST_F(SessionManagerTest, ARefreshThatEndsAfterSignOutOrANewSignInInstallsNothing) {
    for (bool signOutMeanwhile : {true, false}) {
        SCOPED_TRACE(signOutMeanwhile ? "sign-out" : "other user");
        store->clear();
        events.clear();
        auto manager = makeManager(makeSession("old", "r1", 0));
        Gate gate;
        manager->setRefresher([&](const std::string&) {
            gate.enter();
            return makeSession("refreshed", "r2", 3600);
        });
        std::optional<AuthSession> returned;
        std::thread caller([&] { returned = manager->refreshSession(); });
        ASSERT_TRUE(gate.waitUntilEntered(1));
        if (signOutMeanwhile) {
            manager->signOut();
        } else {
            manager->install(makeSession("other", "r-other", 3600, "c@d.nl"));
        }
        gate.open();
        caller.join();

        ASSERT_TRUE(returned.has_value());
        EXPECT_EQ(returned->accessToken, "refreshed");
        if (signOutMeanwhile) {
            EXPECT_FALSE(manager->state().isSignedIn());
            EXPECT_FALSE(store->load().has_value());
        } else {
            EXPECT_EQ(manager->session()->accessToken, "other");
            EXPECT_EQ(store->load()->accessToken, "other");
        }
        EXPECT_EQ(std::count(events.begin(), events.end(), "in:refreshed"), 0);
    }
}
