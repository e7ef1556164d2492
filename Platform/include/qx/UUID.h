// UUID.h - 128-bit universally unique identifiers (random, version 4).
#pragma once

#include <qx/Object.h>

#include <array>
#include <cstdint>
#include <string_view>

namespace qx {

class UUID final : public Object {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    explicit UUID(const Bytes& bytes) : bytes_(bytes) {}
    /// A new random identifier.
    static Ref<UUID> create();
    /// Parses "E621E1F8-C36C-495A-93FC-0C247A3E6E5F" (either case); nothing if malformed.
    static Ref<UUID> withString(std::string_view text);

    const Bytes& bytes() const { return bytes_; }
    /// Upper-case, hyphenated 8-4-4-4-12.
    std::string UUIDString() const;

    std::string className() const override { return "UUID"; }
    std::string description() const override { return UUIDString(); }
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override;

private:
    Bytes bytes_;
};

} // namespace qx
