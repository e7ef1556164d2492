// QXFSEvent.cpp - one reported file-system change.
#include <QXFoundation/QXFSEvent.h>

#include <cstdio>
#include <utility>

namespace {

constexpr std::pair<std::uint32_t, const char*> kFlagNames[] = {
    {QXFSEventFlagMustScanSubDirs, "MustScanSubDirs"},
    {QXFSEventFlagUserDropped, "UserDropped"},
    {QXFSEventFlagKernelDropped, "KernelDropped"},
    {QXFSEventFlagEventIdsWrapped, "EventIdsWrapped"},
    {QXFSEventFlagHistoryDone, "HistoryDone"},
    {QXFSEventFlagRootChanged, "RootChanged"},
    {QXFSEventFlagMount, "Mount"},
    {QXFSEventFlagUnmount, "Unmount"},
    {QXFSEventFlagItemCreated, "ItemCreated"},
    {QXFSEventFlagItemRemoved, "ItemRemoved"},
    {QXFSEventFlagItemInodeMetaMod, "ItemInodeMetaMod"},
    {QXFSEventFlagItemRenamed, "ItemRenamed"},
    {QXFSEventFlagItemModified, "ItemModified"},
    {QXFSEventFlagItemFinderInfoMod, "ItemFinderInfoMod"},
    {QXFSEventFlagItemChangeOwner, "ItemChangeOwner"},
    {QXFSEventFlagItemXattrMod, "ItemXattrMod"},
    {QXFSEventFlagItemIsFile, "ItemIsFile"},
    {QXFSEventFlagItemIsDir, "ItemIsDir"},
    {QXFSEventFlagItemIsSymlink, "ItemIsSymlink"},
    {QXFSEventFlagOwnEvent, "OwnEvent"},
    {QXFSEventFlagItemIsHardlink, "ItemIsHardlink"},
    {QXFSEventFlagItemIsLastHardlink, "ItemIsLastHardlink"},
    {QXFSEventFlagItemCloned, "ItemCloned"},
};

} // namespace

std::string QXFSEventFlagNames(std::uint32_t flags) {
    std::string names;
    for (const auto& [bit, name] : kFlagNames) {
        if (!(flags & bit)) continue;
        if (!names.empty()) names += '|';
        names += name;
        flags &= ~bit;
    }
    if (flags) {  // bits this build does not know still show
        if (!names.empty()) names += '|';
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%x", flags);
        names += hex;
    }
    return names.empty() ? "None" : names;
}

QXFSEvent::Ref QXFSEvent::eventWithURL(const qx::Ref<qx::URL>& url, std::uint32_t eventFlags, std::uint64_t eventID) {
    return std::make_shared<QXFSEvent>(url, eventFlags, eventID);
}

std::string QXFSEvent::description() const {
    return std::to_string(_eventID) + " " + QXFSEventFlagNames(_eventFlags) + " " + (_URL ? _URL->path() : "(null)");
}
