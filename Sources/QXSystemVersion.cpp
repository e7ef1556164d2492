// QXSystemVersion.cpp - system version from the process-information service or the version file.
#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXSystemVersion.h>

#include "Internal/QXSystemVersionPrivate.h"

#include <qx/Assert.h>
#include <qx/Format.h>
#include <qx/ProcessInfo.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <vector>

namespace {

constexpr const char* kSystemVersionPlist = "/System/Library/CoreServices/SystemVersion.plist";

std::atomic<bool> gForceLegacyPath{false};

struct LegacyVersion {
    std::mutex mutex;  // the once-only guard; a plain flag so tests can reset it
    bool loaded = false;
    std::string plistPath = kSystemVersionPlist;
    std::int64_t major = 0, minor = 0, patch = 0;
};

LegacyVersion& legacy() {
    static LegacyVersion* const v = new LegacyVersion;
    return *v;
}

// The platform layer always offers the process-information service; the
// version file is read only where a test asks for it.
bool usesProcessInfo() { return !gForceLegacyPath.load(); }

qx::Ref<qx::Data> readFile(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return nullptr;
    auto data = qx::Data::create();
    unsigned char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data->append(buf, n);
    std::fclose(f);
    return data;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return parts;
        start = end + 1;
    }
}

// Whatever goes wrong on the way (no file, no dictionary, no "ProductVersion")
// ends in the count assertion, as a missing version would.
void loadLegacyVersion(LegacyVersion& v) {
    qx::Ref<qx::String> productVersion;
    if (auto data = readFile(v.plistPath)) {
        auto plist = QXPropertyListSerialization::propertyListWithData(data, nullptr, nullptr);
        if (auto dict = qx::dyn_cast<qx::Dictionary>(plist)) productVersion = dict->get<qx::String>("ProductVersion");
    }
    const auto versions = productVersion ? split(productVersion->utf8(), '.') : std::vector<std::string>{};
    if (!(versions.size() >= 2))
        qx::assertionFailure("QXGetSystemVersion", "Sources/QXSystemVersion", 21, "versions.count >= 2");
    // Decimal with the usual leniency: leading blanks and a sign, digits up
    // to the first other character, 0 when there are none.
    v.major = std::strtoll(versions[0].c_str(), nullptr, 10);
    v.minor = std::strtoll(versions[1].c_str(), nullptr, 10);
    v.patch = versions.size() > 2 ? std::strtoll(versions[2].c_str(), nullptr, 10) : 0;
    v.loaded = true;
}

qx::OperatingSystemVersion loadedLegacyVersion() {
    auto& v = legacy();
    std::lock_guard<std::mutex> lock(v.mutex);
    if (!v.loaded) loadLegacyVersion(v);
    return {v.major, v.minor, v.patch};
}

} // namespace

void QXSystemVersionForceLegacyPath(bool force) { gForceLegacyPath.store(force); }

void QXSystemVersionSetLegacyPlistPath(const std::string& path) {
    auto& v = legacy();
    std::lock_guard<std::mutex> lock(v.mutex);
    v.plistPath = path;
}

void QXSystemVersionResetLegacyState() {
    auto& v = legacy();
    std::lock_guard<std::mutex> lock(v.mutex);
    v.loaded = false;
    v.major = v.minor = v.patch = 0;
}

void QXGetSystemVersion(std::int64_t* major, std::int64_t* minor, std::int64_t* patch) {
    const auto version =
        usesProcessInfo() ? qx::ProcessInfo::processInfo()->operatingSystemVersion() : loadedLegacyVersion();
    if (major) *major = version.majorVersion;
    if (minor) *minor = version.minorVersion;
    if (patch) *patch = version.patchVersion;
}

qx::Ref<qx::String> QXGetSystemVersionString() {
    if (usesProcessInfo()) return qx::str(qx::ProcessInfo::processInfo()->operatingSystemVersionString());
    std::int64_t major = 0, minor = 0, patch = 0;
    QXGetSystemVersion(&major, &minor, &patch);
    std::string text = qx::format("%ld.%ld", static_cast<long>(major), static_cast<long>(minor));
    if (patch != 0) text += qx::format(".%ld", static_cast<long>(patch));
    return qx::str(text);
}

bool QXSystemVersionIsAtLeast(std::int64_t major, std::int64_t minor, std::int64_t patch) {
    if (usesProcessInfo())
        return qx::ProcessInfo::processInfo()->isOperatingSystemAtLeastVersion({major, minor, patch});
    std::int64_t m = 0, n = 0, p = 0;
    QXGetSystemVersion(&m, &n, &p);
    if (m != major) return m > major;
    if (n != minor) return n > minor;
    return p >= patch;
}
