// ProcessInfo.h - facts about the running process and operating system.
#pragma once

#include <qx/Object.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace qx {

struct OperatingSystemVersion {
    std::int64_t majorVersion = 0;
    std::int64_t minorVersion = 0;
    std::int64_t patchVersion = 0;
};

class ProcessInfo final : public Object {
public:
    static Ref<ProcessInfo> processInfo();

    /// The kernel's release as numbers ("6.1.0-18-amd64" gives 6, 1, 0); all
    /// zero when the system cannot say.
    OperatingSystemVersion operatingSystemVersion() const { return version_; }
    /// Human-readable: the system's name and release ("Linux 6.1.0-18-amd64").
    const std::string& operatingSystemVersionString() const { return versionString_; }
    /// True when the running system's version is at least the given one.
    bool isOperatingSystemAtLeastVersion(const OperatingSystemVersion& version) const;

    /// The leading dotted numbers of a release text; missing parts are 0.
    static OperatingSystemVersion versionFromReleaseString(std::string_view release);

    std::string className() const override { return "ProcessInfo"; }

    ProcessInfo();

private:
    OperatingSystemVersion version_;
    std::string versionString_;
};

} // namespace qx
