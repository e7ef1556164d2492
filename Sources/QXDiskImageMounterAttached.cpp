// QXDiskImageMounterAttached.cpp - what the tool has attached: records,
// mount points and devices of one image, and the newest of them.
#include <QXFoundation/QXDiskImageMounter.h>

#include "Internal/QXDiskImageToolProcess.h"

#include <QXFoundation/QXError.h>

#include <sys/stat.h>

#include <optional>

namespace {

// The image an info entry names: its alias data when that still leads to a
// file, else its path (the tool may print a URL for a remote image).
QXRef::Ref imageRef(const qx::Dictionary& image) {
    if (auto alias = image.get<qx::Data>("image-alias")) {
        if (auto ref = QXRef::refWithAliasData(alias)) return ref;
    }
    auto path = image.get<qx::String>("image-path");
    if (!path || path->empty()) return nullptr;
    qx::Ref<qx::URL> url;
    if (path->utf8().front() != '/') url = qx::URL::URLWithString(path->utf8());
    if (!url) url = qx::URL::fileURLWithPath(path->utf8());
    return QXRef::refWithUnreachableURL(url);
}

std::optional<struct timespec> modificationTime(const qx::URL& url) {
    struct stat st {};
    if (::stat(url.path().c_str(), &st) != 0) return std::nullopt;
    return st.st_mtim;
}

bool isLater(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

} // namespace

qx::Ref<qx::Array> QXDiskImageMounter::currentlyAttachedImagesWithError(qx::Ref<qx::Error>* error) const {
    auto info = globalInfoWithError(error);
    if (!info) return nullptr;
    auto records = qx::Array::create();
    auto images = info->get<qx::Array>("images");
    for (const auto& item : images ? images->items() : std::vector<qx::Ref<qx::Object>>{}) {
        auto image = qx::dyn_cast<qx::Dictionary>(item);
        if (!image) continue;
        auto partitions = qx::Array::create();
        auto entities = image->get<qx::Array>("system-entities");
        for (const auto& entityItem : entities ? entities->items() : std::vector<qx::Ref<qx::Object>>{}) {
            auto entity = qx::dyn_cast<qx::Dictionary>(entityItem);
            auto device = entity ? entity->get<qx::String>("dev-entry") : nullptr;
            auto mountPoint = entity ? entity->get<qx::String>("mount-point") : nullptr;
            if (!device || !mountPoint) continue;
            auto partition = qx::Dictionary::create();
            partition->setObject(QXToolPathURL(mountPoint->utf8()), kMountPointURLKey);
            partition->setObject(QXDevEntryURL(device->utf8()), kDevEntryURLKey);
            partitions->addObject(partition);
        }
        auto record = qx::Dictionary::create();
        record->setObject(imageRef(*image), kRefKey);  // left out when the entry names no image
        record->setObject(partitions, kPartitionsKey);
        records->addObject(record);
    }
    return records;
}

qx::Ref<qx::Array> QXDiskImageMounter::mountPointsForAttachedImageAtURL(const qx::Ref<qx::URL>& url,
                                                                        qx::Ref<qx::Array>* devEntryURLs,
                                                                        qx::Ref<qx::Error>* error) const {
    QXRef::Ref image;
    if (url && url->isFileURL()) {
        image = QXRef::refWithURL(url, error);
        if (!image) return nullptr;
    } else {
        image = QXRef::refWithUnreachableURL(url);
    }
    auto records = currentlyAttachedImagesWithError(error);
    if (!records) return nullptr;
    auto mountPoints = qx::Array::create();
    auto devices = qx::Array::create();
    for (const auto& item : records->items()) {
        auto record = qx::dyn_cast<qx::Dictionary>(item);
        auto ref = record ? record->get<QXRef>(kRefKey) : nullptr;
        if (!ref || !image || !ref->isSameFileAs(*image)) continue;
        auto partitions = record->get<qx::Array>(kPartitionsKey);
        for (const auto& partitionItem : partitions ? partitions->items() : std::vector<qx::Ref<qx::Object>>{}) {
            auto partition = qx::dyn_cast<qx::Dictionary>(partitionItem);
            auto mountPoint = partition ? partition->get<qx::URL>(kMountPointURLKey) : nullptr;
            auto device = partition ? partition->get<qx::URL>(kDevEntryURLKey) : nullptr;
            if (!mountPoint || !device) {
                if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 256);
                return nullptr;
            }
            mountPoints->addObject(mountPoint);
            devices->addObject(device);
        }
    }
    if (mountPoints->empty() || devices->empty()) {
        if (error) *error = QXGenerateError(QXDiskImageMounterErrorDomain, 1);
        return nullptr;
    }
    if (devEntryURLs) *devEntryURLs = devices;
    return mountPoints;
}

qx::Ref<qx::Array> QXDiskImageMounter::devEntryURLsForAttachedImageAtURL(const qx::Ref<qx::URL>& url,
                                                                         qx::Ref<qx::Error>* error) const {
    qx::Ref<qx::Array> devices;
    if (!mountPointsForAttachedImageAtURL(url, &devices, error)) return nullptr;
    return devices;
}

bool QXDiskImageMounter::isDiskImageAttachedAtURL(const qx::Ref<qx::URL>& url) const {
    auto devices = devEntryURLsForAttachedImageAtURL(url);
    return devices && !devices->empty();
}

qx::Ref<qx::URL> QXDiskImageMounter::mountPointForAttachedImageAtURL(const qx::Ref<qx::URL>& url,
                                                                     qx::Ref<qx::URL>* devEntryURL,
                                                                     qx::Ref<qx::Error>* error) const {
    qx::Ref<qx::Array> devices;
    qx::Ref<qx::Error> whyNone;
    auto mountPoints = mountPointsForAttachedImageAtURL(url, &devices, error ? &whyNone : nullptr);
    if (!mountPoints) {
        // Whatever stopped the search, there is nothing to choose from; the
        // reason rides along as the underlying error.
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 4, url, whyNone);
        return nullptr;
    }
    // The device whose node changed last is the latest attachment; on equal
    // dates the earlier entry stays.
    std::size_t chosen = 0;
    std::optional<struct timespec> newest;
    for (std::size_t i = 0; i < devices->count() && i < mountPoints->count(); ++i) {
        auto device = qx::dyn_cast<qx::URL>(devices->objectAtIndex(i));
        const auto time = device ? modificationTime(*device) : std::nullopt;
        if (time && (!newest || isLater(*time, *newest))) {
            newest = time;
            chosen = i;
        }
    }
    if (devEntryURL) *devEntryURL = qx::dyn_cast<qx::URL>(devices->objectAtIndex(chosen));
    return qx::dyn_cast<qx::URL>(mountPoints->objectAtIndex(chosen));
}
