#include "core/backend/FinalizeService.h"

#include <gtest/gtest.h>

using namespace kavelo;
using FinalizeInput = FinalizeService::FinalizeInput;

namespace {

FinalizeInput sampleInput() {
    FinalizeInput input;
    input.recordingId = "rec-7";
    input.user = AuthUser{"user-1", "host@kavely.nl", std::nullopt, std::nullopt};
    input.userName = "Anne Host";
    input.meetingName = "  Weekstart\n";
    input.share = ShareComposer("host@kavely.nl");
    input.share.addRecipient("bram@example.com", "Bram");
    input.share.addRecipient("chris@example.com");
    input.share.includeTranscription = false;
    input.share.attachmentWord = true;
    input.speakers.prefillHost(std::string("Anne Host"));
    input.speakers.mergeMappingResults({"Bram"});
    input.outputLanguage = "en";
    input.uploadMode = "mac_audio_chunks";
    input.selectedTemplateId = "tpl-3";
    input.diagnostics.recordingId = "rec-7";
    input.diagnostics.platform = "linux";
    input.diagnostics.lastSequence = 12;
    return input;
}

} // namespace

TEST(FinalizePayloadTest, EveryFieldComesFromItsSource) {
    auto payload = FinalizeService::buildPayload(sampleInput());
    EXPECT_EQ(payload.recordingId, "rec-7");
    EXPECT_EQ(payload.userId, "user-1");
    EXPECT_EQ(payload.userEmail, "host@kavely.nl");
    EXPECT_EQ(payload.userName, "Anne Host");
    EXPECT_EQ(payload.meetingName, "Weekstart");
    EXPECT_EQ(payload.recipients, (std::vector<FinalizeRecipient>{{"bram@example.com", "Bram"},
                                                                  {"chris@example.com", std::nullopt}}));
    EXPECT_EQ(payload.participants, (std::vector<std::string>{"Anne Host", "Bram"}));
    EXPECT_EQ(payload.uploadMode, "mac_audio_chunks");
    EXPECT_FALSE(payload.includeTranscription);
    EXPECT_EQ(payload.attachmentWord, true);
    EXPECT_EQ(payload.speakerCount, 2);
    EXPECT_EQ(payload.speakerCountMode, "exact");
    EXPECT_EQ(payload.outputLanguage, "en");
    EXPECT_EQ(payload.diagnostics, sampleInput().diagnostics);
    EXPECT_EQ(payload.promptTemplateId, "tpl-3");
}

TEST(FinalizePayloadTest, ABlankMeetingNameAndALoneSpeakerLeaveTheirKeysOut) {
    auto input = sampleInput();
    input.meetingName = " \t\n ";
    input.speakers = SpeakerListModel{};
    input.speakers.prefillHost(std::string("Anne Host"));
    input.selectedTemplateId.reset();
    auto json = FinalizeService::buildPayload(input).toJson();
    for (const char* key : {"meeting_name", "speaker_count", "speaker_count_mode", "prompt_template_id"}) {
        EXPECT_FALSE(json.contains(key)) << key;
    }
    EXPECT_EQ(json.at("participants"), Json::array({"Anne Host"}));

    input.speakers = SpeakerListModel{};
    input.meetingName.reset();
    json = FinalizeService::buildPayload(input).toJson();
    EXPECT_FALSE(json.contains("participants"));
    EXPECT_FALSE(json.contains("meeting_name"));
}

TEST(FinalizePayloadTest, AManualCountAboveTheCapIsSentAsAHintOfThirtyTwo) {
    auto input = sampleInput();
    input.speakers.setManualCount(40);
    auto payload = FinalizeService::buildPayload(input);
    EXPECT_EQ(payload.speakerCount, 32);
    EXPECT_EQ(payload.speakerCountMode, "hint");
}
