#include "app/shell/SecretServiceSessionStore.h"

#include <libsecret/secret.h>

namespace kavelo {

namespace {

// A generic item found by its attributes alone, the way `secret-tool` and other programs store and
// look up items, so an administrator can inspect or remove it by hand.
const SecretSchema* sessionSchema() {
    static const SecretSchema schema = {"org.freedesktop.Secret.Generic",
                                        SECRET_SCHEMA_DONT_MATCH_NAME,
                                        {
                                            {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
                                        },
                                        0,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr};
    return &schema;
}

// Owns a GError and hands out its code, the number the log lines carry.
struct ErrorHolder {
    GError* error = nullptr;
    ~ErrorHolder() {
        if (error) {
            g_error_free(error);
        }
    }
    int code() const { return error ? error->code : 0; }
};

// Owns a secret returned by libsecret and wipes it when done.
struct SecretText {
    gchar* text = nullptr;
    ~SecretText() {
        if (text) {
            secret_password_free(text);
        }
    }
};

} // namespace

SecretServiceSessionStore::SecretServiceSessionStore(std::string service, std::string account,
                                                     std::shared_ptr<CoreLogger> logger)
    : service_(std::move(service)), account_(std::move(account)), logger_(std::move(logger)) {}

void SecretServiceSessionStore::disconnect() {
    secret_service_disconnect();
}

std::optional<AuthSession> SecretServiceSessionStore::load() {
    ErrorHolder failure;
    SecretText secret;
    secret.text = secret_password_lookup_sync(sessionSchema(), nullptr, &failure.error, "service",
                                              service_.c_str(), "account", account_.c_str(), nullptr);
    if (failure.error) {
        logger_->error("Secret Service load faalde: status " + std::to_string(failure.code()));
        return std::nullopt;
    }
    if (!secret.text) {
        return std::nullopt; // no item: signed out, nothing to say
    }
    try {
        return AuthSession::fromJson(CoreJSON::decode(std::string_view(secret.text)));
    } catch (const std::exception&) {
        // The item stays: another version of the program may still read it.
        logger_->error("keychain load: item aanwezig maar niet te decoderen");
        return std::nullopt;
    }
}

void SecretServiceSessionStore::save(const AuthSession& session) {
    std::string json;
    try {
        json = CoreJSON::encode(session.toJson());
    } catch (const std::exception&) {
        logger_->error("keychain save: sessie niet te encoderen");
        return;
    }
    const std::string label = service_ + " (" + account_ + ")";
    auto store = [&](ErrorHolder& failure) {
        // Storing replaces an item with the same attributes, so this is update and add in one.
        return secret_password_store_sync(sessionSchema(), SECRET_COLLECTION_DEFAULT, label.c_str(),
                                          json.c_str(), nullptr, &failure.error, "service", service_.c_str(),
                                          "account", account_.c_str(), nullptr);
    };
    {
        ErrorHolder failure;
        if (store(failure)) {
            return;
        }
        logger_->error("Secret Service update faalde: status " + std::to_string(failure.code()) +
                       " — probeer delete+add");
    }
    {
        ErrorHolder ignored;
        secret_password_clear_sync(sessionSchema(), nullptr, &ignored.error, "service", service_.c_str(),
                                   "account", account_.c_str(), nullptr);
    }
    ErrorHolder failure;
    if (!store(failure)) {
        logger_->error("Secret Service add faalde: status " + std::to_string(failure.code()) +
                       " — sessie leeft alleen in geheugen en overleeft de herstart niet");
    }
}

void SecretServiceSessionStore::clear() {
    ErrorHolder failure;
    // FALSE without an error means there was no item, which is what clearing wants.
    secret_password_clear_sync(sessionSchema(), nullptr, &failure.error, "service", service_.c_str(),
                               "account", account_.c_str(), nullptr);
    if (failure.error) {
        logger_->error("Secret Service delete faalde: status " + std::to_string(failure.code()));
    }
}

} // namespace kavelo
