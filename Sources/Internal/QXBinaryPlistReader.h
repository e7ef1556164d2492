// QXBinaryPlistReader.h - the decoder of binary "bplist00" property lists.
//
// Private to Sources/. The reader decodes untrusted files. Beyond the checks
// the format itself implies, it refuses (NSCocoaErrorDomain 3840, one log line
// saying why): an object reference at or past the object count, a reference
// cycle, containers nested deeper than QXBinaryPlistMaxNestingDepth, a
// container count whose references would run past the end of the data, files
// whose shared references would expand beyond
// QXBinaryPlistMaxObjectsPerInputByte decoded objects per input byte, and keys
// whose hashes collide by construction in numbers that would make building the
// tables quadratic. Immutable leaves (strings, numbers, dates) referenced more
// than once are shared after their second decode, so a file that references
// one string a million times costs two decodes; containers, data and UIDs are
// editable and are decoded afresh for every reference.
//
// A reader serves one decode on one thread; separate readers share nothing.
#pragma once

#include <QXFoundation/QXBinaryPlistTrailer.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include "Internal/QXBinaryPlistBytes.h"
#include "Internal/QXPropertyListKind.h"

#include <cstdint>
#include <limits>
#include <string>
#include <unordered_map>
#include <vector>

namespace QXBinaryPlistInternal {

// What the reader knows of each object number.
enum ObjectState : std::uint8_t {
    kUnseen,      // not decoded yet (or a container decoded before)
    kSeenOnce,    // a leaf decoded once
    kInProgress,  // a container on the decoding path: a reference to it is a cycle
    kCached,      // a leaf referenced again, now shared from the cache
};

class BinaryReader {
public:
    BinaryReader(const qx::Data& data, const QXBinaryPlistTrailer& trailer)
        : bytes_(data.bytes()), length_(data.length()), trailer_(trailer),
          objectCount_(trailer.numberOfObjects()), refSize_(trailer.sizeOfOffsets()) {
        const std::uint64_t perByte = QXBinaryPlistMaxObjectsPerInputByte;
        budget_ = length_ > (std::numeric_limits<std::uint64_t>::max() - QXBinaryPlistObjectAllowance) / perByte
                      ? std::numeric_limits<std::uint64_t>::max()
                      : length_ * perByte + QXBinaryPlistObjectAllowance;
        budgetLimit_ = budget_;
        // A trailer with objects holds one table entry per object inside the
        // data, so this is bounded by the data's length.
        states_.resize(static_cast<std::size_t>(objectCount_), kUnseen);
    }

    qx::Ref<qx::Object> decode(std::uint64_t number, unsigned depth, qx::Ref<qx::Error>* error);

private:
    // Refuses the whole file: logs why, and makes every enclosing container
    // fail at once without logging its own line.
    template <class... Args> qx::Ref<qx::Object> refuse(qx::Ref<qx::Error>* error, const char* fmt, const Args&... args) {
        if (!aborted_) QXLog(fmt, args...);
        aborted_ = true;
        setError(error);
        return nullptr;
    }

    std::uint64_t readRef(std::uint64_t& position) const {
        if (refSize_ == 0) return 0;
        const std::uint64_t v = readBigEndian(bytes_ + position, refSize_);
        position += refSize_;
        return v;
    }

    // Checks a container's count against the bytes left for its references
    // (refsPerEntry of them per entry) and the remaining object budget.
    bool checkCount(std::uint64_t count, std::uint64_t position, unsigned refsPerEntry, std::uint64_t number,
                    qx::Ref<qx::Error>* error);

    qx::Ref<qx::Object> decodeArray(std::uint64_t number, std::uint64_t position, std::uint8_t marker, unsigned depth,
                                    qx::Ref<qx::Error>* error);
    qx::Ref<qx::Object> decodeSet(std::uint64_t number, std::uint64_t position, std::uint8_t marker, unsigned depth,
                                  qx::Ref<qx::Error>* error);
    qx::Ref<qx::Object> decodeDictionary(std::uint64_t number, std::uint64_t position, std::uint8_t marker,
                                         unsigned depth, qx::Ref<qx::Error>* error);
    bool beginContainer(std::uint64_t number, unsigned depth, qx::Ref<qx::Error>* error);
    /// Reads a container's count (from the marker or the integer after it),
    /// checks it against the bytes left and enters the container; false on failure.
    bool openContainer(std::uint64_t number, std::uint64_t& position, std::uint8_t marker, unsigned refsPerEntry,
                       unsigned depth, std::uint64_t& count, qx::Ref<qx::Error>* error) {
        count = marker & 0x0F;
        if (count == 0x0F) count = readInteger(bytes_, length_, position);
        return checkCount(count, position, refsPerEntry, number, error) && beginContainer(number, depth, error);
    }
    qx::Ref<qx::Object> stringWithUTF16BigEndian(const std::uint8_t* bytes, std::uint64_t count);
    bool chargeKey(const qx::Object& key, std::uint64_t keyObjects, std::uint64_t& weakKeys,
                   qx::Ref<qx::Error>* error);

    const std::uint8_t* bytes_;
    const std::uint64_t length_;
    const QXBinaryPlistTrailer& trailer_;
    const std::uint64_t objectCount_;
    const std::uint8_t refSize_;
    // Immutable leaves (strings, numbers, dates) referenced more than once are
    // decoded twice at most and then shared; one state byte per object keeps
    // files without sharing from paying for a cache slot per object.
    std::vector<std::uint8_t> states_;
    std::unordered_map<std::uint64_t, qx::Ref<qx::Object>> cache_;
    std::vector<qx::Ref<qx::Object>> keyStack_;  // keys of the dictionaries being decoded
    std::uint64_t budget_;       // objects that may still be produced
    std::uint64_t budgetLimit_;  // objects the whole file may produce
    std::uint64_t keyWork_ = 0;  // equality work that keys with weak hashes may cause
    KindCache kinds_;
    std::u16string units_;       // scratch for UTF-16 strings in machine order
    std::string utf8_;           // scratch for their UTF-8 form
    bool aborted_ = false;
};

} // namespace QXBinaryPlistInternal
