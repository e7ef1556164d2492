// QXInotifyTranslator.cpp - inotify's raw events as file-system events.
#include "Internal/QXInotifyTranslator.h"

#include "Internal/QXFSEventClock.h"

#include <QXFoundation/QXFSEvent.h>

#include <cstring>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace {

// Bounds the attribute memory of a long watch over a busy tree; forgetting
// only costs the xattr/mode distinction for items not seen since.
constexpr std::size_t kMaxRememberedItems = 1u << 20;

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

std::int64_t modificationTime(const struct stat& st) {
    return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

std::uint32_t typeFlag(const struct stat& st) {
    if (S_ISDIR(st.st_mode)) return QXFSEventFlagItemIsDir;
    if (S_ISLNK(st.st_mode)) return QXFSEventFlagItemIsSymlink;
    return QXFSEventFlagItemIsFile;
}

} // namespace

void QXInotifyTranslator::translate(const char* data, std::size_t length, std::vector<QXFSEventRecord>& out) {
    for (std::size_t offset = 0; offset + sizeof(inotify_event) <= length;) {
        inotify_event header;
        std::memcpy(&header, data + offset, sizeof header);
        const char* name = header.len ? data + offset + sizeof header : "";
        translateOne(header.wd, header.mask, header.cookie, name, out);
        offset += sizeof header + header.len;
    }
    settleMoves();
    reportRefused({}, out);
}

void QXInotifyTranslator::reportRefused(const std::vector<std::string>& refused, std::vector<QXFSEventRecord>& out) {
    refused_.insert(refused_.end(), refused.begin(), refused.end());
    for (auto& path : refused_)
        add(std::move(path), QXFSEventFlagMustScanSubDirs | QXFSEventFlagUserDropped | QXFSEventFlagItemIsDir, 0, out);
    refused_.clear();
}

void QXInotifyTranslator::add(std::string path, std::uint32_t flags, std::uint64_t changeTime, std::vector<QXFSEventRecord>& out) {
    if (changeTime == 0) {
        struct stat folder {};
        changeTime = ::lstat(parentOf(path).c_str(), &folder) == 0 ? QXFSEventClock::changeTime(folder) : QXFSEventClock::now();
    }
    out.push_back(QXFSEventRecord{std::move(path), flags, QXFSEventClock::nextIdentifier(changeTime)});
}

void QXInotifyTranslator::translateOne(int wd, std::uint32_t mask, std::uint32_t cookie, const char* name,
                                       std::vector<QXFSEventRecord>& out) {
    if (mask & IN_Q_OVERFLOW) {
        const std::uint64_t now = QXFSEventClock::now();
        for (const auto& root : roots_)
            add(root, QXFSEventFlagMustScanSubDirs | QXFSEventFlagKernelDropped, now, out);
        return;
    }
    const std::string* folder = tree_.pathFor(wd);
    if (!folder) return;
    if (mask & IN_IGNORED) {
        tree_.forget(wd);
        return;
    }
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
        // Below a root, the parent's own event already names the folder.
        for (const auto& root : roots_)
            if (root == *folder)
                add(root, QXFSEventFlagRootChanged | QXFSEventFlagItemIsDir |
                              ((mask & IN_DELETE_SELF) ? QXFSEventFlagItemRemoved : QXFSEventFlagItemRenamed), 0, out);
        return;
    }
    std::string path = *name ? *folder + "/" + name : *folder;
    std::uint32_t flags = 0;
    if (mask & IN_CREATE) flags |= QXFSEventFlagItemCreated;
    if (mask & IN_DELETE) flags |= QXFSEventFlagItemRemoved;
    if (mask & (IN_MOVED_FROM | IN_MOVED_TO)) flags |= QXFSEventFlagItemRenamed;
    if (mask & IN_MODIFY) flags |= QXFSEventFlagItemModified;

    struct stat st {};
    const bool gone = (mask & (IN_DELETE | IN_MOVED_FROM)) || ::lstat(path.c_str(), &st) != 0;
    if (gone) {
        auto it = attributes_.find(path);
        if (mask & IN_ISDIR)
            flags |= QXFSEventFlagItemIsDir;
        else if (it != attributes_.end() && S_ISLNK(it->second.mode))
            flags |= QXFSEventFlagItemIsSymlink;
        else
            flags |= QXFSEventFlagItemIsFile;
        if (it != attributes_.end()) attributes_.erase(it);
        if ((mask & IN_MOVED_FROM) && (mask & IN_ISDIR)) moves_[cookie] = PendingMove{path, 0};
        if (mask & IN_ATTRIB) flags |= QXFSEventFlagItemInodeMetaMod;
        add(std::move(path), flags, 0, out);
        return;
    }
    flags |= typeFlag(st);
    if (mask & IN_ATTRIB) flags |= attributeFlags(path, st);
    remember(path, st);

    std::vector<std::string> refused;
    if (S_ISDIR(st.st_mode) && (mask & IN_MOVED_TO)) {
        auto move = moves_.find(cookie);
        if (move != moves_.end()) {
            tree_.moveTree(move->second.path, path);
            moves_.erase(move);
        } else {
            tree_.watchTree(path, refused);  // arrived from outside the tree
        }
    }
    const bool newFolder = S_ISDIR(st.st_mode) && (mask & IN_CREATE);
    add(path, flags, QXFSEventClock::changeTime(st), out);
    if (newFolder) {
        std::vector<QXInotifyTree::Found> found;
        tree_.watchTree(path, refused, &found);
        for (auto& entry : found) {
            struct stat item {};
            if (::lstat(entry.path.c_str(), &item) != 0) continue;  // gone again: its removal follows
            remember(entry.path, item);
            add(std::move(entry.path), QXFSEventFlagItemCreated | typeFlag(item), QXFSEventClock::changeTime(item), out);
        }
    }
    refused_.insert(refused_.end(), refused.begin(), refused.end());
}

std::uint32_t QXInotifyTranslator::attributeFlags(const std::string& path, const struct stat& st) const {
    auto it = attributes_.find(path);
    if (it == attributes_.end()) return QXFSEventFlagItemInodeMetaMod | QXFSEventFlagItemXattrMod;  // never seen
    const Attributes& before = it->second;
    constexpr std::uint32_t kEither = QXFSEventFlagItemInodeMetaMod | QXFSEventFlagItemXattrMod;
    std::uint32_t flags = 0;
    if (before.uid != st.st_uid || before.gid != st.st_gid) flags |= QXFSEventFlagItemChangeOwner | QXFSEventFlagItemInodeMetaMod;
    if (before.mode != st.st_mode || before.modified != modificationTime(st)) flags |= QXFSEventFlagItemInodeMetaMod;
    if (flags) return flags;
    return before.changed == QXFSEventClock::changeTime(st) ? kEither : QXFSEventFlagItemXattrMod;
}

void QXInotifyTranslator::remember(const std::string& path, const struct stat& st) {
    if (attributes_.size() >= kMaxRememberedItems) attributes_.clear();
    attributes_[path] = Attributes{st.st_mode, st.st_uid, st.st_gid, modificationTime(st), QXFSEventClock::changeTime(st)};
}

void QXInotifyTranslator::settleMoves() {
    // The two halves of a rename are queued together but may straddle two
    // reads; a half still alone a read later went out of the tree.
    for (auto it = moves_.begin(); it != moves_.end();) {
        if (it->second.reads++ == 0) {
            ++it;
        } else {
            tree_.unwatchTree(it->second.path);
            it = moves_.erase(it);
        }
    }
}
