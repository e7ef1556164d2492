// Error.cpp - errors and the platform's texts for bare errors.
#include <qx/Error.h>

#include <cstring>

namespace qx {

namespace {

struct CodeText {
    std::int64_t code;
    const char* text;
};

// The Cocoa codes the library meets. Texts are the platform's failure reasons.
constexpr CodeText kCocoaTexts[] = {
    {4, "The file doesn’t exist."},
    {256, "The file couldn’t be opened."},
    {257, "The file couldn’t be opened because you don’t have permission to view it."},
    {258, "The file couldn’t be opened because the file name is invalid."},
    {259, "The file couldn’t be opened because it isn’t in the correct format."},
    {260, "The file couldn’t be opened because there is no such file."},
    {261, "The file couldn’t be opened because the text encoding of its contents can’t be determined."},
    {262, "The file couldn’t be opened because the specified URL type isn’t supported."},
    {263, "The file couldn’t be opened because it is too large."},
    {512, "The file couldn’t be saved."},
    {513, "You don’t have permission to save the file."},
    {514, "The file couldn’t be saved because the file name is invalid."},
    {516, "The file couldn’t be saved because a file with the same name already exists."},
    {517, "The file couldn’t be saved because the text encoding isn’t applicable."},
    {518, "The file couldn’t be saved because the specified URL type isn’t supported."},
    {640, "The file couldn’t be saved because there isn’t enough space."},
    {642, "The file couldn’t be saved because the volume is read only."},
    {3072, "The operation was cancelled."},
    {3328, "The operation couldn’t be completed because the feature is not supported."},
    {3840, "The data couldn’t be read because it isn’t in the correct format."},
    {3851, "The data couldn’t be written because it isn’t in the correct format."},
};

// Status codes (and security-service codes) the library meets.
constexpr CodeText kStatusTexts[] = {
    {-34, "The disk is full."},
    {-35, "The volume doesn’t exist."},
    {-36, "An I/O error occurred."},
    {-37, "The file name is invalid."},
    {-39, "The end of the file was reached."},
    {-43, "The file doesn’t exist."},
    {-47, "The file is busy."},
    {-48, "A file with this name already exists."},
    {-49, "The file is already open with write permission."},
    {-50, "One or more parameters passed to a function were not valid."},
    {-54, "The file is locked or permission was denied."},
    {-61, "Write permission was denied."},
    {-108, "Not enough memory is available."},
    {-120, "The directory was not found."},
    {-128, "The user canceled the operation."},
    {-1407, "The directory is not empty."},
    {-5000, "Access was denied."},
    {-25291, "No keychain is available."},
    {-25293, "The user name or passphrase you entered is not correct."},
    {-25299, "The specified item already exists in the keychain."},
    {-25300, "The specified item could not be found in the keychain."},
    {-26275, "Unable to decode the provided data."},
    {-34018, "A required entitlement isn’t present."},
};

template <std::size_t N> const char* lookup(const CodeText (&table)[N], std::int64_t code) {
    for (const auto& e : table)
        if (e.code == code) return e.text;
    return nullptr;
}

Ref<String> stringValue(const Dictionary& d, const char* key) { return d.get<String>(key); }

} // namespace

Error::Error(std::string domain, std::int64_t code, Ref<Dictionary> userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(userInfo ? std::move(userInfo) : Dictionary::create()) {}

Ref<String> Error::platformFailureReason(const std::string& domain, std::int64_t code) {
    if (domain == NSPOSIXErrorDomain) {
        if (code <= 0 || code > 4095) return nullptr;
        char buf[256];
        const char* text = strerror_r(static_cast<int>(code), buf, sizeof buf);
        if (!text || std::strncmp(text, "Unknown error", 13) == 0) return nullptr;
        return str(text);
    }
    if (domain == NSCocoaErrorDomain) {
        const char* text = lookup(kCocoaTexts, code);
        return text ? str(text) : nullptr;
    }
    if (domain == NSOSStatusErrorDomain) {
        const char* text = lookup(kStatusTexts, code);
        return text ? str(text) : nullptr;
    }
    return nullptr;
}

Ref<String> Error::securityErrorMessage(std::int32_t status) {
    if (status == 0) return str("No error.");
    const char* text = lookup(kStatusTexts, status);
    return text ? str(text) : nullptr;
}

std::string Error::localizedDescription() const {
    if (auto d = stringValue(*userInfo_, NSLocalizedDescriptionKey)) return d->utf8();
    if (auto r = platformFailureReason(domain_, code_)) return r->utf8();
    return "The operation couldn’t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

Ref<String> Error::localizedFailureReason() const {
    if (auto r = stringValue(*userInfo_, NSLocalizedFailureReasonErrorKey)) return r;
    if (userInfo_->empty()) return platformFailureReason(domain_, code_);
    return nullptr;
}

Ref<String> Error::localizedRecoverySuggestion() const {
    return stringValue(*userInfo_, NSLocalizedRecoverySuggestionErrorKey);
}

Ref<Error> Error::underlyingError() const { return userInfo_->get<Error>(NSUnderlyingErrorKey); }

std::string Error::description() const {
    std::string s = "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription() + "\"";
    if (!userInfo_->empty()) s += " UserInfo=" + userInfo_->description();
    return s;
}

bool Error::isEqual(const Object& other) const {
    const auto* e = dynamic_cast<const Error*>(&other);
    return e && e->domain_ == domain_ && e->code_ == code_ && e->userInfo_->isEqual(*userInfo_);
}

} // namespace qx
