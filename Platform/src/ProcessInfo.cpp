// ProcessInfo.cpp - operating-system version from uname.
#include <qx/ProcessInfo.h>

#include <sys/utsname.h>

#include <limits>

namespace qx {

ProcessInfo::ProcessInfo() {
    struct utsname u;
    if (::uname(&u) != 0) return;
    version_ = versionFromReleaseString(u.release);
    versionString_ = std::string(u.sysname) + " " + u.release;
}

Ref<ProcessInfo> ProcessInfo::processInfo() {
    // The system does not change under a running process: ask once.
    static const Ref<ProcessInfo>* const info = new Ref<ProcessInfo>(std::make_shared<ProcessInfo>());
    return *info;
}

OperatingSystemVersion ProcessInfo::versionFromReleaseString(std::string_view release) {
    std::int64_t parts[3] = {0, 0, 0};
    std::size_t i = 0;
    for (int part = 0; part < 3; ++part) {
        if (i >= release.size() || release[i] < '0' || release[i] > '9') break;
        std::int64_t v = 0;
        for (; i < release.size() && release[i] >= '0' && release[i] <= '9'; ++i)
            v = v > (std::numeric_limits<std::int64_t>::max() - 9) / 10 ? std::numeric_limits<std::int64_t>::max()
                                                                          : v * 10 + (release[i] - '0');
        parts[part] = v;
        if (i >= release.size() || release[i] != '.') break;
        ++i;
    }
    return {parts[0], parts[1], parts[2]};
}

bool ProcessInfo::isOperatingSystemAtLeastVersion(const OperatingSystemVersion& v) const {
    if (version_.majorVersion != v.majorVersion) return version_.majorVersion > v.majorVersion;
    if (version_.minorVersion != v.minorVersion) return version_.minorVersion > v.minorVersion;
    return version_.patchVersion >= v.patchVersion;
}

} // namespace qx
