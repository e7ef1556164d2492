// QXBinaryPlistRecord.cpp - a property-list value with its file offset.
#include <QXFoundation/QXBinaryPlistRecord.h>

qx::Ref<QXBinaryPlistRecord> QXBinaryPlistRecord::recordWithPropertyList(const qx::Ref<qx::Object>& propertyList,
                                                                         std::uint64_t offset) {
    qx::Ref<QXBinaryPlistRecord> record(new QXBinaryPlistRecord());
    record->setPropertyList(propertyList);
    record->offset_ = offset;
    return record;
}

void QXBinaryPlistRecord::setPropertyList(const qx::Ref<qx::Object>& propertyList) {
    propertyList_ = propertyList ? propertyList->copy() : nullptr;
}
