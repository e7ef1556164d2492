// QXArchiveServices.cpp - gives the platform's archivers the library's
// property-list reader and writer and its UID kind, when the library loads.
#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include <qx/KeyedArchiver.h>

namespace {

// UIDs are written in the fewest of 1, 2, 4 or 8 bytes, as archives usually carry them.
qx::Ref<qx::Object> makeUID(std::uint64_t index) {
    const std::size_t width = index <= 0xFF ? 1 : index <= 0xFFFF ? 2 : index <= 0xFFFFFFFFu ? 4 : 8;
    std::uint8_t bytes[8];
    for (std::size_t i = 0; i < width; ++i) bytes[i] = static_cast<std::uint8_t>(index >> (8 * (width - 1 - i)));
    return QXUIDPropertyList::initWithData(qx::Data::withBytes(bytes, width));
}

bool readUID(const qx::Ref<qx::Object>& value, std::uint64_t* index) {
    auto uid = qx::dyn_cast<QXUIDPropertyList>(value);
    if (!uid || !uid->data()) return false;
    const std::size_t n = uid->data()->length();
    if (n != 1 && n != 2 && n != 4 && n != 8) return false;
    if (index) *index = static_cast<std::uint64_t>(uid->int64Value());
    return true;
}

[[maybe_unused]] // The XML printer reads a UID's bytes as an integer object (marker first), as
// the XML form has always done; archives hold plain big-endian UIDs, so for
// XML each is written as the dictionary the XML form uses for a UID.
qx::Ref<qx::Object> xmlReady(const qx::Ref<qx::Object>& value) {
    std::uint64_t index = 0;
    if (readUID(value, &index)) {
        auto d = qx::Dictionary::create();
        d->setObject(qx::Number::withUInt64(index), "CF$UID");
        return d;
    }
    if (auto array = qx::dyn_cast<qx::Array>(value)) {
        auto out = qx::Array::create();
        out->reserve(array->count());
        for (const auto& item : *array) out->addObject(xmlReady(item));
        return out;
    }
    if (auto dictionary = qx::dyn_cast<qx::Dictionary>(value)) {
        auto out = qx::Dictionary::create();
        out->reserve(dictionary->count());
        for (const auto& entry : *dictionary) out->setObject(xmlReady(entry.second), entry.first);
        return out;
    }
    return value;
}

const bool installed = [] {
    qx::setArchivePropertyLists(qx::ArchivePropertyLists{
        makeUID,
        readUID,
        [](const qx::Ref<qx::Object>& plist, bool binary, qx::Ref<qx::Error>* error) {
            if (binary) return QXPropertyListSerialization::dataWithPropertyList(plist, QXPropertyListBinaryFormat_v1_0, error);
            return QXPropertyListSerialization::dataWithPropertyList(xmlReady(plist), QXPropertyListXMLFormat_v1_0, error);
        },
        [](const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error) {
            return QXPropertyListSerialization::propertyListWithData(data, nullptr, error);
        },
    });
    return true;
}();

} // namespace
