// URL.cpp - URL parsing through libcurl's URL API.
#include <qx/URL.h>

#include "CurlHandles.h"

#include <memory>
#include <unistd.h>

namespace qx {

namespace {

bool getPart(CURLU* u, CURLUPart part, std::string& out, unsigned flags = 0) {
    char* raw = nullptr;
    if (curl_url_get(u, part, &raw, flags) != CURLUE_OK) return false;
    CurlString s(raw);
    out = raw ? raw : "";
    return true;
}

std::string percentEncodePath(std::string_view path) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~' || c == '!' || c == '$' ||
            c == '&' || c == '\'' || c == '(' || c == ')' || c == '*' || c == '+' || c == ',' || c == ';' ||
            c == '=' || c == ':' || c == '@') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

// Registered when the library loads, so that unarchiving finds the class.
[[maybe_unused]] const bool registered = [] {
    registerCodingClass("URL", {"URL", "NSURL", "NSObject"}, [](Coder& coder) -> Ref<Object> {
        Ref<Object> text;
        if (coder.allowsKeyedCoding()) {
            text = coder.decodeObject("NS.relative");
        } else {
            coder.decodeObject();  // the base: URLs are always written absolute
            text = coder.decodeObject();
        }
        auto string = dyn_cast<String>(text);
        return string ? URL::URLWithString(string->utf8()) : nullptr;
    });
    return true;
}();

} // namespace

void URL::encodeWithCoder(Coder& coder) const {
    (void)registered;
    if (coder.allowsKeyedCoding()) {
        coder.encodeObject(nullptr, "NS.base");
        coder.encodeObject(String::create(absolute_), "NS.relative");
    } else {
        coder.encodeObject(nullptr);
        coder.encodeObject(String::create(absolute_));
    }
}

Ref<URL> URL::fileURLWithPath(std::string_view path, bool isDirectory) {
    if (path.empty()) return nullptr;
    std::string absolute;
    if (path.front() != '/') {
        char cwd[4096];
        if (!getcwd(cwd, sizeof cwd)) return nullptr;
        absolute = cwd;
        if (absolute.back() != '/') absolute += '/';
    }
    absolute.append(path);
    if (isDirectory && absolute.back() != '/') absolute += '/';
    return URLWithString("file://" + percentEncodePath(absolute));
}

Ref<URL> URL::URLWithString(std::string_view text) {
    if (text.empty()) return nullptr;
    CurlUrl u(curl_url());
    if (!u) return nullptr;
    const std::string s(text);
    if (curl_url_set(u.get(), CURLUPART_URL, s.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) return nullptr;
    auto url = std::make_shared<URL>();
    if (!getPart(u.get(), CURLUPART_URL, url->absolute_)) return nullptr;
    getPart(u.get(), CURLUPART_SCHEME, url->scheme_);
    getPart(u.get(), CURLUPART_HOST, url->host_);
    std::string port;
    if (getPart(u.get(), CURLUPART_PORT, port)) url->port_ = std::atoi(port.c_str());
    getPart(u.get(), CURLUPART_PATH, url->path_, CURLU_URLDECODE);
    if (url->isFileURL() && url->path_.size() > 1 && url->path_.back() == '/') url->path_.pop_back();
    return url;
}

std::string URL::lastPathComponent() const {
    if (path_ == "/") return path_;
    const auto slash = path_.rfind('/');
    return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

std::string URL::pathExtension() const {
    const std::string last = lastPathComponent();
    const auto dot = last.rfind('.');
    return (dot == std::string::npos || dot == 0) ? std::string() : last.substr(dot + 1);
}

Ref<URL> URL::URLByAppendingPathComponent(std::string_view component) const {
    if (isFileURL()) {
        std::string p = path_;
        if (p.empty() || p.back() != '/') p += '/';
        p.append(component);
        return fileURLWithPath(p);
    }
    std::string s = absolute_;
    const auto q = s.find_first_of("?#");
    std::string tail;
    if (q != std::string::npos) {
        tail = s.substr(q);
        s.erase(q);
    }
    if (s.empty() || s.back() != '/') s += '/';
    s += percentEncodePath(component);
    return URLWithString(s + tail);
}

bool URL::isEqual(const Object& other) const {
    const auto* u = dynamic_cast<const URL*>(&other);
    return u && u->absolute_ == absolute_;
}

} // namespace qx
