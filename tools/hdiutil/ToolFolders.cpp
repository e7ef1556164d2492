// ToolFolders.cpp - where the tool keeps decoded images and its records.
#include "ToolFolders.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hdiutil {

namespace {

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value && *value == '/' ? std::string(value) : std::string();
}

std::string homeCache() {
    if (auto xdg = variable("XDG_CACHE_HOME"); !xdg.empty()) return xdg;
    std::string home = variable("HOME");
    if (home.empty()) {
        const passwd* user = ::getpwuid(::geteuid());
        home = user && user->pw_dir ? user->pw_dir : "/tmp";
    }
    return home + "/.cache";
}

} // namespace

std::string cacheFolder() {
    if (auto folder = variable("QXFOUNDATION_IMAGE_CACHE"); !folder.empty()) return folder;
    if (::geteuid() == 0) return "/var/cache/qxfoundation/images";
    return homeCache() + "/qxfoundation/images";
}

std::string runtimeFolder() {
    if (auto folder = variable("QXFOUNDATION_HDIUTIL_RUNTIME"); !folder.empty()) return folder;
    if (::geteuid() == 0) return "/run/qxfoundation/hdiutil";
    if (auto runtime = variable("XDG_RUNTIME_DIR"); !runtime.empty()) return runtime + "/qxfoundation/hdiutil";
    return homeCache() + "/qxfoundation/hdiutil";
}

int makeFolder(const std::string& folder) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(folder).parent_path(), ec);
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return errno;
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0) return errno;
    return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

} // namespace hdiutil
