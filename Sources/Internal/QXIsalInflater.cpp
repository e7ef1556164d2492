// QXIsalInflater.cpp - one raw deflate stream decoded by ISA-L's inflate.
#include "Internal/QXIsalInflater.h"

#include <isa-l/igzip_lib.h>

namespace {

// ISA-L counts its output in 32 bits and checks every distance against that
// count. Past the first window only "more than a window" matters, so the
// count is kept well below the wrap, where a stream of 4 GiB and more would
// otherwise see valid distances refused.
constexpr std::uint32_t kTotalOutCeiling = 1u << 30;

} // namespace

QXIsalInflater::QXIsalInflater(Check check) : state_(std::make_unique<inflate_state>()) {
    isal_inflate_init(state_.get());
    // The NO_HDR forms keep the check without reading a header or a trailer.
    switch (check) {
    case Check::None: state_->crc_flag = ISAL_DEFLATE; break;
    case Check::CRC32: state_->crc_flag = ISAL_GZIP_NO_HDR; break;
    case Check::Adler32: state_->crc_flag = ISAL_ZLIB_NO_HDR; break;
    }
}

QXIsalInflater::~QXIsalInflater() = default;

bool QXIsalInflater::decode(const std::uint8_t*& in, std::uint32_t& inLength, std::uint8_t*& out,
                            std::uint32_t& room) {
    inflate_state* s = state_.get();
    s->next_in = const_cast<std::uint8_t*>(in);
    s->avail_in = inLength;
    s->next_out = out;
    s->avail_out = room;
    const int result = isal_inflate(s);
    in = s->next_in;
    inLength = s->avail_in;
    out = s->next_out;
    room = s->avail_out;
    if (s->total_out > kTotalOutCeiling) s->total_out = kTotalOutCeiling;
    return result >= 0;
}

std::size_t QXIsalInflater::takeBytesAfterEnd(std::uint8_t* to) {
    // ISA-L reads ahead up to 64 bits. The bits of the stream's last byte
    // that it did not use come first; whole bytes follow, lowest first.
    inflate_state* s = state_.get();
    if (s->read_in_length <= 0) return 0;
    const auto count = static_cast<std::size_t>(s->read_in_length / 8);
    std::uint64_t bits = s->read_in >> (s->read_in_length % 8);
    for (std::size_t i = 0; i < count; ++i, bits >>= 8) to[i] = static_cast<std::uint8_t>(bits);
    s->read_in = 0;
    s->read_in_length = 0;
    return count;
}

bool QXIsalInflater::ended() const { return state_->block_state == ISAL_BLOCK_FINISH; }

std::uint32_t QXIsalInflater::check() const { return state_->crc; }
