#include "core/workspace/LiveTipsBackend.h"

namespace kavelo {

LiveTipsBackend::LiveTipsBackend(std::shared_ptr<SupabaseFunctionClient> functions)
    : functions_(std::move(functions)) {}

TipsResponse LiveTipsBackend::fetch() {
    const Bytes raw = functions_->postRaw(kFunctionName, Json::object(), true, std::nullopt, {},
                                          kTimeoutSeconds, TipsResponse::kMaxBytes);
    try {
        return TipsResponse::parse(raw);
    } catch (const DecodingError& e) {
        throw APIError::decoding(std::string(kFunctionName) + ": " + e.what());
    } catch (const Json::exception& e) {
        throw APIError::decoding(std::string(kFunctionName) + ": " + e.what());
    }
}

} // namespace kavelo
