// UUID.cpp - random identifiers and their text form.
#include <qx/UUID.h>

#include <cstdio>
#include <random>

namespace qx {

Ref<UUID> UUID::create() {
    thread_local std::mt19937_64 engine{std::random_device{}()};
    Bytes b;
    for (std::size_t i = 0; i < 16; i += 8) {
        std::uint64_t r = engine();
        for (std::size_t j = 0; j < 8; ++j) b[i + j] = static_cast<std::uint8_t>(r >> (8 * j));
    }
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return std::make_shared<UUID>(b);
}

Ref<UUID> UUID::withString(std::string_view text) {
    if (text.size() != 36) return nullptr;
    Bytes b{};
    std::size_t n = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') return nullptr;
            continue;
        }
        int v;
        if (c >= '0' && c <= '9') v = c - '0';
        else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
        else return nullptr;
        b[n / 2] = static_cast<std::uint8_t>((n % 2) ? (b[n / 2] | v) : (v << 4));
        ++n;
    }
    return std::make_shared<UUID>(b);
}

std::string UUID::UUIDString() const {
    char buf[40];
    const auto& b = bytes_;
    std::snprintf(buf, sizeof buf, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return buf;
}

bool UUID::isEqual(const Object& other) const {
    const auto* u = dynamic_cast<const UUID*>(&other);
    return u && u->bytes_ == bytes_;
}

std::size_t UUID::hash() const {
    std::size_t h = 0;
    for (auto c : bytes_) h = h * 131 + c;
    return h;
}

} // namespace qx
