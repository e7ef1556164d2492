// QXInotifyTree.h - recursive watching on top of per-folder inotify watches.
//
// inotify watches one folder at a time, so a tree is watched folder by
// folder, and a folder that appears later is watched and then read: what was
// made in it before its watch existed is only found by that read. The tree
// keeps the path of every watch so events can be named, and follows renames
// of folders within it.
//
// Not thread-safe: one reader thread owns it.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

class QXInotifyTree {
public:
    /// An entry found while reading a newly watched folder.
    struct Found {
        std::string path;
        bool isDirectory;
        bool isSymlink;
    };

    explicit QXInotifyTree(int inotifyFd) : fd_(inotifyFd) {}

    /// Watches path and every folder below it. Folders that could not be
    /// watched because the watch limit is reached go to *refused; with found,
    /// every entry below path is listed there as well.
    void watchTree(const std::string& path, std::vector<std::string>& refused, std::vector<Found>* found = nullptr);

    /// The path a watch descriptor stands for, or nothing.
    const std::string* pathFor(int wd) const;
    /// The kernel dropped the watch (IN_IGNORED).
    void forget(int wd) { paths_.erase(wd); }
    /// A watched folder was renamed within the tree: its watches and those
    /// below follow it.
    void moveTree(const std::string& from, const std::string& to);
    /// A watched folder left the tree: its watches and those below end.
    void unwatchTree(const std::string& path);

    std::size_t watchCount() const { return paths_.size(); }

private:
    bool add(const std::string& path, std::vector<std::string>& refused, int* wd);

    int fd_;
    std::unordered_map<int, std::string> paths_;
};

/// The inotify events a watched folder asks for.
std::uint32_t QXInotifyTreeMask();
