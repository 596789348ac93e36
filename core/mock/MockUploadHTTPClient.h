#pragma once

#include "core/backend/HTTPClient.h"

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace kavelo {

class MockBackend;

// The storage of mock mode. It answers the chunk uploads of both routes (the mock signed URLs and the
// storage fallback path) the way storage would, and records every accepted chunk in the MockBackend, so
// that the mock recording API lists it. Everything else gets 404: in mock mode no other traffic goes out.
//
// Knobs inject the failures that the live storage can give, so the worker's retry paths run unchanged.
// Answers carry the status and an empty body. Safe from any thread; the client's lock is released before
// the backend's is taken.
class MockUploadHTTPClient final : public HTTPClient {
  public:
    explicit MockUploadHTTPClient(std::shared_ptr<MockBackend> backend);

    HTTPResponse send(const HTTPRequest& request) override;

    // The next n uploads of this sequence answer 500 and store nothing.
    void setFailuresPerSequence(int sequence, int n);
    // Every storage request answers 500.
    void setAlwaysFail(bool on);
    // Uploads of these sequences are stored and then answered with 409, as an object that exists already.
    void setConflictSequences(std::set<int> sequences);

  private:
    const std::shared_ptr<MockBackend> backend_;
    mutable std::mutex mutex_;
    std::map<int, int> failuresPerSequence_; // guarded by mutex_
    bool alwaysFail_ = false;                // guarded by mutex_
    std::set<int> conflictSequences_;        // guarded by mutex_
};

} // namespace kavelo
