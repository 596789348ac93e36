#include "tools/devserver/UploadRoutes.h"

#include "core/support/PercentEncoding.h"
#include "core/transport/ChunkStore.h"
#include "tools/devserver/CallerAuth.h"
#include "tools/devserver/DevServerOptions.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/ObjectStorage.h"
#include "tools/devserver/RecordingStore.h"
#include "tools/devserver/RouteRunner.h"
#include "tools/devserver/UploadSigner.h"

#include <httplib.h>

#include <algorithm>

namespace kavelo {

namespace {

const std::string kChunkBucket = "recordings";

bool isUploadBucket(const std::string& bucket) {
    return bucket == "recordings" || bucket == "logos";
}

void store(DevServerContext& ctx, httplib::Response& res, const std::string& bucket, const std::string& path,
           const std::string& body, bool upsert) {
    if (!isUploadBucket(bucket)) {
        HttpReply::error(res, 404, "bucket_not_found", "Bucket not found");
        return;
    }
    if (!ObjectStorage::isValidObjectPath(path)) {
        HttpReply::error(res, 400, "invalid_key", "Invalid object name");
        return;
    }
    auto result = ctx.storage.put(bucket, path, Bytes(body.begin(), body.end()), upsert);
    if (result == ObjectStorage::PutResult::conflict) {
        if (ctx.options.storageConflictAs400) {
            HttpReply::json(res, 400,
                            Json{{"statusCode", "409"},
                                 {"error", "Duplicate"},
                                 {"message", "The resource already exists"}});
            return;
        }
        HttpReply::error(res, 409, "Duplicate", "The resource already exists");
        return;
    }
    HttpReply::json(res, 200, Json{{"Key", bucket + "/" + path}});
}

void generateUploadUrls(DevServerContext& ctx, const httplib::Request& req, httplib::Response& res) {
    auto secret = req.get_header_value("x-recording-secret");
    if (secret.empty()) {
        HttpReply::error(res, 401, "missing_secret", "x-recording-secret is required");
        return;
    }
    auto body = HttpReply::objectBody(req);
    if (!body || !(*body)["recording_id"].is_string() || !(*body)["start_sequence"].is_number_integer() ||
        !(*body)["count"].is_number_integer()) {
        HttpReply::error(res, 400, "invalid_request", "recording_id, start_sequence and count are required");
        return;
    }
    auto recordingId = (*body)["recording_id"].get<std::string>();
    auto start = (*body)["start_sequence"].get<long long>();
    auto count = (*body)["count"].get<long long>();
    if (start < 1 || count < 0 || count > 1000 || start > 10'000'000) {
        HttpReply::error(res, 400, "invalid_request", "start_sequence from 1, count from 0 to 1000");
        return;
    }
    switch (ctx.recordings.checkSecret(recordingId, secret)) {
    case RecordingStore::SecretCheck::unknownRecording:
        HttpReply::error(res, 404, "recording_not_found", "Recording not found");
        return;
    case RecordingStore::SecretCheck::wrongSecret:
        HttpReply::error(res, 401, "invalid_secret", "Recording secret does not match");
        return;
    case RecordingStore::SecretCheck::ok:
        break;
    }
    auto expiresAt = addSeconds(ctx.clock->now(), ctx.signer.lifetime());
    Json urls = Json::array();
    for (long long sequence = start; sequence < start + count; ++sequence) {
        auto path = recordingId + "/chunks/" + ChunkStore::filename(static_cast<int>(sequence));
        auto token = ctx.signer.sign(kChunkBucket + "/" + path, expiresAt);
        urls.push_back(Json{{"sequence", sequence},
                            {"url", ctx.baseUrl + "/storage/v1/object/upload/sign/" + kChunkBucket + "/" +
                                        PercentEncoding::path(path) + "?token=" + token}});
    }
    HttpReply::json(res, 200, Json{{"urls", urls}});
}

void signedUpload(DevServerContext& ctx, const httplib::Request& req, httplib::Response& res) {
    auto bucket = req.matches[1].str();
    auto path = req.matches[2].str();
    auto token = req.get_param_value("token");
    switch (ctx.signer.verify(bucket + "/" + path, token, ctx.clock->now())) {
    case UploadSigner::Verdict::invalid:
        HttpReply::error(res, 403, "invalid_signature", "Invalid signature");
        return;
    case UploadSigner::Verdict::expired:
        HttpReply::error(res, 401, "url_expired", "Signed URL has expired");
        return;
    case UploadSigner::Verdict::valid:
        break;
    }
    store(ctx, res, bucket, path, req.body, req.get_header_value("x-upsert") == "true");
}

void storageUpload(DevServerContext& ctx, const httplib::Request& req, httplib::Response& res) {
    if (!ctx.callers.identify(req, res, false)) {
        return;
    }
    store(ctx, res, req.matches[1].str(), req.matches[2].str(), req.body,
          req.get_header_value("x-upsert") == "true");
}

} // namespace

std::optional<int> UploadRoutes::sequenceOfChunkFile(const std::string& name) {
    const std::string suffix = ".aac";
    if (name.size() <= suffix.size() || name.size() > suffix.size() + 9 || !name.ends_with(suffix)) {
        return std::nullopt;
    }
    auto digits = name.substr(0, name.size() - suffix.size());
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return std::stoi(digits);
}

std::vector<int> UploadRoutes::storedSequences(const ObjectStorage& storage, const std::string& recordingId) {
    std::vector<int> sequences;
    if (!ObjectStorage::isValidObjectPath(recordingId + "/chunks")) {
        return sequences;
    }
    for (const auto& name : storage.filesIn(kChunkBucket, recordingId + "/chunks")) {
        if (auto sequence = sequenceOfChunkFile(name)) {
            sequences.push_back(*sequence);
        }
    }
    std::sort(sequences.begin(), sequences.end());
    sequences.erase(std::unique(sequences.begin(), sequences.end()), sequences.end());
    return sequences;
}

void UploadRoutes::install(httplib::Server& server, DevServerContext& ctx) {
    server.Post("/functions/v1/generate-upload-urls",
                ctx.runner.wrap("generate-upload-urls",
                                [&ctx](const auto& req, auto& res) { generateUploadUrls(ctx, req, res); }));
    server.Put(R"(/storage/v1/object/upload/sign/([^/]+)/(.+))",
               ctx.runner.wrap("signed-upload",
                               [&ctx](const auto& req, auto& res) { signedUpload(ctx, req, res); }));
    server.Post(R"(/storage/v1/object/([^/]+)/(.+))",
                ctx.runner.wrap("storage-upload",
                                [&ctx](const auto& req, auto& res) { storageUpload(ctx, req, res); }));
}

} // namespace kavelo
