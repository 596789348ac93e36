#include "core/backend/CurlHTTPClient.h"

#include "core/support/CancellationToken.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <mutex>
#include <string_view>

namespace kavelo {

namespace {

void initialiseCurlOnce() {
    // curl_global_init is not safe to race with other curl calls; doing it once, first, makes it so.
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

// What the callbacks of one transfer share with send().
struct Transfer {
    Bytes body;
    std::size_t limit = 0;
    bool tooLarge = false;
    std::shared_ptr<CancellationToken> token;
};

std::size_t receive(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    std::size_t bytes = size * count;
    if (transfer->body.size() + bytes > transfer->limit) {
        transfer->tooLarge = true;
        return 0; // curl ends the transfer with CURLE_WRITE_ERROR
    }
    transfer->body.insert(transfer->body.end(), data, data + bytes);
    return bytes;
}

int progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<Transfer*>(user)->token->isCancelled() ? 1 : 0;
}

std::string lowercase(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

bool hasLineBreak(std::string_view text) {
    return text.find_first_of("\r\n") != std::string_view::npos;
}

long timeoutMilliseconds(double seconds) {
    if (std::isnan(seconds) || seconds <= 0) {
        return 1; // no time at all: time out at once rather than never
    }
    double ms = std::ceil(seconds * 1000.0);
    return ms >= static_cast<double>(INT_MAX) ? INT_MAX : static_cast<long>(ms);
}

// Exactly the caller's headers go out, plus two that curl would otherwise decide on its own: no
// "Expect: 100-continue" (curl adds it to larger POST bodies and then waits up to a second for a server that
// may never answer it), and no invented form Content-Type for a body sent without one.
Slist buildHeaders(const std::map<std::string, std::string>& headers) {
    bool hasExpect = false;
    bool hasContentType = false;
    Slist list;
    auto append = [&list](const std::string& line) {
        curl_slist* head = curl_slist_append(list.get(), line.c_str());
        if (!head) {
            throw TransportError(TransportError::Kind::other, "Out of memory building request headers");
        }
        (void)list.release(); // the same list, now one longer (or new when it was empty)
        list.reset(head);
    };
    for (const auto& [name, value] : headers) {
        if (name.empty() || hasLineBreak(name) || hasLineBreak(value) ||
            name.find(':') != std::string::npos) {
            throw TransportError(TransportError::Kind::other, "Invalid request header field");
        }
        auto lower = lowercase(name);
        hasExpect |= lower == "expect";
        hasContentType |= lower == "content-type";
        // "Name;" is curl's way of sending a header with an empty value.
        append(value.empty() ? name + ";" : name + ": " + value);
    }
    if (!hasExpect) {
        append("Expect:");
    }
    if (!hasContentType) {
        append("Content-Type:");
    }
    return list;
}

} // namespace

CurlHTTPClient::CurlHTTPClient(Options options) : options_(options) {
    initialiseCurlOnce();
}

CurlHTTPClient::~CurlHTTPClient() {
    std::vector<CURL*> idle;
    {
        std::lock_guard lock(mutex_);
        idle.swap(idle_);
    }
    for (CURL* handle : idle) {
        curl_easy_cleanup(handle);
    }
}

CURL* CurlHTTPClient::acquire() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            CURL* handle = idle_.back(); // the most recently used handle has the warmest connection
            idle_.pop_back();
            return handle;
        }
    }
    CURL* handle = curl_easy_init();
    if (!handle) {
        throw TransportError(TransportError::Kind::other, "Could not create an HTTP transfer");
    }
    // A reset keeps the share, so it is set once per handle.
    curl_easy_setopt(handle, CURLOPT_SHARE, share_.handle());
    return handle;
}

void CurlHTTPClient::release(CURL* handle) {
    {
        std::lock_guard lock(mutex_);
        if (idle_.size() < options_.maxIdleHandles) {
            idle_.push_back(handle);
            return;
        }
    }
    curl_easy_cleanup(handle);
}

HTTPResponse CurlHTTPClient::send(const HTTPRequest& request) {
    Transfer transfer;
    transfer.limit = request.maxResponseBytes == 0
                         ? options_.maxResponseBytes
                         : std::min(request.maxResponseBytes, options_.maxResponseBytes);
    transfer.token = CancellationToken::current();
    if (transfer.token->isCancelled()) {
        throw TransportError(TransportError::Kind::cancelled, "cancelled");
    }
    Slist headers = buildHeaders(request.headers);

    CURL* handle = acquire();
    struct Release {
        CurlHTTPClient* client;
        CURL* handle;
        ~Release() { client->release(handle); }
    } releaseOnExit{this, handle};

    // Options of the previous transfer go; its open connections, DNS answers and TLS sessions stay.
    curl_easy_reset(handle);
    char errorText[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L); // no SIGALRM for DNS time-outs on task threads
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, timeoutMilliseconds(request.timeout));
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &receive);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &transfer);

    const std::string& method = request.method;
    if (request.body) {
        // Sent straight from the request's buffer, which outlives the transfer.
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body->data());
        if (method != "POST") {
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
    } else if (method == "GET") {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    } else if (method == "POST" || method == "PUT" || method == "PATCH") {
        // An explicit "Content-Length: 0": some servers wait for a body of these methods without one.
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(0));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, "");
        if (method != "POST") {
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
    } else {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    CURLcode code = curl_easy_perform(handle);
    // The handle goes back to the pool; it must not point at this frame's buffers any more.
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);

    if (code != CURLE_OK) {
        if (code == CURLE_OPERATION_TIMEDOUT) {
            throw TransportError(TransportError::Kind::timeout, "The request timed out.");
        }
        if (code == CURLE_ABORTED_BY_CALLBACK && transfer.token->isCancelled()) {
            throw TransportError(TransportError::Kind::cancelled, "cancelled");
        }
        if (transfer.tooLarge) {
            throw TransportError(TransportError::Kind::other, "The response body is too large.");
        }
        std::string text = errorText[0] != '\0' ? errorText : curl_easy_strerror(code);
        throw TransportError(TransportError::Kind::other, text);
    }
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    return HTTPResponse{static_cast<int>(status), std::move(transfer.body)};
}

} // namespace kavelo
