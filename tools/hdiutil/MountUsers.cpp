// MountUsers.cpp - whether anything still uses a mounted file system.
#include "MountUsers.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace hdiutil {

namespace {

namespace fs = std::filesystem;

bool onDevice(const fs::path& path, const std::set<dev_t>& devices) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && devices.count(status.st_dev) > 0;
}

// A maps line: address perms offset major:minor inode path.
bool mapsDevice(const fs::path& maps, const std::set<dev_t>& devices) {
    std::ifstream in(maps);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string address, perms, offset, device;
        if (!(fields >> address >> perms >> offset >> device)) continue;
        const auto colon = device.find(':');
        if (colon == std::string::npos) continue;
        const auto major = std::strtoul(device.substr(0, colon).c_str(), nullptr, 16);
        const auto minor = std::strtoul(device.substr(colon + 1).c_str(), nullptr, 16);
        if ((major || minor) && devices.count(makedev(major, minor))) return true;
    }
    return false;
}

bool processUses(const fs::path& process, const std::set<dev_t>& devices) {
    for (const char* link : {"cwd", "root", "exe"})
        if (onDevice(process / link, devices)) return true;
    std::error_code ec;
    for (fs::directory_iterator fd(process / "fd", ec), end; !ec && fd != end; fd.increment(ec))
        if (onDevice(fd->path(), devices)) return true;
    return mapsDevice(process / "maps", devices);
}

} // namespace

bool isAnyInUse(const std::vector<std::string>& mountPoints) {
    std::set<dev_t> devices;
    for (const auto& point : mountPoints) {
        struct stat status {};
        if (::stat(point.c_str(), &status) == 0) devices.insert(status.st_dev);
    }
    if (devices.empty()) return false;
    const std::string self = std::to_string(::getpid());
    std::error_code ec;
    for (fs::directory_iterator entry("/proc", ec), end; !ec && entry != end; entry.increment(ec)) {
        const std::string name = entry->path().filename().string();
        if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos || name == self) continue;
        if (processUses(entry->path(), devices)) return true;
    }
    return false;
}

} // namespace hdiutil
