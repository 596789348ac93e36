#include "tools/devserver/DevServerOptions.h"

#include <sstream>
#include <stdexcept>

namespace kavelo {

namespace {

double toSeconds(const std::string& option, const std::string& value) {
    std::size_t used = 0;
    double seconds = -1;
    try {
        seconds = std::stod(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != value.size() || !(seconds >= 0)) {
        throw std::invalid_argument(option + " needs a number of seconds, not '" + value + "'");
    }
    return seconds;
}

std::vector<std::string> splitNames(const std::string& text) {
    std::vector<std::string> names;
    std::stringstream in(text);
    std::string name;
    while (std::getline(in, name, ',')) {
        if (!name.empty()) {
            names.push_back(name);
        }
    }
    return names;
}

} // namespace

DevServerOptions DevServerOptions::parse(const std::vector<std::string>& args) {
    DevServerOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= args.size()) {
                throw std::invalid_argument(arg + " needs a value");
            }
            return args[++i];
        };
        if (arg == "-h" || arg == "--help") {
            options.showHelp = true;
        } else if (arg == "--port") {
            auto text = value();
            std::size_t used = 0;
            int port = -1;
            try {
                port = std::stoi(text, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            if (used == 0 || used != text.size() || port < 0 || port > 65535) {
                throw std::invalid_argument("--port needs a port number, not '" + text + "'");
            }
            options.port = port;
        } else if (arg == "--data-dir") {
            options.dataDirectory = value();
        } else if (arg == "--anon-key") {
            options.anonKey = value();
            if (options.anonKey.empty()) {
                throw std::invalid_argument("--anon-key must not be empty");
            }
        } else if (arg == "--access-token-lifetime") {
            options.accessTokenLifetime = toSeconds(arg, value());
        } else if (arg == "--signed-url-lifetime") {
            options.signedUrlLifetime = toSeconds(arg, value());
        } else if (arg == "--meeting-row-delay") {
            options.pipeline.meetingRowDelay = toSeconds(arg, value());
        } else if (arg == "--mapping-delay") {
            options.pipeline.mappingDelay = toSeconds(arg, value());
        } else if (arg == "--status-step-seconds") {
            options.pipeline.statusStep = toSeconds(arg, value());
        } else if (arg == "--mapping-names") {
            options.pipeline.mappingNames = splitNames(value());
        } else if (arg == "--mapping-outcome") {
            options.pipeline.mappingOutcome = value();
            if (options.pipeline.mappingOutcome != "done" && options.pipeline.mappingOutcome != "skipped" &&
                options.pipeline.mappingOutcome != "failed") {
                throw std::invalid_argument("--mapping-outcome is done, skipped or failed");
            }
        } else if (arg == "--require-email-confirmation") {
            options.autoConfirmSignUps = false;
        } else if (arg == "--profiles-without-job-title") {
            options.legacyProfiles = true;
        } else if (arg == "--oauth-callback-url") {
            options.oauthCallbackUrl = value();
        } else if (arg == "--fault") {
            options.faults.push_back(FaultRule::parse(value()));
        } else if (arg == "--refuse-url-fetch") {
            auto status = value();
            if (status != "401" && status != "403") {
                throw std::invalid_argument("--refuse-url-fetch is 401 or 403");
            }
            options.faults.push_back(FaultRule::parse("generate-upload-urls:status=" + status));
        } else if (arg == "--seed") {
            auto text = value();
            try {
                options.faultSeed = std::stoull(text);
            } catch (const std::exception&) {
                throw std::invalid_argument("--seed needs a whole number, not '" + text + "'");
            }
        } else if (arg == "--user") {
            auto text = value();
            auto colon = text.find(':');
            if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
                throw std::invalid_argument("--user needs EMAIL:PASSWORD");
            }
            options.users.push_back(SeedUser{text.substr(0, colon), text.substr(colon + 1)});
        } else if (arg == "--storage-conflict-as-400") {
            options.storageConflictAs400 = true;
        } else if (arg == "--expired-token-status") {
            auto status = value();
            if (status != "400" && status != "401" && status != "403") {
                throw std::invalid_argument("--expired-token-status is 400, 401 or 403");
            }
            options.expiredTokenStatus = std::stoi(status);
        } else if (arg == "--hostile-chunk-list") {
            options.hostileChunkList = value();
            if (options.hostileChunkList != "huge" && options.hostileChunkList != "negative" &&
                options.hostileChunkList != "duplicate" && options.hostileChunkList != "flood") {
                throw std::invalid_argument("--hostile-chunk-list is huge, negative, duplicate or flood");
            }
        } else if (arg == "--hostile-recording-id") {
            options.hostileRecordingId = value();
            if (options.hostileRecordingId != "long" && options.hostileRecordingId != "path" &&
                options.hostileRecordingId != "slash") {
                throw std::invalid_argument("--hostile-recording-id is long, path or slash");
            }
        } else if (arg == "--latest-version" || arg == "--minimum-version") {
            std::string version = value();
            if (version.empty() || version.size() > 32 ||
                version.find_first_not_of("0123456789.") != std::string::npos) {
                throw std::invalid_argument(arg + " needs a dotted version such as 1.4.0, not '" + version +
                                            "'");
            }
            (arg == "--latest-version" ? options.latestVersion : options.minimumVersion) = version;
        } else if (arg == "--log-requests") {
            options.logRequests = true;
        } else {
            throw std::invalid_argument("unknown argument '" + arg + "' (see --help)");
        }
    }
    if (!options.showHelp && options.dataDirectory.empty()) {
        throw std::invalid_argument("--data-dir is required");
    }
    return options;
}

std::string DevServerOptions::helpText() {
    std::string routes;
    for (const auto& route : FaultRule::knownRoutes()) {
        routes += "    " + route + "\n";
    }
    return R"(Usage: kavelo-devserver --data-dir DIR [options]

A stand-in for the hosted backend, for development and tests. It listens on 127.0.0.1 only, keeps
storage objects as files under DIR/objects and its state (recordings, users, sessions) under DIR/state,
so a restart with the same DIR loses nothing. Its first line on standard output is
"listening 127.0.0.1:PORT". It runs until SIGINT or SIGTERM.

Options:
  --data-dir DIR                 where objects and state live (required; created when missing)
  --port N                       port to listen on; 0 or absent: an ephemeral port
  --anon-key KEY                 the anon key that clients must send (default dev-anon-key)
  --access-token-lifetime S      seconds an access token lives (default 3600)
  --signed-url-lifetime S        seconds a signed upload URL lives (default 7200)
  --meeting-row-delay S          seconds until a recording's meetings row appears (default 0.5)
  --mapping-delay S              seconds from the mapping trigger to its result (default 1)
  --mapping-names A,B            the participants that mapping finds (default two sample names)
  --mapping-outcome STATUS       done, skipped or failed: the status mapping ends with (default done)
  --status-step-seconds S        seconds a finalized recording reads as processing, then as completed,
                                 before it reads as sent (default 5)
  --require-email-confirmation   sign-ups wait for a confirmation mail instead of signing in at once
  --profiles-without-job-title   the older profiles table, without job_title and company
  --oauth-callback-url URL       where the pretend provider sends the browser (default kavely://auth-callback)
  --user EMAIL:PASSWORD          an account to create at start (repeatable)
  --fault ROUTE:RULE             a fault rule (repeatable), see below
  --refuse-url-fetch 401|403     short for --fault generate-upload-urls:status=401|403
  --seed N                       seed of the random draws of fault rates (default 1)
  --storage-conflict-as-400      an existing object is answered as the hosted storage does: HTTP 400 with
                                 {"statusCode":"409","error":"Duplicate"} instead of 409
  --expired-token-status N       400, 401 or 403: the status of an expired access token, with a JWT
                                 message in the body (storage and functions: "jwt expired"; auth:
                                 "invalid JWT: token is expired"); default 401
  --hostile-chunk-list MODE      list-recording-chunks lies (start only): huge (sequence 2147483647),
                                 negative (-1 and -5), duplicate (every sequence 5000 times) or flood
                                 (two million entries)
  --hostile-recording-id MODE    init-recording gives an id no client should accept (start only): long
                                 (300 characters), path ("../../outside") or slash ("a/b")
  --latest-version V             the latest version that /update-policy.json names (default 0.0.0)
  --minimum-version V            the oldest supported version it names (default 0.0.0: nothing required)
  --log-requests                 one line per request on standard error
  -h, --help                     this text

A fault RULE is a comma-separated list of: status=CODE (answer this status), drop (close the connection
without an answer), latency-ms=N (wait first), rate=P (fire with probability P), count=N (fire at most N
times). Examples: signed-upload:status=500,count=3  storage-upload:drop,rate=0.2  *:latency-ms=50
ROUTE is * or one of:
)" + routes +
           R"(
Served routes:
  POST functions/v1/{generate-upload-urls, init-recording, list-recording-chunks, finalize-recording,
                     early-speaker-mapping, oauth-prepare, oauth-mobile-exchange, confirm-account-link,
                     get-tips}
  GET  update-policy.json                                         (no authentication; versions from the options)
  PUT  storage/v1/object/upload/sign/<bucket>/<path>?token=...   (signed upload; x-upsert false: 409)
  POST storage/v1/object/<bucket>/<path>                          (apikey and bearer; x-upsert true overwrites)
  GET  rest/v1/{meetings, profiles}  PATCH rest/v1/profiles       (select, order, limit; filters eq, neq, gt,
                                                                  gte, lt, lte, like, ilike, in, is, not.)
  POST rest/v1/rpc/get_recording_status {"p_meeting_id"}          (the caller's meeting: [] or one row)
  POST auth/v1/token?grant_type={password, refresh_token}, auth/v1/signup, auth/v1/logout
  GET/PUT auth/v1/user   GET auth/v1/authorize (the pretend provider's consent)

Admin API (no credentials; loopback only):
  GET  /__admin/health
  GET|POST|DELETE /__admin/faults, DELETE /__admin/faults/<id>   rules as {"route","status","drop","rate",
                                                                  "count","latency_ms"}
  GET  /__admin/storage?bucket=B&prefix=P, GET /__admin/storage/object?bucket=B&path=P
  GET|POST /__admin/recordings, GET /__admin/recordings/<id>
  POST /__admin/meetings/<meeting id>/mapping {"participants":[...],"status":"done"}
  GET|POST /__admin/users, POST /__admin/sessions {"email"}, POST /__admin/tokens/expire
  POST /__admin/oauth/identity {"provider","email","full_name"}
  POST /__admin/signed-urls/revoke
  GET|POST /__admin/settings     {"access_token_lifetime","signed_url_lifetime","meeting_row_delay",
                                  "mapping_delay","mapping_names","mapping_outcome",
                                  "status_step_seconds"}
  GET|DELETE /__admin/requests[?route=R]   the log of handled requests (route, method, path, status)
                                            and the most requests per route at once (peak_in_flight)
)";
}

} // namespace kavelo
