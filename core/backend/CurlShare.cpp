#include "core/backend/CurlShare.h"

#include <stdexcept>

namespace kavelo {

CurlShare::CurlShare() : share_(curl_share_init()) {
    if (!share_) {
        throw std::runtime_error("curl_share_init failed");
    }
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &CurlShare::lock);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &CurlShare::unlock);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

CurlShare::~CurlShare() {
    curl_share_cleanup(share_);
}

void CurlShare::lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<CurlShare*>(self)->locks_.at(static_cast<std::size_t>(data)).lock();
}

void CurlShare::unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<CurlShare*>(self)->locks_.at(static_cast<std::size_t>(data)).unlock();
}

} // namespace kavelo
