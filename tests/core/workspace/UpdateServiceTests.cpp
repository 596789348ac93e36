#include "core/backend/APIError.h"
#include "core/mock/MockUpdateBackend.h"
#include "core/support/InMemoryKeyValueStore.h"
#include "core/support/ManualClock.h"
#include "core/workspace/SemVer.h"
#include "core/workspace/StaticJSONUpdateBackend.h"
#include "core/workspace/UpdateService.h"
#include "helpers/FakeHTTPClient.h"

#include <gtest/gtest.h>

namespace kavelo {
namespace {

constexpr const char* kURL = "https://updates.example.test/linux/update-policy.json";

std::string policyJSON(const std::string& minimum, const std::string& latest, const std::string& extra = "") {
    return R"({"minimum_supported_version":")" + minimum + R"(","latest_version":")" + latest + "\"" + extra +
           "}";
}

std::string notesJSON(const std::vector<std::string>& versions) {
    std::string list;
    for (const auto& v : versions) {
        list += std::string(list.empty() ? "" : ",") + R"({"version":")" + v + R"(","title":"Versie )" + v +
                R"(","body":"- beter"})";
    }
    return R"(,"release_notes":[)" + list + "]";
}

class UpdateServiceTest : public ::testing::Test {
  protected:
    UpdateService service(const std::string& current) {
        return UpdateService(backend, store, current, clock);
    }
    void serve(const std::string& body, int status = 200) {
        http->respond("GET", "update-policy.json", status, bytesFromString(body));
    }

    std::shared_ptr<FakeHTTPClient> http = std::make_shared<FakeHTTPClient>();
    std::shared_ptr<StaticJSONUpdateBackend> backend = std::make_shared<StaticJSONUpdateBackend>(kURL, http);
    std::shared_ptr<InMemoryKeyValueStore> store = std::make_shared<InMemoryKeyValueStore>();
    std::shared_ptr<ManualClock> clock =
        std::make_shared<ManualClock>(TimePoint{} + std::chrono::hours(24 * 365 * 56));
};

TEST(SemVerTest, PiecesCompareAsNumbersAndMissingOrForeignPiecesCountAsZero) {
    EXPECT_EQ(SemVer::compare("1.10.0", "1.9.9"), 1);
    EXPECT_EQ(SemVer::compare("1.9.9", "1.10.0"), -1);
    EXPECT_EQ(SemVer::compare("2.0", "2.0.0"), 0);
    EXPECT_EQ(SemVer::compare("1.2", "1.2.0.1"), -1);
    EXPECT_EQ(SemVer::compare("1..2", "1.2"), 0);     // empty pieces drop out
    EXPECT_EQ(SemVer::compare("1.2-beta", "1.0"), 0); // the hyphenated piece is 0
    EXPECT_EQ(SemVer::compare("007.1", "7.1"), 0);
    // Numbers beyond any integer type still order by value, not wrap or saturate.
    EXPECT_EQ(SemVer::compare("99999999999999999999999.1", "99999999999999999999998.9"), 1);
    EXPECT_EQ(SemVer::compare("", "0.0"), 0);

    EXPECT_TRUE(SemVer::isAcceptable("1.2.3.4.5.6"));
    EXPECT_FALSE(SemVer::isAcceptable("1.2.3.4.5.6.7"));
    EXPECT_FALSE(SemVer::isAcceptable(std::string(33, '1')));
    EXPECT_FALSE(SemVer::isAcceptable("..."));
}

TEST_F(UpdateServiceTest, EvaluateGivesGraceBeforeTheMandatoryDateAndRequiresAfterIt) {
    const TimePoint now = clock->now();
    UpdatePolicy policy{"2.0.0", "2.1.0", "https://example.test/dl", std::nullopt};

    EXPECT_EQ(UpdateService::evaluate(policy, "1.9.9", now), UpdateStatus::updateRequired(policy));
    policy.mandatoryAfter = now + std::chrono::hours(1);
    EXPECT_EQ(UpdateService::evaluate(policy, "1.9.9", now), UpdateStatus::updateAvailable(policy));
    policy.mandatoryAfter = now - std::chrono::hours(1);
    EXPECT_EQ(UpdateService::evaluate(policy, "1.9.9", now), UpdateStatus::updateRequired(policy));
    policy.mandatoryAfter = now; // the grace ends at the date itself
    EXPECT_EQ(UpdateService::evaluate(policy, "1.9.9", now).kind(), UpdateStatus::Kind::updateRequired);

    // At the minimum but below the latest: offered, and the download address travels with it.
    const auto offered = UpdateService::evaluate(policy, "2.0", now);
    EXPECT_EQ(offered.kind(), UpdateStatus::Kind::updateAvailable);
    EXPECT_EQ(offered.downloadURL(), "https://example.test/dl");
    EXPECT_EQ(UpdateService::evaluate(policy, "2.1", now), UpdateStatus::upToDate());
    EXPECT_EQ(UpdateService::evaluate(policy, "2.10.0", now), UpdateStatus::upToDate());
}

TEST_F(UpdateServiceTest, AFailedCheckKeepsTheLastVerdictAndAFirstFailureIsUnknown) {
    auto updates = service("1.0.0");
    http->failOnce("GET", "", TransportError(TransportError::Kind::other, "offline"));
    EXPECT_EQ(updates.checkForUpdates(), UpdateStatus::unknown());
    EXPECT_FALSE(updates.isUpdateRequired()); // 404 from the fake: still unknown

    serve(policyJSON("1.5.0", "1.5.0", R"(,"download_url":"https://example.test/get")"));
    EXPECT_TRUE(updates.isUpdateRequired());
    EXPECT_EQ(updates.cachedStatus().downloadURL(), "https://example.test/get");

    serve("{}", 503);
    EXPECT_TRUE(updates.isUpdateRequired()) << "an unreachable host must not lift a required update";
    serve("not json");
    EXPECT_EQ(updates.checkForUpdates().kind(), UpdateStatus::Kind::updateRequired);

    const auto request = http->requests().back();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.url, kURL);
    EXPECT_TRUE(request.headers.empty());
    EXPECT_FALSE(request.body.has_value());
    EXPECT_EQ(request.timeout, 15.0);
    EXPECT_EQ(request.maxResponseBytes, UpdateDocument::kMaxBytes);
}

TEST_F(UpdateServiceTest, OnePolicyCheckFeedsTheNotesAndOnlyNotesSinceTheLastSeenUpToTheRunningVersionShow) {
    serve(policyJSON("1.0.0", "1.3.0", notesJSON({"1.3.0", "1.2.0", "1.1.0", "1.0.0"})));
    auto updates = service("1.2.0");
    ASSERT_EQ(updates.checkForUpdates().kind(), UpdateStatus::Kind::updateAvailable);
    ASSERT_EQ(updates.releaseNotes().size(), 4u);
    EXPECT_EQ(http->count("GET", ""), 1u) << "the notes come from the policy already read";

    // Nothing seen yet: everything up to the running version, in the file's order; 1.3.0 is not shown.
    auto unseen = updates.unseenReleaseNotes();
    ASSERT_EQ(unseen.size(), 3u);
    EXPECT_EQ(unseen[0].version, "1.2.0");
    EXPECT_EQ(unseen[2].version, "1.0.0");

    store->setString("1.1.0", UpdateService::kLastSeenReleaseKey);
    unseen = updates.unseenReleaseNotes();
    ASSERT_EQ(unseen.size(), 1u) << "the last-seen version itself is not unseen";
    EXPECT_EQ(unseen[0].version, "1.2.0");

    updates.markReleaseNotesSeen();
    EXPECT_EQ(store->string(UpdateService::kLastSeenReleaseKey), "1.2.0");
    EXPECT_TRUE(updates.unseenReleaseNotes().empty());

    // A stored value that is no version reads as never seen, not as a reason to fail.
    store->setString(std::string(100, '9'), UpdateService::kLastSeenReleaseKey);
    EXPECT_EQ(updates.unseenReleaseNotes().size(), 3u);
}

TEST_F(UpdateServiceTest, WithoutAPolicyReadTheNotesAreFetchedAndAFailureGivesNone) {
    auto updates = service("1.0.0");
    EXPECT_TRUE(updates.releaseNotes().empty()); // 404
    serve(policyJSON("1.0.0", "1.0.0", notesJSON({"1.0.0"})));
    EXPECT_EQ(updates.releaseNotes().size(), 1u);
    serve(policyJSON("1.0.0", "1.0.0")); // no notes key: an empty list, not an error
    EXPECT_EQ(updates.checkForUpdates(), UpdateStatus::upToDate());
    EXPECT_TRUE(updates.releaseNotes().empty());
}

TEST_F(UpdateServiceTest, HostileOrBrokenPolicyFilesAreRefusedAsDecodingErrors) {
    const std::string longBody = R"(,"release_notes":[{"version":"1.0","title":"t","body":")" +
                                 std::string(UpdateDocument::kMaxNoteBodyBytes + 1, 'x') + "\"}]";
    std::vector<std::string> tooMany(UpdateDocument::kMaxReleaseNotes + 1, "1.0.0");
    const std::vector<std::string> hostile = {
        "[]",
        R"({"latest_version":"1.0.0"})",
        policyJSON("1.0.0", std::string(SemVer::kMaxLength + 1, '1')),
        policyJSON("1.2.3.4.5.6.7", "1.0.0"),
        policyJSON("1.0.0", "1.0.0", R"(,"download_url":"file:///etc/passwd")"),
        policyJSON("1.0.0", "1.0.0", R"x(,"download_url":"javascript:alert(1)")x"),
        policyJSON("1.0.0", "1.0.0", R"(,"mandatory_after":"soon")"),
        policyJSON("1.0.0", "1.0.0", R"(,"release_notes":{"version":"1.0"})"),
        policyJSON("1.0.0", "1.0.0", R"(,"release_notes":[{"version":"1.0","title":"t"}])"),
        policyJSON("1.0.0", "1.0.0", longBody),
        policyJSON("1.0.0", "1.0.0", notesJSON(tooMany)),
        policyJSON("1.0.0", "1.0.0", R"(,"pad":")" + std::string(UpdateDocument::kMaxBytes, ' ') + "\""),
    };
    for (const auto& body : hostile) {
        SCOPED_TRACE(body.substr(0, 120));
        serve(body);
        try {
            (void)backend->fetchPolicy();
            ADD_FAILURE() << "accepted";
        } catch (const APIError& e) {
            EXPECT_EQ(e.kind(), APIError::Kind::decoding);
        }
    }
    // The limits themselves pass: fifty notes of 8 KiB each would not fit 256 KiB, so fifty short ones.
    serve(policyJSON("1.0.0", "1.0.0",
                     notesJSON(std::vector<std::string>(UpdateDocument::kMaxReleaseNotes, "1.2.3.4.5.6"))));
    EXPECT_EQ(backend->fetchReleaseNotes().size(), UpdateDocument::kMaxReleaseNotes);

    serve("{}", 404);
    try {
        (void)backend->fetchPolicy();
        ADD_FAILURE() << "accepted";
    } catch (const APIError& e) {
        EXPECT_EQ(e.httpStatus(), 404);
    }
}

TEST(MockUpdateBackendTest, TheMockWorldIsUpToDateWithOneNoteForTheRunningVersionInTheUsersLanguage) {
    std::string language = "nl";
    auto backend = std::make_shared<MockUpdateBackend>("0.4.2", [&language] { return language; });
    UpdateService service(backend, std::make_shared<InMemoryKeyValueStore>(), "0.4.2",
                          std::make_shared<ManualClock>());
    EXPECT_EQ(service.checkForUpdates(), UpdateStatus::upToDate());
    auto notes = service.unseenReleaseNotes();
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].version, "0.4.2");
    EXPECT_EQ(notes[0].title, "Kavely voor Linux");
    language = "en";
    EXPECT_EQ(service.releaseNotes().at(0).title, "Kavely for Linux");

    backend->setFailuresBeforeSuccess(1);
    EXPECT_EQ(service.checkForUpdates(), UpdateStatus::upToDate()) << "the last verdict stays";
}

} // namespace
} // namespace kavelo
