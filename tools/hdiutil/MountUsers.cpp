// MountUsers.cpp - whether anything still uses a mounted file system.
#include "MountUsers.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
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

// Each directory of /proc named by a number, other than this process.
template <typename Visit> void forEachOtherProcess(Visit visit) {
    const std::string self = std::to_string(::getpid());
    std::error_code ec;
    for (fs::directory_iterator entry("/proc", ec), end; !ec && entry != end; entry.increment(ec)) {
        const std::string name = entry->path().filename().string();
        if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos || name == self) continue;
        if (!visit(entry->path())) return;
    }
}

// The state letter follows the command name, which may itself hold ") ".
bool isRunning(pid_t process) {
    std::ifstream in("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return false;
    const auto close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) return false;
    const char state = line[close + 2];
    return state != 'Z' && state != 'X';
}

} // namespace

bool isAnyInUse(const std::vector<std::string>& mountPoints) {
    std::set<dev_t> devices;
    for (const auto& point : mountPoints) {
        struct stat status {};
        if (::stat(point.c_str(), &status) == 0) devices.insert(status.st_dev);
    }
    if (devices.empty()) return false;
    bool used = false;
    forEachOtherProcess([&](const fs::path& process) {
        used = processUses(process, devices);
        return !used;
    });
    return used;
}

std::vector<pid_t> deviceHolders(const std::string& path) {
    std::vector<pid_t> holders;
    struct stat device {};
    if (::stat(path.c_str(), &device) != 0 || !S_ISBLK(device.st_mode)) return holders;
    forEachOtherProcess([&](const fs::path& process) {
        std::error_code ec;
        for (fs::directory_iterator fd(process / "fd", ec), end; !ec && fd != end; fd.increment(ec)) {
            struct stat status {};
            if (::stat(fd->path().c_str(), &status) == 0 && S_ISBLK(status.st_mode) && status.st_rdev == device.st_rdev) {
                holders.push_back(static_cast<pid_t>(std::stol(process.filename().string())));
                break;
            }
        }
        return true;
    });
    return holders;
}

bool waitForExit(const std::vector<pid_t>& processes, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        bool running = false;
        for (const pid_t process : processes) running = running || isRunning(process);
        if (!running) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace hdiutil
