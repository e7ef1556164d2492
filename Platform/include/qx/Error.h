// Error.h - the platform's error object: domain, signed 64-bit code, user info.
#pragma once

#include <qx/Dictionary.h>

#include <cstdint>

namespace qx {

// Platform error domains, used by name.
inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* NSOSStatusErrorDomain = "NSOSStatusErrorDomain";
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";

// Platform user-info keys.
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr const char* NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr const char* NSURLErrorKey = "NSURL";
inline constexpr const char* NSFilePathErrorKey = "NSFilePath";
inline constexpr const char* NSURLErrorFailingURLErrorKey = "NSErrorFailingURLKey";
inline constexpr const char* NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";

class Error final : public Object {
public:
    Error(std::string domain, std::int64_t code, Ref<Dictionary> userInfo);
    static Ref<Error> create(std::string domain, std::int64_t code, Ref<Dictionary> userInfo = nullptr) {
        return std::make_shared<Error>(std::move(domain), code, std::move(userInfo));
    }

    const std::string& domain() const { return domain_; }
    std::int64_t code() const { return code_; }
    /// Never null (an empty dictionary when none was given).
    const Ref<Dictionary>& userInfo() const { return userInfo_; }

    /// The user-info description; else the platform's failure reason for the
    /// domain and code; else "The operation couldn’t be completed. (D error C.)".
    std::string localizedDescription() const;
    /// The user-info failure reason; for an error with no user-info entry, the
    /// platform's text for the domain and code; else nothing.
    Ref<String> localizedFailureReason() const;
    /// The user-info recovery suggestion, or nothing.
    Ref<String> localizedRecoverySuggestion() const;
    /// The error under NSUnderlyingErrorKey, or nothing.
    Ref<Error> underlyingError() const;

    /// The platform's failure reason for a bare error of this domain and code:
    /// strerror for POSIX codes, a table for the Cocoa and status codes the
    /// library meets. Nothing when the platform has no text.
    static Ref<String> platformFailureReason(const std::string& domain, std::int64_t code);
    /// The security service's message for a status code, or nothing when it has none.
    static Ref<String> securityErrorMessage(std::int32_t status);

    std::string className() const override { return "Error"; }
    /// "Error Domain=D Code=C \"description\" UserInfo={...}".
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return std::hash<std::string>()(domain_) ^ static_cast<std::size_t>(code_); }

private:
    std::string domain_;
    std::int64_t code_;
    Ref<Dictionary> userInfo_;
};

} // namespace qx
