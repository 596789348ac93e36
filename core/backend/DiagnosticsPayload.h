#pragma once

#include "core/support/CoreJSON.h"

#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// One line of the recording's flight recorder. t is milliseconds since 1970 UTC; level is the raw text of
// the LogLevel.
struct DiagnosticsLogEntry {
    double t = 0;
    std::string level;
    std::string msg;

    [[nodiscard]] Json toJson() const;
    static DiagnosticsLogEntry fromJson(const Json& json);
    bool operator==(const DiagnosticsLogEntry&) const = default;
};

struct DiagnosticsSummary {
    int chunksReceived = 0;
    int chunksUploaded = 0;
    int chunksFailed = 0;
    int errorCount = 0;
    int warnCount = 0;
    double durationMs = 0;

    [[nodiscard]] Json toJson() const;
    static DiagnosticsSummary fromJson(const Json& json);
    bool operator==(const DiagnosticsSummary&) const = default;
};

// What the client tells the server about how a recording went. Travels inside the finalize request and with
// each diagnostics sync. Unlike the other records of the recording road its keys are camelCase, as the
// fields are named here.
struct DiagnosticsPayload {
    std::optional<int> lastSequence;
    std::optional<int> receivedCount;
    std::optional<int> uploadedCount;
    std::vector<int> failedChunks;
    std::optional<std::string> recordingId;
    double sessionStart = 0; // milliseconds since 1970 UTC
    std::string platform;
    std::vector<DiagnosticsLogEntry> logs;
    DiagnosticsSummary summary;
    std::optional<bool> isPaused;
    std::optional<double> totalPausedMs;
    std::optional<std::string> fatalErrorCode;
    std::optional<std::string> fatalErrorMessage;
    std::optional<std::string> recoveryMarker;

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError.
    static DiagnosticsPayload fromJson(const Json& json);
    bool operator==(const DiagnosticsPayload&) const = default;
};

} // namespace kavelo
