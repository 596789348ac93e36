#include "core/recording/FileRecoveryStore.h"

#include "core/support/AtomicFile.h"
#include "core/support/CoreJSON.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

using namespace kavelo;
namespace fs = std::filesystem;

namespace {

class FileRecoveryStoreTest : public ::testing::Test {
  protected:
    fs::path root;

    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "kavelo-recovery-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        root = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(root, ec);
    }

    static RecordingManifest sampleManifest() {
        RecordingManifest m;
        m.recordingId = "3f1c2b7e-0d4a-4c55-9a51-7f3f6f2d9b10";
        m.recordingSecret = "s3cr3t";
        m.stage = RecordingManifest::Stage::stopped;
        m.startedAt = TimePoint{std::chrono::seconds(1'772'360'130)};
        m.isPaused = true;
        m.pausedAt = TimePoint{std::chrono::seconds(1'772'360'400)};
        m.totalPausedMs = 1234.5;
        m.meetingName = "Weekstart";
        m.lastSequence = 17;
        m.elapsedSeconds = 310;
        m.userId = "user-1";
        return m;
    }

    static void writeRaw(const fs::path& path, const std::string& text) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    }
    static std::string readRaw(const fs::path& path) {
        return stringFromBytes(readWholeFile(path).value_or(Bytes{}));
    }
    static unsigned mode(const fs::path& path) {
        struct stat info {};
        ::stat(path.c_str(), &info);
        return info.st_mode & 0777;
    }
};

} // namespace

TEST_F(FileRecoveryStoreTest, SavesAPrivateFileThatReadsBackTheSame) {
    FileRecoveryStore store(root / "Kavely" / "Data");
    EXPECT_EQ(store.url(), root / "Kavely" / "Data" / "active_recording.json");
    EXPECT_EQ(mode(root / "Kavely" / "Data"), 0700u);
    EXPECT_FALSE(store.load());

    store.save(sampleManifest());
    EXPECT_EQ(store.load(), sampleManifest());
    EXPECT_EQ(mode(store.url()), 0600u);
    auto json = CoreJSON::decode(readRaw(store.url()));
    EXPECT_EQ(json.at("recordingSecret"), "s3cr3t");
    EXPECT_EQ(json.at("startedAt"), "2026-03-01T10:15:30Z");

    // A later save replaces the whole manifest; absent fields are left out of the file.
    RecordingManifest active;
    active.recordingId = "rec-2";
    store.save(active);
    EXPECT_EQ(store.load(), active);
    json = CoreJSON::decode(readRaw(store.url()));
    for (const char* key :
         {"recordingSecret", "pausedAt", "meetingName", "lastSequence", "elapsedSeconds", "userId"}) {
        EXPECT_FALSE(json.contains(key)) << key;
    }

    store.clear();
    EXPECT_FALSE(fs::exists(store.url()));
    EXPECT_FALSE(store.load());
    store.clear(); // a missing file is no failure
}

TEST_F(FileRecoveryStoreTest, ReadsWhatAnotherVersionOrFormatterWrote) {
    FileRecoveryStore store(root);
    writeRaw(store.url(),
             R"({"version":7,"recordingId":"r","stage":"active","startedAt":"2026-03-01T10:15:30.250Z",)"
             R"("isPaused":false,"totalPausedMs":0,"unknownKey":[1,2]})");
    auto manifest = store.load();
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->version, 7);
    EXPECT_EQ(manifest->startedAt, TimePoint{std::chrono::milliseconds(1'772'360'130'250)});
}

TEST_F(FileRecoveryStoreTest, DamagedOrHostileFilesReadAsAbsentAndStayInPlace) {
    FileRecoveryStore store(root);
    const std::string valid =
        R"({"version":1,"recordingId":"r","stage":"active","startedAt":"2026-03-01T10:15:30Z",)"
        R"("isPaused":false,"totalPausedMs":0)";
    const std::vector<std::string> hostile{
        "",
        "not json",
        valid, // truncated: no closing brace
        "[" + valid + "}]",
        R"({"version":1,"stage":"active","startedAt":"2026-03-01T10:15:30Z","isPaused":false,"totalPausedMs":0})",
        R"({"version":1,"recordingId":"r","stage":"paused","startedAt":"2026-03-01T10:15:30Z","isPaused":false,"totalPausedMs":0})",
        R"({"version":1,"recordingId":"r","stage":"active","startedAt":"yesterday","isPaused":false,"totalPausedMs":0})",
        R"({"version":1,"recordingId":42,"stage":"active","startedAt":"2026-03-01T10:15:30Z","isPaused":false,"totalPausedMs":0})",
        R"({"version":1e400,"recordingId":"r","stage":"active","startedAt":"2026-03-01T10:15:30Z","isPaused":false,"totalPausedMs":0})",
        R"({"version":99999999999,"recordingId":"r","stage":"active","startedAt":"2026-03-01T10:15:30Z","isPaused":"no","totalPausedMs":0})",
        valid + R"(,"lastSequence":"five"})",
        valid + R"(,"recordingId":"..","x":0})",
        R"({"version":1,"recordingId":"../../home","stage":"active","startedAt":"2026-03-01T10:15:30Z","isPaused":false,"totalPausedMs":0})",
        R"({"version":1,"recordingId":"","stage":"active","startedAt":"2026-03-01T10:15:30Z","isPaused":false,"totalPausedMs":0})",
        std::string(20000, '[') + std::string(20000, ']'),
        valid + ",\"meetingName\":\"\xff\xfe\"}",
        std::string("{\"version\":1,\0}", 15),
        "{\"pad\":\"" + std::string(FileRecoveryStore::maxFileBytes, 'x') + "\"," + valid.substr(1) + "}",
    };
    for (std::size_t i = 0; i < hostile.size(); ++i) {
        writeRaw(store.url(), hostile[i]);
        EXPECT_FALSE(store.load()) << "case " << i;
        EXPECT_EQ(readRaw(store.url()), hostile[i]) << "case " << i;
    }
    // The next save overwrites a damaged file.
    store.save(sampleManifest());
    EXPECT_EQ(store.load(), sampleManifest());
}

TEST_F(FileRecoveryStoreTest, SpecialFilesInPlaceOfTheManifestAreNeitherFollowedNorWaitedOn) {
    FileRecoveryStore store(root / "data");
    FileRecoveryStore elsewhere(root / "elsewhere");
    elsewhere.save(sampleManifest());

    fs::create_symlink(elsewhere.url(), store.url());
    EXPECT_FALSE(store.load());
    fs::remove(store.url());

    ASSERT_EQ(::mkfifo(store.url().c_str(), 0600), 0);
    EXPECT_FALSE(store.load()); // would block forever on an open that waits for a writer
    fs::remove(store.url());

    fs::create_directory(store.url());
    EXPECT_FALSE(store.load());
    // A directory cannot be replaced or removed: the caller hears of it, and it stays.
    EXPECT_THROW(store.save(sampleManifest()), std::system_error);
    EXPECT_THROW(store.clear(), std::system_error);
    EXPECT_TRUE(fs::is_directory(store.url()));
    EXPECT_EQ(elsewhere.load(), sampleManifest());
}

TEST_F(FileRecoveryStoreTest, AFailedSaveLeavesTheEarlierManifestStanding) {
    FileRecoveryStore store(root);
    store.save(sampleManifest());
    RecordingManifest broken = sampleManifest();
    broken.recordingId = "rec-2";
    broken.totalPausedMs = std::numeric_limits<double>::quiet_NaN(); // not representable in JSON
    EXPECT_THROW(store.save(broken), std::system_error);
    EXPECT_EQ(store.load(), sampleManifest());
    std::size_t entries = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(root)) {
        ++entries;
    }
    EXPECT_EQ(entries, 1u); // no temporary file left behind
}

TEST_F(FileRecoveryStoreTest, ConcurrentSavesAndLoadsNeverSeeATornFile) {
    FileRecoveryStore store(root);
    store.save(sampleManifest());
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) {
            auto m = sampleManifest();
            m.lastSequence = i;
            store.save(m);
        }
        stop = true;
    });
    // A second store on the same file stands for another process: the file itself must be atomic.
    FileRecoveryStore reader(root);
    while (!stop) {
        auto m = reader.load();
        if (!m || m->recordingId != sampleManifest().recordingId) {
            ++bad;
        }
    }
    writer.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(store.load()->lastSequence, 199);
}
