// Signing in against a backend that answers anything: token answers, OAuth exchanges, account links and
// sign-ups are read field by field, and a body that does not fit is an outcome, an AuthError, or the
// DecodingError of a 2xx that is no token answer; never a crash or another exception.
#include "core/accounts/AuthError.h"
#include "core/accounts/LiveAuthService.h"
#include "core/backend/APIError.h"
#include "core/support/CoreJSON.h"
#include "core/support/ManualClock.h"
#include "fuzz/AnsweringHTTPClient.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/SignedInTokens.h"

using namespace kavelo;

namespace {

void exercise(LiveAuthService& auth, std::uint8_t call, const Bytes& body) {
    switch (call % 8) {
    case 0:
        (void)auth.signIn("someone@example.com", "password");
        break;
    case 1:
        (void)auth.refresh("refresh-token");
        break;
    case 2:
        (void)auth.exchangeOAuthCode("code", "verifier");
        break;
    case 3:
        (void)auth.signUp("someone@example.com", "password", "Some One");
        break;
    case 4:
        (void)auth.confirmAccountLink("link-token", std::string("access-token"));
        break;
    case 5:
        (void)auth.prepareOAuth(OAuthProvider::google, std::nullopt);
        break;
    case 6:
        auth.updateUserMetadata({{"work_profile", "sales"}}, "access-token");
        break;
    case 7:
        (void)auth.parseOutcome(body);
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FuzzInput input(data, size);
    const auto call = input.byte();
    const auto status = input.byte();
    const Bytes body = input.rest();
    AppConfig config;
    config.supabaseUrl = "http://127.0.0.1:9";
    config.anonKey = "anon";
    auto clock = std::make_shared<ManualClock>();
    auto http = std::make_shared<fuzz::AnsweringHTTPClient>(status, body);
    auto functions = std::make_shared<SupabaseFunctionClient>(
        config, http, std::make_shared<fuzz::SignedInTokens>(), std::make_shared<CoreLogger>(clock, 16));
    LiveAuthService auth(config, http, functions, clock);
    try {
        exercise(auth, call, body);
    } catch (const AuthError&) {
    } catch (const APIError&) {
        // Only the account link lets it pass, for a failure without an answer.
    } catch (const DecodingError&) {
    }
    return 0;
}
