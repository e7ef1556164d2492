// FuseMounts.cpp - file systems the kernel cannot mount, served by an installed FUSE helper.
#include "FuseMounts.h"

#include "ToolFolders.h"

#include "Internal/QXSafeFileWriter.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <spawn.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace hdiutil {

namespace {

namespace fs = std::filesystem;

struct Helper {
    const char* idType;
    const char* program;
    std::vector<std::string> options;  // before the device and the folder
    std::vector<std::string> trailing; // after them
};

// Each is told read-only its own way, so the mount table says ro as the kernel's
// mounts do. fuseiso keeps a list of its mounts in the home folder unless told not to.
const std::vector<Helper>& helpers() {
    static const std::vector<Helper> table = {
        {"apfs", "fsapfsmount", {"-X", "ro"}, {}},
        {"iso9660", "fuseiso", {"-n"}, {"-o", "ro"}},
        {"vfat", "fusefat", {"-o", "ro"}, {}},
    };
    return table;
}

std::string findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/local/bin:/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && ::access((folder + "/" + name).c_str(), X_OK) == 0) return folder + "/" + name;
    return {};
}

std::string recordPath(const qx::BlockDeviceDescription& disk) {
    return runtimeFolder() + "/fuse-" + disk.name + "-" + std::to_string(disk.diskSeq);
}

// name TAB mount point, one a line.
std::vector<std::pair<std::string, std::string>> readRecord(const qx::BlockDeviceDescription& disk) {
    std::vector<std::pair<std::string, std::string>> entries;
    std::ifstream file(recordPath(disk));
    for (std::string line; std::getline(file, line);)
        if (const auto tab = line.find('\t'); tab != std::string::npos) entries.emplace_back(line.substr(0, tab), line.substr(tab + 1));
    return entries;
}

// The mount table writes space, tab, newline and backslash as \ooo.
std::string unescape(const std::string& field) {
    std::string out;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field.find_first_not_of("01234567", i + 1) >= i + 4) {
            out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

bool isMounted(const std::string& point) {
    std::ifstream mounts("/proc/self/mounts");
    for (std::string device, folder, rest; mounts >> device >> folder && std::getline(mounts, rest);)
        if (unescape(folder) == point) return true;
    return false;
}

// A new folder for the volume under /run/media/USER, named like the service names its own.
std::string makeMountFolder(const qx::BlockDeviceDescription& d) {
    const passwd* user = ::getpwuid(::geteuid());
    const fs::path root = std::string("/run/media/") + (user && user->pw_name ? user->pw_name : std::to_string(::geteuid()));
    std::error_code ec;
    fs::create_directories(root, ec);
    std::string base = !d.idLabel.empty() ? d.idLabel : !d.idUUID.empty() ? d.idUUID : d.name;
    for (char& c : base)
        if (c == '/') c = '_';
    for (int suffix = 0; suffix < 1000; ++suffix) {
        const fs::path candidate = root / (suffix ? base + std::to_string(suffix) : base);
        if (::mkdir(candidate.c_str(), 0700) == 0) return candidate.string();
        if (errno != EEXIST) break;
    }
    return {};
}

int run(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // The helper's chatter would reach the console, where callers look for the tool's own lines.
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return -1;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

std::string mountWithHelper(const qx::BlockDeviceDescription& d, const qx::BlockDeviceDescription& disk) {
    const Helper* helper = nullptr;
    for (const auto& h : helpers())
        if (d.idType == h.idType) helper = &h;
    const std::string program = helper ? findProgram(helper->program) : std::string();
    if (program.empty()) return {};
    const std::string folder = makeMountFolder(d);
    if (folder.empty()) return {};
    auto arguments = helper->options;
    arguments.push_back(d.device);
    arguments.push_back(folder);
    arguments.insert(arguments.end(), helper->trailing.begin(), helper->trailing.end());
    // The helpers serve from the background once the mount is in place.
    if (run(program, arguments) != 0 || !isMounted(folder)) {
        ::umount2(folder.c_str(), MNT_DETACH);
        ::rmdir(folder.c_str());
        return {};
    }
    std::string record;
    for (const auto& [name, point] : readRecord(disk)) record += name + "\t" + point + "\n";
    record += d.name + "\t" + folder + "\n";
    QXSafeFileWriter writer;
    if (makeFolder(runtimeFolder()) == 0 && writer.open(recordPath(disk)) == 0 && writer.writeAll(record.data(), record.size()) == 0)
        writer.commit();
    return folder;
}

void addHelperMounts(std::vector<qx::BlockDeviceDescription>& devices) {
    if (devices.empty()) return;
    for (const auto& [name, point] : readRecord(devices.front())) {
        if (!isMounted(point)) continue;
        for (auto& d : devices)
            if (d.name == name && d.filesystem) d.filesystem->mountPoints.push_back(point);
    }
}

bool isHelperMount(const std::vector<qx::BlockDeviceDescription>& devices, const std::string& mountPoint) {
    if (devices.empty()) return false;
    for (const auto& entry : readRecord(devices.front()))
        if (entry.second == mountPoint) return true;
    return false;
}

int unmountHelper(const std::string& mountPoint, bool force) {
    if (::umount2(mountPoint.c_str(), force ? MNT_DETACH : 0) != 0) return errno;
    ::rmdir(mountPoint.c_str());
    return 0;
}

void forgetHelperMounts(const qx::BlockDeviceDescription& disk) { ::unlink(recordPath(disk).c_str()); }

} // namespace hdiutil
