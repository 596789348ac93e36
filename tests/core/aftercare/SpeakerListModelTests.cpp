#include "core/recording/SpeakerListModel.h"

#include <gtest/gtest.h>

using namespace kavelo;
using Source = SpeakerListModel::Speaker::Source;

namespace {

std::vector<std::string> names(const SpeakerListModel& model) {
    std::vector<std::string> out;
    for (const auto& s : model.speakers) {
        out.push_back(s.name);
    }
    return out;
}

SpeakerListModel withNames(int count) {
    SpeakerListModel model;
    for (int i = 0; i < count; ++i) {
        model.addManual("Spreker " + std::to_string(i + 1));
    }
    return model;
}

} // namespace

TEST(SpeakerListModelTest, PrefillHostMovesAnExistingRowToTheFrontKeepingSpellingAndSource) {
    SpeakerListModel model;
    model.mergeMappingResults({"Anne de Vries", "JAN JANSEN"});
    model.prefillHost("jan jansen");
    ASSERT_EQ(model.speakers.size(), 2u);
    EXPECT_EQ(model.speakers[0], (SpeakerListModel::Speaker{"JAN JANSEN", true, Source::mapping}));
    EXPECT_FALSE(model.speakers[1].isHost);

    SpeakerListModel fresh;
    fresh.prefillHost(std::string("  \tPiet\t "));
    EXPECT_EQ(fresh.speakers, (std::vector<SpeakerListModel::Speaker>{{"Piet", true, Source::host}}));
}

TEST(SpeakerListModelTest, PrefillHostTrimsOnlyBlanksSoALineFeedCountsAsAName) {
    SpeakerListModel model;
    model.prefillHost(std::nullopt);
    model.prefillHost(std::string(" \t "));
    EXPECT_TRUE(model.speakers.empty());
    model.prefillHost(std::string("\n"));
    ASSERT_EQ(model.speakers.size(), 1u);
    EXPECT_EQ(model.speakers[0].name, "\n");
    // Elsewhere a line feed is trimmed away and leaves nothing.
    EXPECT_FALSE(model.addManual("\n"));
    model.mergeMappingResults({"\n", " \r\n"});
    EXPECT_EQ(model.speakers.size(), 1u);
}

TEST(SpeakerListModelTest, PrefillHostAtTheLimitAddsNothingButStillMarksAKnownName) {
    auto model = withNames(50);
    model.prefillHost(std::string("Nieuwe Host"));
    EXPECT_EQ(model.speakers.size(), 50u);
    EXPECT_FALSE(model.speakers[0].isHost);
    model.prefillHost(std::string("spreker 50"));
    EXPECT_EQ(model.speakers[0].name, "Spreker 50");
    EXPECT_TRUE(model.speakers[0].isHost);
}

TEST(SpeakerListModelTest, MergeSkipsEmptiesDuplicatesAcrossCaseAndEverythingPastTheLimit) {
    SpeakerListModel model;
    model.prefillHost(std::string("Émile"));
    model.mergeMappingResults({" Bram ", "", "ÉMILE", "bram", "Chris\n"});
    EXPECT_EQ(names(model), (std::vector<std::string>{"Émile", "Bram", "Chris"}));
    EXPECT_EQ(model.speakers[1].source, Source::mapping);

    auto full = withNames(49);
    full.mergeMappingResults({"Een", "Twee"});
    EXPECT_EQ(full.speakers.size(), 50u);
    EXPECT_EQ(full.speakers.back().name, "Een");
}

TEST(SpeakerListModelTest, NamesAreCutToOneHundredCharactersWithoutSplittingALetter) {
    SpeakerListModel model;
    std::string longName;
    for (int i = 0; i < 120; ++i) {
        longName += "e\xCC\x81"; // e + combining acute: one character, three bytes
    }
    ASSERT_TRUE(model.addManual(longName));
    EXPECT_EQ(model.speakers[0].name.size(), 300u);
    // A second name that differs only after the cut is the same name.
    EXPECT_FALSE(model.addManual(longName + "x"));
}

TEST(SpeakerListModelTest, PasteSplitsAtCommasSemicolonsAndLineFeedsAndStopsAtTheLimit) {
    SpeakerListModel model;
    EXPECT_EQ(model.addFromPaste("Anne, Bram;Chris"), 3);
    EXPECT_EQ(model.addFromPaste("anne;;\n Dirk \n,"), 1);
    EXPECT_EQ(names(model), (std::vector<std::string>{"Anne", "Bram", "Chris", "Dirk"}));

    auto nearlyFull = withNames(49);
    EXPECT_EQ(nearlyFull.addFromPaste("X,Y"), 1);
    EXPECT_EQ(nearlyFull.speakers.back().name, "X");
}

TEST(SpeakerListModelTest, RenameAllowsACaseChangeOfTheSameRowButNotAnotherRowsName) {
    SpeakerListModel model;
    model.prefillHost(std::string("Anne"));
    model.mergeMappingResults({"Bram"});
    model.rename(0, "ANNE");
    EXPECT_EQ(model.speakers[0], (SpeakerListModel::Speaker{"ANNE", true, Source::manual}));
    model.rename(1, " anne ");
    model.rename(1, "   ");
    model.rename(7, "Zoë");
    EXPECT_EQ(model.speakers[1], (SpeakerListModel::Speaker{"Bram", false, Source::mapping}));
    model.rename(1, " Zoë ");
    EXPECT_EQ(model.speakers[1].name, "Zoë");

    model.remove(9);
    model.remove(0);
    EXPECT_EQ(names(model), (std::vector<std::string>{"Zoë"}));
}

TEST(SpeakerListModelTest, ManualCountIsHeldBetweenTheNamedCountAndThirtyTwo) {
    auto three = withNames(3);
    three.setManualCount(40);
    EXPECT_EQ(three.manualSpeakerCount, 32);
    three.setManualCount(1);
    EXPECT_EQ(three.manualSpeakerCount, 3);
    three.setManualCount(std::nullopt);
    EXPECT_FALSE(three.manualSpeakerCount);

    SpeakerListModel empty;
    empty.setManualCount(-5);
    EXPECT_EQ(empty.manualSpeakerCount, 1);
}

TEST(SpeakerListModelTest, EffectiveAndDisplayedCountsDifferOnlyForOneNameWithoutAManualCount) {
    SpeakerListModel empty;
    EXPECT_FALSE(empty.effectiveSpeakerCount());
    EXPECT_FALSE(empty.displaySpeakerCount());
    auto one = withNames(1);
    EXPECT_FALSE(one.effectiveSpeakerCount());
    EXPECT_EQ(one.displaySpeakerCount(), 1);
    auto forty = withNames(40);
    EXPECT_EQ(forty.effectiveSpeakerCount(), 32);
    EXPECT_EQ(forty.displaySpeakerCount(), 32);
    one.manualSpeakerCount = 5;
    EXPECT_EQ(one.effectiveSpeakerCount(), 5);
    EXPECT_EQ(one.displaySpeakerCount(), 5);
    forty.manualSpeakerCount = 3; // set before names were added
    EXPECT_EQ(forty.effectiveSpeakerCount(), 32);
}

TEST(SpeakerListModelTest, BumpCountOnAnEmptyListStartsFromTwoAndAlwaysStores) {
    SpeakerListModel up;
    up.bumpCount(1);
    EXPECT_EQ(up.manualSpeakerCount, 3);
    SpeakerListModel down;
    down.bumpCount(-1);
    EXPECT_EQ(down.manualSpeakerCount, 1);
    SpeakerListModel still;
    still.bumpCount(0);
    EXPECT_EQ(still.manualSpeakerCount, 2);
}

TEST(SpeakerListModelTest, BumpCountStoresNothingWhenTheShownNumberWouldNotChange) {
    auto three = withNames(3);
    three.bumpCount(-1);
    EXPECT_FALSE(three.manualSpeakerCount);
    three.bumpCount(2);
    EXPECT_EQ(three.manualSpeakerCount, 5);
    three.bumpCount(-10);
    EXPECT_EQ(three.manualSpeakerCount, 3);

    auto many = withNames(31);
    many.bumpCount(5);
    EXPECT_EQ(many.manualSpeakerCount, 32);
    many.bumpCount(1);
    EXPECT_EQ(many.manualSpeakerCount, 32);
}

TEST(SpeakerListModelTest, CountPayloadIsExactUpToTenAHintAboveAndCappedAtThirtyTwo) {
    using P = SpeakerListModel::CountPayload;
    EXPECT_EQ(withNames(11).speakerCountPayload(), (P{11, "hint"}));
    EXPECT_EQ(withNames(10).speakerCountPayload(), (P{10, "exact"}));
    EXPECT_EQ(withNames(2).speakerCountPayload(), (P{2, "exact"}));
    EXPECT_FALSE(withNames(1).speakerCountPayload());
    EXPECT_EQ(withNames(40).speakerCountPayload(), (P{32, "hint"}));

    auto one = withNames(1);
    one.manualSpeakerCount = 1;
    EXPECT_EQ(one.speakerCountPayload(), (P{1, "exact"}));
    SpeakerListModel manualOnly;
    manualOnly.manualSpeakerCount = 40;
    EXPECT_EQ(manualOnly.speakerCountPayload(), (P{32, "hint"}));
    manualOnly.manualSpeakerCount = 0;
    EXPECT_EQ(manualOnly.speakerCountPayload(), (P{1, "exact"}));
}

TEST(SpeakerListModelTest, ParticipantsPayloadKeepsListOrderAndIsAbsentForAnEmptyList) {
    SpeakerListModel model;
    EXPECT_FALSE(model.participantsPayload());
    model.mergeMappingResults({"Bram", "Anne"});
    model.prefillHost(std::string("Host"));
    EXPECT_EQ(model.participantsPayload(), (std::vector<std::string>{"Host", "Bram", "Anne"}));
    EXPECT_EQ(SpeakerListModel::continueCTA(), "Verder");
}
