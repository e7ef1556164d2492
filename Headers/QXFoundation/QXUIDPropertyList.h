// QXUIDPropertyList.h - the UID value of keyed archives.
//
// A UID is a run of 1 to 16 big-endian bytes that a keyed archive uses to
// point at another object of its object list. Two UIDs are never equal by
// content: archives compare them by identity, so isEqual and hash are the
// root object's. A UID is not synchronised: one thread changes it at a time,
// and no thread reads it meanwhile.
#pragma once

#include <qx/Data.h>

#include <cstdint>

class QXUIDPropertyList : public qx::Object {
public:
    /// A UID holding a copy of data's bytes as they are (nothing stays nothing).
    static qx::Ref<QXUIDPropertyList> initWithData(const qx::Ref<qx::Data>& data);
    static qx::Ref<QXUIDPropertyList> uidWithData(const qx::Ref<qx::Data>& data) { return initWithData(data); }
    /// A UID of exactly 8 big-endian bytes.
    static qx::Ref<QXUIDPropertyList> initWithInt64Value(std::int64_t value);

    /// The UID's bytes, big-endian; nothing only when set so.
    const qx::Ref<qx::Data>& data() const { return data_; }
    /// Stores a copy of data.
    void setData(const qx::Ref<qx::Data>& data);

    /// The bytes as a big-endian unsigned integer when there are 1, 2, 4 or 8
    /// of them; 0 for any other length.
    std::int64_t int64Value() const;
    /// Stores value as exactly 8 big-endian bytes.
    void setInt64Value(std::int64_t value);

    std::string className() const override { return "QXUIDPropertyList"; }
    /// The description of the byte buffer.
    std::string description() const override;
    /// A new UID with a copy of the same bytes.
    qx::Ref<qx::Object> copy() const override;

protected:
    QXUIDPropertyList() = default;

private:
    qx::Ref<qx::Data> data_;
};
