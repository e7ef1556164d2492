// Data.cpp - growable byte buffers.
#include <qx/Data.h>

#include <cstring>
#include <stdexcept>

namespace qx {

Data::Data(const void* bytes, std::size_t length) : Object(kKind) {
    if (length) bytes_.assign(static_cast<const std::uint8_t*>(bytes), static_cast<const std::uint8_t*>(bytes) + length);
}

void Data::append(const void* bytes, std::size_t length) {
    if (!length) return;
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    bytes_.insert(bytes_.end(), p, p + length);
}

Ref<Data> Data::subdata(std::size_t offset, std::size_t length) const {
    if (offset > bytes_.size() || length > bytes_.size() - offset) throw std::out_of_range("Data::subdata");
    return withBytes(bytes_.data() + offset, length);
}

std::string Data::description() const {
    static const char hex[] = "0123456789abcdef";
    std::string out = "<";
    out.reserve(bytes_.size() * 2 + bytes_.size() / 4 + 2);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i && i % 4 == 0) out += ' ';
        out += hex[bytes_[i] >> 4];
        out += hex[bytes_[i] & 15];
    }
    out += '>';
    return out;
}

bool Data::isEqual(const Object& other) const {
    const auto* d = dyn_cast<Data>(&other);
    return d && d->bytes_ == bytes_;
}

std::size_t Data::hash() const {
    return std::hash<std::string_view>()(view().substr(0, 80)) ^ bytes_.size();
}

Ref<Object> Data::copy() const { return std::make_shared<Data>(bytes_); }

} // namespace qx
