// QXBinaryPlistRecord.h - a property-list value paired with a file offset.
//
// A small record kept for callers that index the objects of a binary file;
// the reader and writer do not use it. Not synchronised: one thread changes a
// record at a time, and no thread reads it meanwhile.
#pragma once

#include <qx/Object.h>

#include <cstdint>

class QXBinaryPlistRecord : public qx::Object {
public:
    static qx::Ref<QXBinaryPlistRecord> recordWithPropertyList(const qx::Ref<qx::Object>& propertyList,
                                                               std::uint64_t offset);

    const qx::Ref<qx::Object>& propertyList() const { return propertyList_; }
    /// Stores a copy of propertyList.
    void setPropertyList(const qx::Ref<qx::Object>& propertyList);
    std::uint64_t offset() const { return offset_; }
    void setOffset(std::uint64_t offset) { offset_ = offset; }

    std::string className() const override { return "QXBinaryPlistRecord"; }

protected:
    QXBinaryPlistRecord() = default;

private:
    qx::Ref<qx::Object> propertyList_;
    std::uint64_t offset_ = 0;
};
