// MountTable.h - what the kernel has mounted where, and the processes serving
// FUSE mounts, as tests of mounting tools check them.
#pragma once

#include "TestSupport.h"

#include <optional>
#include <sstream>
#include <sys/types.h>

namespace qxtest {

struct MountEntry {
    std::string point;   // unescaped
    std::string options; // the mount's own: "ro,nosuid,..."
    std::string type;    // "ext4", "fuse", "fuse.fuseiso"
    std::string source;  // "/dev/loop3p1", "fuseiso"
};

// The mount table writes space, tab, newline and backslash as \ooo.
inline std::string unescapeMountField(const std::string& field) {
    std::string out;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            out += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

// This process's mount table, in its order (mountinfo: id parent dev root point options ... - type source super).
inline std::vector<MountEntry> mountTable() {
    std::vector<MountEntry> entries;
    std::ifstream mountinfo("/proc/self/mountinfo");
    for (std::string line; std::getline(mountinfo, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point, word;
        MountEntry entry;
        if (!(fields >> id >> parent >> device >> root >> point >> entry.options)) continue;
        while (fields >> word && word != "-") {
        }
        fields >> entry.type >> entry.source;
        entry.point = unescapeMountField(point);
        entries.push_back(std::move(entry));
    }
    return entries;
}

// The mount at point, if any.
inline std::optional<MountEntry> mountAt(const std::string& point) {
    for (auto& entry : mountTable())
        if (entry.point == point) return std::move(entry);
    return std::nullopt;
}

inline bool hasOption(const MountEntry& entry, const std::string& option) {
    return ("," + entry.options + ",").find("," + option + ",") != std::string::npos;
}

// Processes not yet exited (zombies are) whose command line holds text, by pid.
inline std::vector<pid_t> liveProcessesNaming(const std::string& text) {
    std::vector<pid_t> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos || name == std::to_string(::getpid())) continue;
        std::string commandLine = readFile(entry.path() / "cmdline");
        std::replace(commandLine.begin(), commandLine.end(), '\0', ' ');
        const std::string stat = readFile(entry.path() / "stat");
        const auto close = stat.rfind(')');
        const bool zombie = close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] == 'Z';
        if (!zombie && commandLine.find(text) != std::string::npos) found.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return found;
}

} // namespace qxtest
