#pragma once

#include "tools/devserver/FaultRule.h"
#include "tools/devserver/RecordingStore.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kavelo {

// Everything kavelo-devserver can be told at start. The same values can be changed while it runs, through
// the admin API, except the port, the data directory and the switches of how the backend answers.
struct DevServerOptions {
    struct SeedUser {
        std::string email;
        std::string password;
        bool operator==(const SeedUser&) const = default;
    };

    int port = 0; // 0: an ephemeral port, printed on the first line
    std::filesystem::path dataDirectory;
    std::string anonKey = "dev-anon-key";
    double accessTokenLifetime = 3600;
    double signedUrlLifetime = 7200;
    bool autoConfirmSignUps = true;
    bool legacyProfiles = false; // the profiles table without job_title and company
    PipelineSettings pipeline;
    std::string oauthCallbackUrl = "kavely://auth-callback";
    std::vector<FaultRule> faults;
    std::uint64_t faultSeed = 1;
    std::vector<SeedUser> users;
    bool logRequests = false;
    // How the hosted backend really answers, where it differs from the plain status: an existing object
    // as 400 with statusCode "409" in the body; an expired access token as this status with a JWT message.
    bool storageConflictAs400 = false;
    int expiredTokenStatus = 401;
    // A hostile backend, for tests of the client's bounds: "" (off), or for the chunk list
    // huge, negative, duplicate or flood, and for the ids that init-recording gives long, path or slash.
    std::string hostileChunkList;
    std::string hostileRecordingId;
    // What /update-policy.json says; the defaults require nothing of any client.
    std::string latestVersion = "0.0.0";
    std::string minimumVersion = "0.0.0";
    bool showHelp = false;

    bool operator==(const DevServerOptions&) const = default;

    // Throws std::invalid_argument naming the offending argument.
    static DevServerOptions parse(const std::vector<std::string>& args);
    static std::string helpText();
};

} // namespace kavelo
