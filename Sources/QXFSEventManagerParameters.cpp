// QXFSEventManagerParameters.cpp - a saved question: these folders, since this event.
#include <QXFoundation/QXFSEventManagerParameters.h>

#include <qx/Number.h>
#include <qx/URL.h>

#include <filesystem>

namespace {

// Registered when the library loads, so that unarchiving finds the class.
[[maybe_unused]] const bool registered = [] {
    qx::registerCodingClass("QXFSEventManagerParameters", {"QXFSEventManagerParameters", "NSObject"},
                            [](qx::Coder& coder) -> qx::Ref<qx::Object> { return QXFSEventManagerParameters::initWithCoder(coder); });
    return true;
}();

} // namespace

std::string QXFSEventStandardizedPath(const std::string& path) {
    std::string result = std::filesystem::path(path).lexically_normal().string();
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

QXFSEventManagerParameters::Ref QXFSEventManagerParameters::parametersWithURLs(const qx::Ref<qx::Array>& URLs, std::uint64_t event) {
    auto copied = URLs ? std::make_shared<qx::Array>(URLs->items()) : qx::Array::create();
    return std::make_shared<QXFSEventManagerParameters>(std::move(copied), event);
}

QXFSEventManagerParameters::Ref QXFSEventManagerParameters::initWithCoder(qx::Coder& coder) {
    qx::Ref<qx::Object> URLs;
    std::uint64_t event;
    if (coder.allowsKeyedCoding()) {
        URLs = coder.decodeObject(URLsKey);
        event = static_cast<std::uint64_t>(coder.decodeInt64(EventKey));
    } else {
        URLs = coder.decodeObject();
        auto number = qx::dyn_cast<qx::Number>(coder.decodeObject());
        event = number ? number->uint64Value() : 0;
    }
    return parametersWithURLs(qx::dyn_cast<qx::Array>(URLs), event);
}

void QXFSEventManagerParameters::encodeWithCoder(qx::Coder& coder) const {
    (void)registered;
    if (coder.allowsKeyedCoding()) {
        coder.encodeObject(_URLs, URLsKey);
        coder.encodeInt64(static_cast<std::int64_t>(_event), EventKey);
    } else {
        coder.encodeObject(_URLs);
        coder.encodeObject(qx::Number::withUInt64(_event));
    }
}

std::vector<std::string> QXFSEventManagerParameters::standardizedPaths() const {
    std::vector<std::string> paths;
    for (const auto& item : *_URLs)
        if (auto url = qx::dyn_cast<qx::URL>(item); url && url->isFileURL()) paths.push_back(QXFSEventStandardizedPath(url->path()));
    return paths;
}

const std::vector<std::string>& QXFSEventManagerParameters::pathPrefixes() const {
    std::call_once(_prefixesOnce, [this] {
        for (auto& path : standardizedPaths()) _prefixes.push_back(path == "/" ? path : path + "/");
    });
    return _prefixes;
}

bool QXFSEventManagerParameters::covers(const std::string& path) const {
    const std::string folder = path == "/" ? path : path + "/";
    for (const auto& prefix : pathPrefixes())
        if (folder.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
}

std::string QXFSEventManagerParameters::description() const {
    return "<QXFSEventManagerParameters event " + std::to_string(_event) + " URLs " + _URLs->description() + ">";
}

bool QXFSEventManagerParameters::isEqual(const qx::Object& other) const {
    const auto* parameters = dynamic_cast<const QXFSEventManagerParameters*>(&other);
    return parameters && parameters->_event == _event && _URLs->isEqual(*parameters->_URLs);
}

std::size_t QXFSEventManagerParameters::hash() const { return std::hash<std::uint64_t>()(_event) ^ _URLs->count(); }

qx::Ref<qx::Object> QXFSEventManagerParameters::copy() const {
    return std::const_pointer_cast<qx::Object>(shared_from_this());
}
