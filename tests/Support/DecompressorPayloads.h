// DecompressorPayloads.h - compressed payloads of every format, made at test
// time by zlib, libbz2 and liblzma (and a PBZX container around xz chunks).
#pragma once

#include "TestSupport.h"

#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>

namespace decompressorpayloads {

using qxtest::Bytes;
using qxtest::makePayload;
using qxtest::randomBytes;
using qxtest::toBytes;
using qxtest::toData;
using qx::Data;
using qx::Ref;

/// Bytes from..to of b.
inline Bytes slice(const Bytes& b, std::size_t from, std::size_t to) { return Bytes(b.begin() + from, b.begin() + to); }

// windowBits: 15 zlib, 31 gzip, -15 raw deflate; prepare may set a gzip header or a dictionary.
inline Bytes deflateBytes(const Bytes& in, int windowBits, int level = 6, const std::function<void(z_stream&)>& prepare = {}) {
    z_stream z{};
    EXPECT_EQ(deflateInit2(&z, level, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
    if (prepare) prepare(z);
    Bytes out(deflateBound(&z, in.size()) + 64);
    z.next_in = const_cast<Bytef*>(in.data());
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

inline Bytes bzip2Bytes(const Bytes& in) {
    unsigned length = static_cast<unsigned>(in.size() + in.size() / 100 + 1024);
    Bytes out(length);
    EXPECT_EQ(BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &length,
                                       const_cast<char*>(reinterpret_cast<const char*>(in.data())),
                                       static_cast<unsigned>(in.size()), 9, 0, 0),
              BZ_OK);
    out.resize(length);
    return out;
}

inline Bytes xzBytes(const Bytes& in) {
    Bytes out(lzma_stream_buffer_bound(in.size()));
    std::size_t position = 0;
    EXPECT_EQ(lzma_easy_buffer_encode(1, LZMA_CHECK_CRC64, nullptr, in.data(), in.size(), out.data(), &position,
                                      out.size()),
              LZMA_OK);
    out.resize(position);
    return out;
}

inline void appendBigEndian64(Bytes& out, std::uint64_t v) {
    for (int i = 7; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// A PBZX container: every piece becomes one chunk, xz-compressed unless its
// index is listed in stored.
inline Bytes pbzxBytes(const std::vector<Bytes>& pieces, const std::vector<std::size_t>& stored = {}) {
    Bytes out = {'p', 'b', 'z', 'x'};
    appendBigEndian64(out, 0x01000000);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const bool isStored = std::find(stored.begin(), stored.end(), i) != stored.end();
        const Bytes data = isStored ? pieces[i] : xzBytes(pieces[i]);
        appendBigEndian64(out, pieces[i].size());
        appendBigEndian64(out, data.size());
        out.insert(out.end(), data.begin(), data.end());
    }
    return out;
}

struct Payloads {
    Bytes plain = makePayload(300000);
    Bytes zlib = deflateBytes(plain, 15);
    Bytes gzip = deflateBytes(plain, 31);
    Bytes raw = deflateBytes(plain, -15);
    Bytes bzip2 = bzip2Bytes(plain);
    Bytes xz = xzBytes(plain);
    Bytes pbzx = pbzxBytes({Bytes(plain.begin(), plain.begin() + 100000), Bytes(plain.begin() + 100000, plain.begin() + 100100),
                            Bytes(plain.begin() + 100100, plain.end())},
                           {1});
};

inline const Payloads& payloads() {
    static const Payloads p;
    return p;
}

} // namespace decompressorpayloads

// a followed by b: concatenates the pieces of test inputs.
inline qxtest::Bytes operator+(qxtest::Bytes a, const qxtest::Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
