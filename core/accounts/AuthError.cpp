#include "core/accounts/AuthError.h"

#include "core/backend/PrintedForm.h"

namespace kavelo {

AuthError::AuthError(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {
    printed_ = std::string(toRaw(kind_));
    if (kind_ == Kind::prepareFailed || kind_ == Kind::exchangeFailed || kind_ == Kind::unknown) {
        printed_ += "(" + PrintedForm::quoted(text_) + ")";
    }
}

} // namespace kavelo
