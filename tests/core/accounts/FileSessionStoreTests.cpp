#include "core/accounts/FileSessionStore.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>

using namespace kavelo;
namespace fs = std::filesystem;

namespace {

struct FileSessionStoreTest : ::testing::Test {
    fs::path dir = fs::temp_directory_path() / ("kavelo-session-" + std::to_string(::getpid()));
    std::shared_ptr<CoreLogger> logger = std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 50);
    FileSessionStore store{dir / "cli" / "session.json", logger};

    void TearDown() override { fs::remove_all(dir); }
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        for (const auto& e : logger->allEntries()) {
            out.push_back(e.message);
        }
        return out;
    }
    static AuthSession session(std::string access) {
        AuthSession s;
        s.accessToken = std::move(access);
        s.refreshToken = "r";
        s.expiresAt = 100;
        s.user = {"u", "a@b.nl", std::nullopt, std::nullopt};
        return s;
    }
};

} // namespace

TEST_F(FileSessionStoreTest, KeepsTheSessionOwnerOnlyAndClearsIt) {
    EXPECT_EQ(store.load(), std::nullopt);
    store.save(session("one"));
    store.save(session("two"));
    EXPECT_EQ(store.load(), session("two"));

    struct stat info {};
    ASSERT_EQ(::stat(store.path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat(store.path().parent_path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);

    store.clear();
    store.clear();
    EXPECT_FALSE(fs::exists(store.path()));
    EXPECT_TRUE(lines().empty());
}

TEST_F(FileSessionStoreTest, BrokenOrExposedFilesAreLoggedWithoutTokens) {
    fs::create_directories(store.path().parent_path());
    std::ofstream(store.path()) << R"({"accessToken":"secret-a")";
    fs::permissions(store.path(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(store.load(), std::nullopt);
    EXPECT_TRUE(fs::exists(store.path())); // left for the user to inspect

    store.save(session("secret-b"));
    fs::permissions(store.path(), fs::perms::group_read | fs::perms::others_read, fs::perm_options::add);
    EXPECT_EQ(store.load(), session("secret-b"));

    auto log = lines();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0], "sessiebestand load: bestand aanwezig maar niet te decoderen");
    EXPECT_EQ(log[1].rfind("sessiebestand is leesbaar voor anderen dan de eigenaar: ", 0), 0u);
    for (const auto& line : log) {
        EXPECT_EQ(line.find("secret"), std::string::npos);
    }
}
