// The update policy file and the tips answer: whatever the server sends, what gets through stays within
// the limits the readers promise, the services never throw, and a tips answer that was cached reads back
// the same.
#include "core/backend/APIError.h"
#include "core/support/InMemoryKeyValueStore.h"
#include "core/support/ManualClock.h"
#include "core/workspace/LiveTipsBackend.h"
#include "core/workspace/SemVer.h"
#include "core/workspace/StaticJSONUpdateBackend.h"
#include "core/workspace/TipsService.h"
#include "core/workspace/UpdateService.h"
#include "fuzz/AnsweringHTTPClient.h"
#include "fuzz/FuzzInput.h"

#include <cstdlib>

using namespace kavelo;

namespace {

class FixedToken final : public AccessTokenProvider {
  public:
    std::optional<std::string> currentAccessToken() override { return "token"; }
};

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void updatePolicy(const std::shared_ptr<HTTPClient>& http) {
    auto backend = std::make_shared<StaticJSONUpdateBackend>("http://127.0.0.1:9/update-policy.json", http);
    try {
        const UpdatePolicy policy = backend->fetchPolicy();
        require(SemVer::isAcceptable(policy.minimumSupportedVersion));
        require(SemVer::isAcceptable(policy.latestVersion));
        if (policy.downloadURL) {
            require(policy.downloadURL->rfind("http", 0) == 0);
        }
        const auto notes = backend->fetchReleaseNotes();
        require(notes.size() <= UpdateDocument::kMaxReleaseNotes);
        for (const auto& note : notes) {
            require(SemVer::isAcceptable(note.version) &&
                    note.body.size() <= UpdateDocument::kMaxNoteBodyBytes);
        }
    } catch (const APIError&) {
    }
    auto store = std::make_shared<InMemoryKeyValueStore>();
    UpdateService service(backend, store, "1.2.3", std::make_shared<ManualClock>());
    (void)service.checkForUpdates();
    (void)service.unseenReleaseNotes();
}

void tips(const std::shared_ptr<HTTPClient>& http) {
    AppConfig config;
    config.supabaseUrl = "http://127.0.0.1:9";
    config.anonKey = "anon";
    auto functions = std::make_shared<SupabaseFunctionClient>(
        config, http, std::make_shared<FixedToken>(),
        std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 4));
    auto store = std::make_shared<InMemoryKeyValueStore>();
    TipsService service(std::make_shared<LiveTipsBackend>(functions), store, [](std::size_t) { return 0; });
    const auto loaded = service.loadTips();
    if (!loaded) {
        return;
    }
    require(loaded->tips.size() <= TipsResponse::kMaxTips);
    for (const auto& tip : loaded->tips) {
        require(tip.body.size() <= TipsResponse::kMaxTipBodyBytes);
    }
    require(service.cachedResponse() == loaded);
    require(service.visibleTips(loaded->tips).size() <= TipsService::kWindowSize);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FuzzInput input(data, size);
    const auto call = input.byte();
    const auto status = input.byte();
    auto http = std::make_shared<fuzz::AnsweringHTTPClient>(status, input.rest());
    if (call % 2 == 0) {
        updatePolicy(http);
    } else {
        tips(http);
    }
    return 0;
}
