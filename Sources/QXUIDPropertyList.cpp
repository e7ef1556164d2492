// QXUIDPropertyList.cpp - UID values of keyed archives.
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"

namespace {

qx::Ref<qx::Data> copyOf(const qx::Ref<qx::Data>& data) {
    return data ? std::make_shared<qx::Data>(data->vector()) : nullptr;
}

} // namespace

qx::Ref<QXUIDPropertyList> QXUIDPropertyList::initWithData(const qx::Ref<qx::Data>& data) {
    qx::Ref<QXUIDPropertyList> uid(new QXUIDPropertyList());
    uid->data_ = copyOf(data);
    return uid;
}

qx::Ref<QXUIDPropertyList> QXUIDPropertyList::initWithInt64Value(std::int64_t value) {
    qx::Ref<QXUIDPropertyList> uid(new QXUIDPropertyList());
    uid->setInt64Value(value);
    return uid;
}

void QXUIDPropertyList::setData(const qx::Ref<qx::Data>& data) { data_ = copyOf(data); }

std::int64_t QXUIDPropertyList::int64Value() const {
    if (!data_) return 0;
    const std::size_t n = data_->length();
    if (n != 1 && n != 2 && n != 4 && n != 8) return 0;
    return static_cast<std::int64_t>(QXBinaryPlistInternal::readBigEndian(data_->bytes(), n));
}

void QXUIDPropertyList::setInt64Value(std::int64_t value) {
    const auto v = static_cast<std::uint64_t>(value);
    std::uint8_t bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<std::uint8_t>(v >> (56 - 8 * i));
    data_ = qx::Data::withBytes(bytes, sizeof bytes);
}

std::string QXUIDPropertyList::description() const { return qx::describe(data_.get()); }

qx::Ref<qx::Object> QXUIDPropertyList::copy() const { return initWithData(data_); }
