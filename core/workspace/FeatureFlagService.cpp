#include "core/workspace/FeatureFlagService.h"

namespace kavelo {

namespace {

bool flag(const std::map<std::string, bool>& raw, const std::string& name, bool fallback) {
    const auto it = raw.find(name);
    return it == raw.end() ? fallback : it->second;
}

} // namespace

FeatureFlagService::FeatureFlagService(std::shared_ptr<FeatureFlagBackend> backend,
                                       std::shared_ptr<KeyValueStore> store)
    : backend_(std::move(backend)), store_(std::move(store)) {
    if (const auto data = store_->data(kCacheKey)) {
        try {
            current_ = FeatureFlags::fromJson(CoreJSON::decode(*data));
        } catch (const std::exception&) {
            current_ = FeatureFlags::defaults();
        }
    }
}

FeatureFlags FeatureFlagService::flags() const {
    std::lock_guard lock(mutex_);
    return current_;
}

bool FeatureFlagService::isEnabled(const std::string& name, bool defaultValue) const {
    std::lock_guard lock(mutex_);
    return flag(current_.raw, name, defaultValue);
}

FeatureFlags FeatureFlagService::refresh() {
    if (!backend_) {
        return flags();
    }
    std::map<std::string, bool> raw;
    try {
        raw = backend_->fetchFlags();
    } catch (const std::exception&) {
        return flags();
    }
    if (!FeatureFlags::isAcceptable(raw)) {
        return flags();
    }
    const FeatureFlags defaults = FeatureFlags::defaults();
    FeatureFlags fresh;
    fresh.templateChooser = flag(raw, "template_chooser", defaults.templateChooser);
    fresh.meetingDetection = flag(raw, "meeting_detection", defaults.meetingDetection);
    fresh.calendarIntegration = flag(raw, "calendar_integration", defaults.calendarIntegration);
    fresh.connectors = flag(raw, "connectors", defaults.connectors);
    fresh.wordAttachment = flag(raw, "word_attachment", defaults.wordAttachment);
    fresh.raw = std::move(raw);
    {
        std::lock_guard lock(mutex_);
        current_ = fresh;
    }
    store_->setData(CoreJSON::encodeBytes(fresh.toJson()), kCacheKey);
    return fresh;
}

} // namespace kavelo
