// QXInotifyTranslator.h - inotify's raw events as file-system events.
//
// Turns each raw event into a path, public flags and an identifier (the
// change time of what changed, or of its folder when it is gone; see
// QXFSEventClock.h), and keeps the watched tree in step: new folders are
// watched and read (their entries reported as created), renamed folders
// followed, folders renamed out of the tree dropped.
//
// What inotify cannot tell is settled as follows. IN_ATTRIB stands for a
// mode, owner, time or extended-attribute change: the item's mode, owner,
// modification and change times are remembered from its last event, so an
// attribute event whose change time moved while none of the others did is an
// extended attribute. Where the remembered state may already include the
// change (an item never seen, or seen since its change time last moved),
// both flags are set: a reader is told too much rather than too little. Lost events are never silent: a queue
// overflow is MustScanSubDirs | KernelDropped on every root, a folder left
// unwatched by the watch limit MustScanSubDirs | UserDropped on that folder.
//
// Not thread-safe: the stream's reader thread owns it.
#pragma once

#include "Internal/QXInotifyTree.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

struct QXFSEventRecord {
    std::string path;
    std::uint32_t flags;
    std::uint64_t identifier;
};

class QXInotifyTranslator {
public:
    QXInotifyTranslator(QXInotifyTree& tree, std::vector<std::string> roots) : tree_(tree), roots_(std::move(roots)) {}

    /// Appends the records for the raw events in data[0, length).
    void translate(const char* data, std::size_t length, std::vector<QXFSEventRecord>& out);
    /// Records MustScanSubDirs | UserDropped for folders the tree could not watch.
    void reportRefused(const std::vector<std::string>& refused, std::vector<QXFSEventRecord>& out);

private:
    struct Attributes {
        mode_t mode;
        uid_t uid;
        gid_t gid;
        std::int64_t modified;
        std::uint64_t changed;
    };
    struct PendingMove {
        std::string path;
        unsigned reads;  // reads passed since the first half came
    };

    void translateOne(int wd, std::uint32_t mask, std::uint32_t cookie, const char* name, std::vector<QXFSEventRecord>& out);
    void add(std::string path, std::uint32_t flags, std::uint64_t changeTime, std::vector<QXFSEventRecord>& out);
    std::uint32_t attributeFlags(const std::string& path, const struct stat& st) const;
    void remember(const std::string& path, const struct stat& st);
    void settleMoves();

    QXInotifyTree& tree_;
    const std::vector<std::string> roots_;
    std::unordered_map<std::string, Attributes> attributes_;
    std::unordered_map<std::uint32_t, PendingMove> moves_;  // folders renamed away, by cookie
    std::vector<std::string> refused_;
};
