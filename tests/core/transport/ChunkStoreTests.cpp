#include "core/support/RecordingLimits.h"
#include "core/transport/ChunkStore.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>

namespace kavelo {
namespace {

class ChunkStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/kavelo-chunkstore-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    std::filesystem::path root_;
};

TEST_F(ChunkStoreTest, IdsThatDifferAnywhereNeverShareAFolder) {
    ChunkStore store(root_ / "data");
    // Each of these once named the same folder as another, or a place outside the store.
    const std::vector<std::string> ids{"a/b", "a:b", "a_b",  "a%2Fb", "a%2fb",
                                       ".",   "..",  "a\\b", "A_B",   "a.b"};
    std::set<std::string> folders;
    for (const auto& id : ids) {
        const auto folder = ChunkStore::safeRecordingId(id);
        EXPECT_EQ(folder.find('/'), std::string::npos) << id;
        EXPECT_NE(folder, ".");
        EXPECT_NE(folder, "..");
        EXPECT_EQ(ChunkStore::recordingIdOfFolder(folder), id);
        folders.insert(folder);
        store.store(id, 1, Bytes{1});
    }
    EXPECT_EQ(folders.size(), ids.size());
    // A UUID keeps the folder name it always had, so recordings left by earlier versions are found.
    EXPECT_EQ(ChunkStore::safeRecordingId("4f1c2d3e-0000-4000-8000-00000000abcd"),
              "4f1c2d3e-0000-4000-8000-00000000abcd");

    // Deleting one recording's chunks leaves every other's, and nothing outside the store is touched.
    store.removeAll("a/b");
    EXPECT_TRUE(store.storedSequences("a/b").empty());
    auto left = store.storedRecordings();
    EXPECT_EQ(left.size(), ids.size() - 1);
    for (const auto& id : left) {
        EXPECT_EQ(store.storedSequences(id), std::vector<int>{1}) << id;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root_), {}), 1) << "only the data folder";

    // A folder the store did not make is no recording of it.
    std::filesystem::create_directories(root_ / "data" / "kavelo_chunks" / "a%2fx" / "chunks");
    std::filesystem::create_directories(root_ / "data" / "kavelo_chunks" / "bad%zz" / "chunks");
    EXPECT_EQ(store.storedRecordings().size(), ids.size() - 1);
}

TEST_F(ChunkStoreTest, AnIdNoFolderNameCanHoldIsRefusedForWritingAndHoldsNothing) {
    ChunkStore store(root_);
    const std::string tooLong(100, '/'); // 300 bytes once encoded
    for (const std::string& id : {std::string(), tooLong}) {
        EXPECT_THROW(ChunkStore::safeRecordingId(id), ChunkStore::UnstorableRecordingId);
        EXPECT_THROW(store.store(id, 1, Bytes{1}), ChunkStore::UnstorableRecordingId);
        EXPECT_TRUE(store.storedSequences(id).empty());
        EXPECT_FALSE(store.exists(id, 1));
        EXPECT_FALSE(store.read(id, 1).has_value());
        store.remove(id, 1);
        store.removeAll(id);
    }
    // Every id that the wire accepts fits.
    EXPECT_NO_THROW(ChunkStore::safeRecordingId(std::string(RecordingLimits::maxRecordingIdLength, '.')));
}

} // namespace
} // namespace kavelo
