// QXFSEvent.h - one reported file-system change.
//
// Flags are the values applications already know for file-system events;
// several may be set on one event (a file created and written within one
// batch is ItemCreated | ItemModified | ItemIsFile). Identifiers are change
// times in nanoseconds since the epoch, strictly increasing within a process;
// see QXFSEventManager.h for how they relate to the history answers.
#pragma once

#include <qx/URL.h>

#include <cstdint>
#include <string>

enum QXFSEventFlags : std::uint32_t {
    QXFSEventFlagNone = 0,
    QXFSEventFlagMustScanSubDirs = 0x1,  // changes below the path were lost: rescan it
    QXFSEventFlagUserDropped = 0x2,      // lost on this side (no watch could be added)
    QXFSEventFlagKernelDropped = 0x4,    // lost by the kernel (its queue overflowed)
    QXFSEventFlagEventIdsWrapped = 0x8,
    QXFSEventFlagHistoryDone = 0x10,
    QXFSEventFlagRootChanged = 0x20,
    QXFSEventFlagMount = 0x40,
    QXFSEventFlagUnmount = 0x80,
    QXFSEventFlagItemCreated = 0x100,
    QXFSEventFlagItemRemoved = 0x200,
    QXFSEventFlagItemInodeMetaMod = 0x400,
    QXFSEventFlagItemRenamed = 0x800,
    QXFSEventFlagItemModified = 0x1000,
    QXFSEventFlagItemFinderInfoMod = 0x2000,
    QXFSEventFlagItemChangeOwner = 0x4000,
    QXFSEventFlagItemXattrMod = 0x8000,
    QXFSEventFlagItemIsFile = 0x10000,
    QXFSEventFlagItemIsDir = 0x20000,
    QXFSEventFlagItemIsSymlink = 0x40000,
    QXFSEventFlagOwnEvent = 0x80000,
    QXFSEventFlagItemIsHardlink = 0x100000,
    QXFSEventFlagItemIsLastHardlink = 0x200000,
    QXFSEventFlagItemCloned = 0x400000,
};

/// The names of the flags set in flags, separated by "|" ("None" for none),
/// for logs and the command line.
std::string QXFSEventFlagNames(std::uint32_t flags);

/// One change: immutable.
class QXFSEvent : public qx::Object {
public:
    using Ref = qx::Ref<QXFSEvent>;

    /// An event for url (copied); flags and identifier are kept as given.
    static Ref eventWithURL(const qx::Ref<qx::URL>& url, std::uint32_t eventFlags, std::uint64_t eventID);

    const qx::Ref<qx::URL>& URL() const { return _URL; }
    std::uint32_t eventFlags() const { return _eventFlags; }
    std::uint64_t eventID() const { return _eventID; }

    std::string className() const override { return "QXFSEvent"; }
    std::string description() const override;

    QXFSEvent(qx::Ref<qx::URL> url, std::uint32_t eventFlags, std::uint64_t eventID)
        : _URL(std::move(url)), _eventFlags(eventFlags), _eventID(eventID) {}

private:
    const qx::Ref<qx::URL> _URL;
    const std::uint32_t _eventFlags;
    const std::uint64_t _eventID;
};
