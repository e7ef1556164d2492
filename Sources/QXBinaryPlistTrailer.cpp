// QXBinaryPlistTrailer.cpp - decoding the trailer and offset table of a binary property list.
#include <QXFoundation/QXBinaryPlistTrailer.h>

#include "Internal/QXBinaryPlistInternal.h"

#include <qx/Log.h>

#include <cstring>
#include <limits>

using namespace QXBinaryPlistInternal;

namespace {

constexpr std::uint64_t kNoOffset = std::numeric_limits<std::uint64_t>::max();

// Only the last 26 bytes are read: the trailer's first six bytes (unused and
// the sort version) are not required to be present.
constexpr std::size_t kTrailerBytesRead = 26;

bool isStandardWidth(std::uint8_t width) { return width == 1 || width == 2 || width == 4 || width == 8; }

} // namespace

qx::Ref<QXBinaryPlistTrailer> QXBinaryPlistTrailer::trailerWithData(const qx::Data& data, qx::Ref<qx::Error>* error) {
    return initWithData(data, error);
}

qx::Ref<QXBinaryPlistTrailer> QXBinaryPlistTrailer::initWithData(const qx::Data& data, qx::Ref<qx::Error>* error) {
    qx::Ref<QXBinaryPlistTrailer> trailer(new QXBinaryPlistTrailer());
    if (!trailer->decode(data, error)) return nullptr;
    return trailer;
}

bool QXBinaryPlistTrailer::decode(const qx::Data& data, qx::Ref<qx::Error>* error) {
    const std::uint64_t length = data.length();
    if (length < kTrailerBytesRead) {
        setError(error);
        return false;
    }
    const std::uint8_t* t = data.bytes() + (length - kTrailerBytesRead);
    tbOfsSiz_ = t[0];
    ofsSiz_ = t[1];
    ofsCnt_ = readBigEndian(t + 2, 8);
    topLvl_ = readBigEndian(t + 10, 8);
    const std::uint64_t tableStart = readBigEndian(t + 18, 8);

    // Forged fields can make start + width x count wrap around 64 bits; a sum
    // that does not fit is larger than any data and fails the same test.
    std::uint64_t tableBytes = 0, needed = 0;
    if (__builtin_mul_overflow(std::uint64_t{tbOfsSiz_}, ofsCnt_, &tableBytes) ||
        __builtin_add_overflow(tableStart, tableBytes, &needed))
        needed = kNoOffset;
    if (length < needed) {
        QXLog("Data insufficient size: length is %lu, but %lu needed", static_cast<unsigned long>(length),
              static_cast<unsigned long>(needed));
        setError(error);
        return false;
    }
    // With no objects the entry width is never used, so it is not judged.
    if (ofsCnt_ == 0) return true;
    if (!isStandardWidth(tbOfsSiz_)) {
        QXLog("Bad offset size");
        setError(error);
        return false;
    }

    // Bounded by the test above: the table lies inside the data.
    const std::uint8_t* src = data.bytes() + tableStart;
    tbl_.resize(static_cast<std::size_t>(tableBytes));
    switch (tbOfsSiz_) {
    case 1: std::memcpy(tbl_.data(), src, tbl_.size()); break;
    case 2:
        for (std::uint64_t i = 0; i < ofsCnt_; ++i) {
            const auto v = static_cast<std::uint16_t>(readBigEndian(src + 2 * i, 2));
            std::memcpy(tbl_.data() + 2 * i, &v, 2);
        }
        break;
    case 4:
        for (std::uint64_t i = 0; i < ofsCnt_; ++i) {
            const auto v = static_cast<std::uint32_t>(readBigEndian(src + 4 * i, 4));
            std::memcpy(tbl_.data() + 4 * i, &v, 4);
        }
        break;
    default:
        for (std::uint64_t i = 0; i < ofsCnt_; ++i) {
            const std::uint64_t v = readBigEndian(src + 8 * i, 8);
            std::memcpy(tbl_.data() + 8 * i, &v, 8);
        }
        break;
    }
    return true;
}

std::uint64_t QXBinaryPlistTrailer::offsetOfObjectWithNumber(std::uint64_t number) const {
    if (!isStandardWidth(tbOfsSiz_)) {
        QXLog("Weird offset size! But hopefully it shouldn't get here");
        return kNoOffset;
    }
    if (number >= ofsCnt_) return kNoOffset;
    const std::uint8_t* p = tbl_.data() + number * tbOfsSiz_;
    switch (tbOfsSiz_) {
    case 1: return *p;
    case 2: {
        std::uint16_t v;
        std::memcpy(&v, p, 2);
        return v;
    }
    case 4: {
        std::uint32_t v;
        std::memcpy(&v, p, 4);
        return v;
    }
    default: {
        std::uint64_t v;
        std::memcpy(&v, p, 8);
        return v;
    }
    }
}
