#include "core/mock/MockRecorder.h"
#include "core/transport/AdtsFrames.h"
#include "core/transport/ChunkStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <unistd.h>

using namespace kavelo;

namespace {

class ChunkJournalTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root = std::filesystem::temp_directory_path() /
               ("kavelo-journal-" + std::to_string(::getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(root);
    }
    void TearDown() override { std::filesystem::remove_all(root); }

    std::filesystem::path root;
};

} // namespace

TEST_F(ChunkJournalTest, SealingCutsWholeFramesAtTheRecordersBoundaryAndDropsATornTail) {
    ChunkStore store(root);
    const Bytes audio = MockRecorder::chunkContent(5, 250000); // about two and a half chunks
    Bytes journal = audio;
    const Bytes nextFrame = MockRecorder::chunkContent(5, 256);
    journal.insert(journal.end(), nextFrame.begin(), nextFrame.begin() + 100); // the append the kill tore
    store.appendJournal("rec", 5, journal);

    EXPECT_EQ(store.sealJournals("rec", {}), (std::vector<int>{5, 6, 7}));
    EXPECT_TRUE(store.journalSequences("rec").empty());
    Bytes joined;
    for (int s = 5; s <= 7; ++s) {
        const auto chunk = store.read("rec", s).value();
        EXPECT_EQ(AdtsFrames::wholeFramesLength(chunk), chunk.size())
            << "chunk " << s << " ends in a torn frame";
        if (s < 7) {
            EXPECT_EQ(chunk.size(), ChunkStore::cutBytes) << s;
        }
        joined.insert(joined.end(), chunk.begin(), chunk.end());
    }
    EXPECT_EQ(joined, audio);
}

TEST_F(ChunkJournalTest, LeftoverAndNoiseJournalsGoWithoutWritingAChunk) {
    ChunkStore store(root);
    const Bytes chunk3 = MockRecorder::chunkContent(3, 4096);
    store.store("rec", 3, chunk3);
    // Chunk 3 reached the disk but the removal of its journal did not survive the crash.
    store.appendJournal("rec", 3, MockRecorder::chunkContent(3, 1024));
    store.appendJournal("rec", 4, MockRecorder::chunkContent(4, 1024)); // uploaded, its file gone
    store.appendJournal("rec", 9, Bytes(3000, 0x55));                   // not audio at all

    EXPECT_TRUE(store.sealJournals("rec", {1, 2, 4}).empty());
    EXPECT_TRUE(store.journalSequences("rec").empty());
    EXPECT_EQ(store.storedSequences("rec"), std::vector<int>{3});
    EXPECT_EQ(store.read("rec", 3), chunk3);
}
