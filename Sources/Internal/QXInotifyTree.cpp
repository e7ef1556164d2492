// QXInotifyTree.cpp - recursive watching on top of per-folder inotify watches.
#include "Internal/QXInotifyTree.h"

#include "Internal/QXDirectoryEntries.h"

#include <qx/UniqueFd.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <dirent.h>
#include <unistd.h>

namespace {

bool isPrefixFolder(const std::string& folder, const std::string& path) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/';
}

} // namespace

std::uint32_t QXInotifyTreeMask() {
    return IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
           IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;
}

bool QXInotifyTree::add(const std::string& path, std::vector<std::string>& refused, int* wd) {
    *wd = inotify_add_watch(fd_, path.c_str(), QXInotifyTreeMask());
    if (*wd >= 0) {
        paths_[*wd] = path;
        return true;
    }
    if (errno == ENOSPC) refused.push_back(path);  // the per-user watch limit: never silent
    return false;
}

void QXInotifyTree::watchTree(const std::string& path, std::vector<std::string>& refused, std::vector<Found>* found) {
    std::vector<std::string> pending{path};
    std::vector<char> buffer;
    while (!pending.empty()) {
        const std::string folder = std::move(pending.back());
        pending.pop_back();
        // The watch comes first: an entry made after it is reported by the
        // kernel, one made before it is found by the read below.
        int wd;
        if (!add(folder, refused, &wd)) continue;
        qx::UniqueFd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!dir) continue;
        QXForEachDirectoryEntry(dir.get(), buffer, [&](const char* name, unsigned char type) {
            if (type == DT_UNKNOWN) {
                struct stat st {};
                if (::fstatat(dir.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) return;
                type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : DT_REG;
            }
            if (type != DT_DIR && !found) return;
            std::string child = folder + "/" + name;
            if (found) found->push_back(Found{child, type == DT_DIR, type == DT_LNK});
            if (type == DT_DIR) pending.push_back(std::move(child));
        });
    }
}

const std::string* QXInotifyTree::pathFor(int wd) const {
    auto it = paths_.find(wd);
    return it == paths_.end() ? nullptr : &it->second;
}

void QXInotifyTree::moveTree(const std::string& from, const std::string& to) {
    for (auto& entry : paths_) {
        if (entry.second == from)
            entry.second = to;
        else if (isPrefixFolder(from, entry.second))
            entry.second = to + entry.second.substr(from.size());
    }
}

void QXInotifyTree::unwatchTree(const std::string& path) {
    for (auto it = paths_.begin(); it != paths_.end();) {
        if (it->second == path || isPrefixFolder(path, it->second)) {
            inotify_rm_watch(fd_, it->first);
            it = paths_.erase(it);
        } else {
            ++it;
        }
    }
}
