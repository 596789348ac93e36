#include "core/workspace/TipsService.h"

#include <algorithm>
#include <random>

namespace kavelo {

namespace {

std::size_t systemRandomBelow(std::size_t bound) {
    std::random_device device;
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(device);
}

} // namespace

TipsService::TipsService(std::shared_ptr<TipsBackend> backend, std::shared_ptr<KeyValueStore> store,
                         RandomBelow random)
    : backend_(std::move(backend)), store_(std::move(store)),
      random_(random ? std::move(random) : RandomBelow(systemRandomBelow)) {}

bool TipsService::tipsEnabled() const {
    return store_->boolean(kEnabledKey).value_or(true);
}

void TipsService::setTipsEnabled(bool enabled) {
    store_->setBool(enabled, kEnabledKey);
}

void TipsService::setOnEvent(EventSink sink) {
    std::lock_guard lock(mutex_);
    onEvent_ = std::move(sink);
}

std::optional<TipsResponse> TipsService::cachedResponse() const {
    const auto data = store_->data(kCacheKey);
    if (!data) {
        return std::nullopt;
    }
    try {
        return TipsResponse::parse(*data);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<TipsResponse> TipsService::loadTips() {
    try {
        TipsResponse response = backend_->fetch();
        store_->setData(CoreJSON::encodeBytes(response.toJson()), kCacheKey);
        sendEvent("get-tips ok: segment=" + response.segment.value_or("-") +
             " tips=" + std::to_string(response.tips.size()) + " meetingCount=" +
             (response.meetingCount ? std::to_string(*response.meetingCount) : std::string("-")));
        return response;
    } catch (const std::exception& error) {
        auto cached = cachedResponse();
        sendEvent(std::string("get-tips faalde (") + error.what() +
             ") — cache: " + (cached ? std::to_string(cached->tips.size()) + " tips" : std::string("leeg")));
        return cached;
    }
}

std::vector<DashboardTip> TipsService::visibleTips(std::vector<DashboardTip> tips,
                                                   std::optional<std::size_t> randomStart) {
    std::stable_sort(tips.begin(), tips.end(),
                     [](const DashboardTip& a, const DashboardTip& b) { return a.sortOrder < b.sortOrder; });
    if (tips.size() <= kWindowSize) {
        return tips;
    }
    std::size_t start = 0;
    if (randomStart) {
        start = *randomStart % tips.size();
    } else {
        std::optional<std::size_t> chosen;
        {
            std::lock_guard lock(mutex_);
            chosen = windowStart_;
        }
        if (!chosen) {
            // Drawn outside the lock; when two callers race, the first to store wins and both show its
            // window.
            const std::size_t drawn = random_(tips.size());
            std::lock_guard lock(mutex_);
            if (!windowStart_) {
                windowStart_ = drawn;
            }
            chosen = windowStart_;
        }
        // The start was drawn for the list seen then; a shorter list later still wraps safely.
        start = *chosen % tips.size();
    }
    std::vector<DashboardTip> window;
    for (std::size_t i = 0; i < kWindowSize; ++i) {
        window.push_back(tips[(start + i) % tips.size()]);
    }
    return window;
}

void TipsService::sendEvent(const std::string& text) const {
    EventSink sink;
    {
        std::lock_guard lock(mutex_);
        sink = onEvent_;
    }
    if (sink) {
        sink(text);
    }
}

} // namespace kavelo
