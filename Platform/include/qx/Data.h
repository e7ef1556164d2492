// Data.h - a growable byte buffer.
#pragma once

#include <qx/Object.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace qx {

class Data final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::Data;

    Data() : Object(kKind) {}
    explicit Data(std::vector<std::uint8_t> bytes) : Object(kKind), bytes_(std::move(bytes)) {}
    Data(const void* bytes, std::size_t length);

    static Ref<Data> create() { return std::make_shared<Data>(); }
    static Ref<Data> withBytes(const void* bytes, std::size_t length) { return std::make_shared<Data>(bytes, length); }
    static Ref<Data> withString(std::string_view s) { return withBytes(s.data(), s.size()); }

    std::size_t length() const { return bytes_.size(); }
    const std::uint8_t* bytes() const { return bytes_.data(); }
    std::uint8_t* mutableBytes() { return bytes_.data(); }
    const std::vector<std::uint8_t>& vector() const { return bytes_; }
    std::vector<std::uint8_t>& vector() { return bytes_; }
    std::string_view view() const { return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()}; }

    void append(const void* bytes, std::size_t length);
    void append(const Data& other) { append(other.bytes(), other.length()); }
    void appendByte(std::uint8_t b) { bytes_.push_back(b); }
    void setLength(std::size_t length) { bytes_.resize(length); }
    void reserve(std::size_t capacity) { bytes_.reserve(capacity); }
    /// Bytes [offset, offset+length); the range must lie inside the buffer.
    Ref<Data> subdata(std::size_t offset, std::size_t length) const;

    std::string className() const override { return "Data"; }
    /// "<00010203 04050607 08>": hexadecimal in groups of four bytes.
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override;
    Ref<Object> copy() const override;

private:
    std::vector<std::uint8_t> bytes_;
};

} // namespace qx
