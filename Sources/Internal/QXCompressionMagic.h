// QXCompressionMagic.h - the prefixes that tell the compressed formats apart,
// as constant data, and the orders in which they are tried.
//
// Data is tried gzip, zlib, bzip2, xz, PBZX; files gzip, bzip2, xz, PBZX,
// zlib. Zlib's two-byte prefixes are the likeliest to occur by chance, so a
// file's is tried last; the data order is older and callers rely on it.
#pragma once

#include <QXFoundation/QXDecompressor.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

struct QXMagicPrefix {
    std::array<std::uint8_t, 6> bytes;
    std::size_t length;
};

struct QXMagicTable {
    QXDecompressionAlgorithm algorithm;
    std::array<QXMagicPrefix, 3> prefixes;
    std::size_t count;
};

inline constexpr QXMagicTable kQXGzipMagic{QXDecompressionAlgorithmGzip, {{{{0x1F, 0x8B}, 2}}}, 1};
inline constexpr QXMagicTable kQXZlibMagic{
    QXDecompressionAlgorithmZlib, {{{{0x78, 0x9C}, 2}, {{0x78, 0xDA}, 2}, {{0x78, 0x01}, 2}}}, 3};
inline constexpr QXMagicTable kQXBZip2Magic{QXDecompressionAlgorithmBZip2, {{{{0x42, 0x5A, 0x68}, 3}}}, 1};
inline constexpr QXMagicTable kQXXZMagic{QXDecompressionAlgorithmXZ,
                                         {{{{0xFD, 0x37, 0x7A, 0x58, 0x5A, 0x00}, 6}}}, 1};
inline constexpr QXMagicTable kQXPBZXMagic{QXDecompressionAlgorithmPBZX, {{{{'p', 'b', 'z', 'x'}, 4}}}, 1};

inline constexpr std::array<const QXMagicTable*, 5> kQXDataDetectionOrder{&kQXGzipMagic, &kQXZlibMagic,
                                                                          &kQXBZip2Magic, &kQXXZMagic,
                                                                          &kQXPBZXMagic};
inline constexpr std::array<const QXMagicTable*, 5> kQXFileDetectionOrder{&kQXGzipMagic, &kQXBZip2Magic,
                                                                          &kQXXZMagic, &kQXPBZXMagic,
                                                                          &kQXZlibMagic};

/// The longest prefix of all (xz's).
inline constexpr std::size_t kQXMaxMagicLength = [] {
    std::size_t longest = 0;
    for (const QXMagicTable* table : kQXDataDetectionOrder)
        for (std::size_t i = 0; i < table->count; ++i)
            longest = table->prefixes[i].length > longest ? table->prefixes[i].length : longest;
    return longest;
}();

/// True when some prefix of table is no longer than the bytes and equals their start.
inline bool QXMagicMatches(const QXMagicTable& table, const std::uint8_t* bytes, std::size_t length) {
    for (std::size_t i = 0; i < table.count; ++i) {
        const QXMagicPrefix& prefix = table.prefixes[i];
        if (prefix.length <= length && std::memcmp(prefix.bytes.data(), bytes, prefix.length) == 0) return true;
    }
    return false;
}

/// The first algorithm in order whose prefix the bytes start with, else 0.
template <std::size_t N>
QXDecompressionAlgorithm QXDetectAlgorithm(const std::array<const QXMagicTable*, N>& order,
                                           const std::uint8_t* bytes, std::size_t length) {
    for (const QXMagicTable* table : order)
        if (QXMagicMatches(*table, bytes, length)) return table->algorithm;
    return QXDecompressionAlgorithmNone;
}
