// QXPropertyListSerialization.cpp - format detection, the fallback reader, and the binary "bplist00"
// reader and writer.
//
// The reader decodes untrusted files. Beyond the checks the format itself
// implies, it refuses (NSCocoaErrorDomain 3840, one log line saying why):
// an object reference at or past the object count, a reference cycle,
// containers nested deeper than QXBinaryPlistMaxNestingDepth, a container
// count whose references would run past the end of the data, files whose
// shared references would expand beyond QXBinaryPlistMaxObjectsPerInputByte
// decoded objects per input byte, and keys whose hashes collide by
// construction in numbers that would make building the tables quadratic.
// Immutable leaves (strings, numbers, dates) referenced more than once are
// shared after their second decode, so a file that references one string a
// million times costs two decodes; containers, data and UIDs are editable and
// are decoded afresh for every reference.
#include <QXFoundation/QXPropertyListSerialization.h>

#include <QXFoundation/QXBinaryPlistTrailer.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/OldStylePropertyList.h>
#include <qx/Set.h>
#include <qx/String.h>
#include <qx/StringsFile.h>

#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string_view>
#include <typeinfo>
#include <unordered_map>

using namespace QXBinaryPlistInternal;

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr std::string_view kXMLDeclaration = "<?xml";
constexpr std::string_view kPlistTag = "<plist version=\"1.0\">";
constexpr std::size_t kMinimumSniffLength = 6;
constexpr std::size_t kXMLSniffLength = 300;
constexpr std::size_t kTextSniffLength = 30;
constexpr std::size_t kMinimumBinaryLength = 9;

constexpr std::uint64_t kUInt64Max = std::numeric_limits<std::uint64_t>::max();

// --- Byte output -------------------------------------------------------------

void putBigEndian(std::uint8_t* p, std::uint64_t value, std::uint8_t width) {
    for (std::uint8_t i = 0; i < width; ++i) {
        const unsigned shift = 8u * static_cast<unsigned>(width - 1 - i);
        p[i] = shift < 64 ? static_cast<std::uint8_t>(value >> shift) : 0;
    }
}

void appendBigEndian(std::vector<std::uint8_t>& out, std::uint64_t value, std::uint8_t width) {
    if (width <= 8) {
        for (unsigned shift = 8u * width; shift != 0;) {
            shift -= 8;
            out.push_back(static_cast<std::uint8_t>(value >> shift));
        }
        return;
    }
    const std::size_t at = out.size();
    out.resize(at + width);
    putBigEndian(out.data() + at, value, width);
}

void appendInteger(std::vector<std::uint8_t>& out, std::uint64_t value) {
    if (value < 0x100) {
        out.push_back(0x10);
        out.push_back(static_cast<std::uint8_t>(value));
    } else if (value < 0x10000) {
        out.push_back(0x11);
        appendBigEndian(out, value, 2);
    } else if (value <= 0xFFFFFFFFull) {
        out.push_back(0x12);
        appendBigEndian(out, value, 4);
    } else {
        out.push_back(0x13);
        appendBigEndian(out, value, 8);
    }
}

void appendCountHeader(std::vector<std::uint8_t>& out, std::uint64_t count, std::uint8_t marker) {
    if (count < 0x0F) {
        out.push_back(static_cast<std::uint8_t>(marker + count));
    } else {
        out.push_back(static_cast<std::uint8_t>(marker + 0x0F));
        appendInteger(out, count);
    }
}

void appendDouble(std::vector<std::uint8_t>& out, double value) {
    appendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
}

// --- Byte input --------------------------------------------------------------

bool isStandardWidth(std::uint8_t width) { return width == 1 || width == 2 || width == 4 || width == 8; }

// The integer-width rule of the format: 2^nibble, kept in 8 bits, so nibbles
// 8 to 15 give a width of 0 (nothing is read).
std::uint8_t widthOfNibble(std::uint8_t marker) { return static_cast<std::uint8_t>(1u << (marker & 0x0F)); }

std::uint64_t readSized(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position,
                        std::uint64_t size) {
    if (size == 0 || position > length || size > length - position) return 0;
    const std::uint64_t v = readBigEndian(bytes + position, size);
    position += size;
    return v;
}

std::uint64_t readInteger(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position) {
    if (position >= length) return 0;
    const std::uint8_t marker = bytes[position++];
    return readSized(bytes, length, position, widthOfNibble(marker));
}

struct Payload {
    const std::uint8_t* bytes;
    std::uint64_t count;  // in units: bytes, or UTF-16 code units for 0x6n
};

// The payload of a 0x4n, 0x5n or 0x6n object whose marker precedes position.
// The format's own bounds test compares the unit count with the bytes left,
// also for UTF-16; the second test catches the 2 x count bytes that test lets
// past the end.
bool readPayload(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position, std::uint8_t marker,
                 Payload& payload, qx::Ref<qx::Error>* error) {
    std::uint64_t count = marker & 0x0F;
    if (count == 0x0F) count = readInteger(bytes, length, position);
    if (position > length || count > length - position) {
        setError(error);
        return false;
    }
    std::uint64_t byteCount = count;
    if ((marker & 0xF0) == 0x60) {
        if (count > (length - position) / 2) {
            setError(error);
            return false;
        }
        byteCount = 2 * count;
    }
    payload = {bytes + position, count};
    position += byteCount;
    return true;
}

bool isASCII(const std::uint8_t* p, std::uint64_t n) {
    std::uint64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + i, 8);
        if (w & 0x8080808080808080ull) return false;
    }
    for (; i < n; ++i)
        if (p[i] & 0x80) return false;
    return true;
}

qx::Ref<qx::Number> readReal(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position,
                             std::uint64_t size, qx::Ref<qx::Error>* error) {
    if (size != 4 && size != 8) {
        QXLog("invalid size %lu for float", static_cast<unsigned long>(size));
        setError(error);
        return nullptr;
    }
    if (position > length || size > length - position) {
        setError(error);
        return nullptr;
    }
    const std::uint64_t bits = readBigEndian(bytes + position, size);
    position += size;
    if (size == 4) return qx::Number::withFloat(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    return qx::Number::withDouble(std::bit_cast<double>(bits));
}

// --- Kinds -------------------------------------------------------------------

enum class Kind : std::uint8_t { Other, String, Number, Dictionary, Array, Set, Date, Data, UID };

// Tells the kind of a value. The value classes are final, so an exact type
// test is a kind test; but comparing std::type_info objects falls back to
// comparing their names whenever the addresses differ, which would cost a
// string compare per kind tried per value. Each distinct type_info address is
// therefore classified once, with the full comparison, and remembered.
class KindCache {
public:
    Kind kindOf(const qx::Object& object) {
        const std::type_info* type = &typeid(object);
        for (std::size_t i = 0; i < used_; ++i)
            if (seen_[i].first == type) return seen_[i].second;
        const Kind kind = classify(object, *type);
        if (used_ < seen_.size()) seen_[used_++] = {type, kind};
        return kind;
    }

private:
    static Kind classify(const qx::Object& object, const std::type_info& type) {
        if (type == typeid(qx::String)) return Kind::String;
        if (type == typeid(qx::Number)) return Kind::Number;
        if (type == typeid(qx::Dictionary)) return Kind::Dictionary;
        if (type == typeid(qx::Array)) return Kind::Array;
        if (type == typeid(qx::Set)) return Kind::Set;
        if (type == typeid(qx::Date)) return Kind::Date;
        if (type == typeid(qx::Data)) return Kind::Data;
        if (dynamic_cast<const QXUIDPropertyList*>(&object)) return Kind::UID;
        return Kind::Other;
    }

    std::array<std::pair<const std::type_info*, Kind>, 16> seen_{};
    std::size_t used_ = 0;
};

// --- Reader ------------------------------------------------------------------

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
        budget_ = length_ > (kUInt64Max - QXBinaryPlistObjectAllowance) / perByte
                      ? kUInt64Max
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

qx::Ref<qx::Object> BinaryReader::decode(std::uint64_t number, unsigned depth, qx::Ref<qx::Error>* error) {
    if (aborted_) {
        setError(error);
        return nullptr;
    }
    if (budget_ == 0)
        return refuse(error, "property list expands to more than %lu objects",
                      static_cast<unsigned long>(budgetLimit_));
    --budget_;

    if (number < objectCount_) {
        if (states_[number] == kInProgress)
            return refuse(error, "reference cycle through object %lu", static_cast<unsigned long>(number));
        if (states_[number] == kCached) return cache_.find(number)->second;
    } else if (isStandardWidth(trailer_.sizeOfOffsetTableEntries())) {
        // (With a width the table cannot have, the lookup below logs instead.)
        return refuse(error, "object reference %lu out of range (%lu objects)", static_cast<unsigned long>(number),
                      static_cast<unsigned long>(objectCount_));
    }

    const std::uint64_t offset = trailer_.offsetOfObjectWithNumber(number);
    if (offset >= length_) {
        setError(error);
        return nullptr;
    }
    const std::uint8_t marker = bytes_[offset];
    std::uint64_t position = offset + 1;
    qx::Ref<qx::Object> leaf;

    switch (marker >> 4) {
    case 0x0:
        if (marker == 0x08 || marker == 0x09) return qx::Number::withBool(marker == 0x09);
        if (marker == 0x00 || marker == 0x0F) return nullptr;
        break;
    case 0x1: {
        std::uint64_t at = offset;
        leaf = qx::Number::withInt64(static_cast<std::int64_t>(readInteger(bytes_, length_, at)));
        break;
    }
    case 0x2:
        leaf = readReal(bytes_, length_, position, widthOfNibble(marker), error);
        if (!leaf) return nullptr;
        break;
    case 0x3:
        if (marker != 0x33) break;
        if (auto seconds = readReal(bytes_, length_, position, 8, error))
            leaf = qx::Date::withTimeIntervalSinceReferenceDate(seconds->doubleValue());
        else
            return nullptr;
        break;
    case 0x4: {
        Payload p;
        if (!readPayload(bytes_, length_, position, marker, p, error)) return nullptr;
        return qx::Data::withBytes(p.bytes, static_cast<std::size_t>(p.count));
    }
    case 0x5: {
        Payload p;
        if (!readPayload(bytes_, length_, position, marker, p, error)) return nullptr;
        if (!isASCII(p.bytes, p.count)) return nullptr;
        leaf = std::make_shared<qx::String>(
            std::string(reinterpret_cast<const char*>(p.bytes), static_cast<std::size_t>(p.count)));
        break;
    }
    case 0x6: {
        Payload p;
        if (!readPayload(bytes_, length_, position, marker, p, error)) return nullptr;
        leaf = stringWithUTF16BigEndian(p.bytes, p.count);
        break;
    }
    case 0x8: {
        const std::uint8_t width = static_cast<std::uint8_t>((marker & 0x0F) + 1);
        if (width > length_ - position) {
            setError(error);
            return nullptr;
        }
        // Read as an integer and written back at the same width, so of more
        // than 8 bytes only the low 8 survive.
        std::vector<std::uint8_t> bytes;
        appendBigEndian(bytes, readBigEndian(bytes_ + position, width), width);
        return QXUIDPropertyList::initWithData(std::make_shared<qx::Data>(std::move(bytes)));
    }
    case 0xA: return decodeArray(number, position, marker, depth, error);
    case 0xC: return decodeSet(number, position, marker, depth, error);
    case 0xD: return decodeDictionary(number, position, marker, depth, error);
    default: break;
    }

    if (!leaf) {
        QXLog("unknown element code 0x%x", static_cast<unsigned>(marker));
        QXLog("masked is 0x%x is == to 0xd0: %u", static_cast<unsigned>(marker & 0xF0), 0u);
        return nullptr;
    }
    if (states_[number] == kUnseen) {
        states_[number] = kSeenOnce;
    } else {
        states_[number] = kCached;
        cache_.emplace(number, leaf);
    }
    return leaf;
}

// The string's own buffer is allocated once at its exact size: the
// conversion runs in reused scratch buffers, as strings are the most
// numerous objects of most files. Unpaired surrogates become U+FFFD.
qx::Ref<qx::Object> BinaryReader::stringWithUTF16BigEndian(const std::uint8_t* bytes, std::uint64_t count) {
    if (count == 0) return std::make_shared<qx::String>();
    // Lengths ICU cannot take in one call are rare enough for the general path.
    if (count > static_cast<std::uint64_t>(std::numeric_limits<int32_t>::max() / 3))
        return qx::String::withUTF16BigEndian(bytes, static_cast<std::size_t>(count));
    units_.resize(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < units_.size(); ++i)
        units_[i] = static_cast<char16_t>((bytes[2 * i] << 8) | bytes[2 * i + 1]);
    utf8_.resize(units_.size() * 3);
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(utf8_.data(), static_cast<int32_t>(utf8_.size()), &written,
                       reinterpret_cast<const UChar*>(units_.data()), static_cast<int32_t>(units_.size()), 0xFFFD,
                       nullptr, &status);
    if (U_FAILURE(status)) return qx::String::withUTF16BigEndian(bytes, static_cast<std::size_t>(count));
    return std::make_shared<qx::String>(std::string(utf8_.data(), static_cast<std::size_t>(written)));
}

bool BinaryReader::beginContainer(std::uint64_t number, unsigned depth, qx::Ref<qx::Error>* error) {
    if (depth >= QXBinaryPlistMaxNestingDepth) {
        refuse(error, "property list nests deeper than %u levels", QXBinaryPlistMaxNestingDepth);
        return false;
    }
    states_[number] = kInProgress;
    return true;
}

bool BinaryReader::checkCount(std::uint64_t count, std::uint64_t position, unsigned refsPerEntry,
                              std::uint64_t number, qx::Ref<qx::Error>* error) {
    // Each reference produces an object, so the budget bounds the count too;
    // that is the only bound for references of width 0, which all read as
    // object 0 and take no bytes.
    std::uint64_t room = budget_ / refsPerEntry;
    if (refSize_) room = std::min(room, (length_ - position) / refSize_ / refsPerEntry);
    if (count > room) {
        refuse(error, "object %lu holds %lu entries, more than the data can reference",
               static_cast<unsigned long>(number), static_cast<unsigned long>(count));
        return false;
    }
    return true;
}

// Dictionary keys and set members are found by hash and equality. Strings,
// numbers, dates and UIDs hash well; containers hash by their count and data
// by its first bytes, so many distinct keys of those kinds can share one hash,
// and inserting each would compare it with every earlier one, as deep as they
// go: quadratic work from a linear file. Real files hardly use such keys, so
// the work they can cause (earlier such keys in the same table times the
// objects in this one) is charged against the object budget.
bool BinaryReader::chargeKey(const qx::Object& key, std::uint64_t keyObjects, std::uint64_t& weakKeys,
                             qx::Ref<qx::Error>* error) {
    std::uint64_t weight;
    switch (kinds_.kindOf(key)) {
    case Kind::Array:
    case Kind::Dictionary:
    case Kind::Set: weight = keyObjects; break;
    case Kind::Data: weight = 1 + static_cast<const qx::Data&>(key).length() / 64; break;
    default: return true;
    }
    std::uint64_t work = 0;
    if (__builtin_mul_overflow(weakKeys, weight, &work) || __builtin_add_overflow(keyWork_, work, &keyWork_) ||
        keyWork_ > budgetLimit_) {
        refuse(error, "property list has too many containers or data objects as keys");
        return false;
    }
    ++weakKeys;
    return true;
}

qx::Ref<qx::Object> BinaryReader::decodeArray(std::uint64_t number, std::uint64_t position, std::uint8_t marker,
                                              unsigned depth, qx::Ref<qx::Error>* error) {
    std::uint64_t count = 0;
    if (!openContainer(number, position, marker, 1, depth, count, error)) return nullptr;

    auto array = std::make_shared<qx::Array>();
    array->reserve(static_cast<std::size_t>(count));
    for (std::uint64_t i = 0; i < count; ++i) {
        auto element = decode(readRef(position), depth + 1, nullptr);
        if (!element) {
            states_[number] = kUnseen;
            if (!aborted_) QXLog("property list was nil!");
            setError(error);
            return nullptr;
        }
        array->addObject(std::move(element));
    }
    states_[number] = kUnseen;
    return array;
}

qx::Ref<qx::Object> BinaryReader::decodeSet(std::uint64_t number, std::uint64_t position, std::uint8_t marker,
                                            unsigned depth, qx::Ref<qx::Error>* error) {
    std::uint64_t count = 0;
    if (!openContainer(number, position, marker, 1, depth, count, error)) return nullptr;

    auto set = std::make_shared<qx::Set>();
    std::uint64_t weakKeys = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t budgetBefore = budget_;
        auto element = decode(readRef(position), depth + 1, nullptr);
        if (!element || !chargeKey(*element, budgetBefore - budget_, weakKeys, nullptr)) {
            states_[number] = kUnseen;
            setError(error);
            return nullptr;
        }
        set->addObject(std::move(element));
    }
    states_[number] = kUnseen;
    return set;
}

qx::Ref<qx::Object> BinaryReader::decodeDictionary(std::uint64_t number, std::uint64_t position, std::uint8_t marker,
                                                   unsigned depth, qx::Ref<qx::Error>* error) {
    std::uint64_t count = 0;
    if (!openContainer(number, position, marker, 2, depth, count, error)) return nullptr;

    // Keys wait on a stack shared by all dictionaries being decoded: nested
    // dictionaries push above this one's keys and pop back before it goes on.
    const std::size_t keysAt = keyStack_.size();
    auto fail = [&] {
        keyStack_.resize(keysAt);
        states_[number] = kUnseen;
        setError(error);
        return nullptr;
    };
    std::uint64_t weakKeys = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t budgetBefore = budget_;
        auto key = decode(readRef(position), depth + 1, nullptr);
        if (!key) {
            if (!aborted_) QXLog("key was nil!");
            return fail();
        }
        if (!chargeKey(*key, budgetBefore - budget_, weakKeys, nullptr)) return fail();
        keyStack_.push_back(std::move(key));
    }
    auto dictionary = std::make_shared<qx::Dictionary>();
    dictionary->reserve(static_cast<std::size_t>(count));
    for (std::uint64_t i = 0; i < count; ++i) {
        auto value = decode(readRef(position), depth + 1, nullptr);
        if (!value) {
            if (!aborted_) QXLog("value was nil for key %@!", keyStack_[keysAt + i]);
            return fail();
        }
        dictionary->setObject(std::move(value), std::move(keyStack_[keysAt + i]));
    }
    keyStack_.resize(keysAt);
    states_[number] = kUnseen;
    return dictionary;
}

// --- Writer ------------------------------------------------------------------

// What the writer needs to know before it starts: the value count that
// chooses the reference width, and a rough size of the output so that the
// buffer is allocated once (an overestimate costs address space, not memory).
struct Census {
    std::uint64_t values = 0;   // keys not counted
    std::uint64_t objects = 0;  // keys counted
    std::uint64_t bytes = 0;
};

void takeCensus(const qx::Object* plist, unsigned depth, KindCache& kinds, Census& census) {
    ++census.values;
    ++census.objects;
    census.bytes += 12;  // marker, count or scalar, offset-table entry
    // Past the nesting limit the writer refuses anyway; stop descending so
    // that a container holding itself cannot recurse for ever here.
    if (!plist || depth >= QXBinaryPlistMaxNestingDepth) return;
    switch (kinds.kindOf(*plist)) {
    case Kind::Dictionary:
        for (const auto& entry : static_cast<const qx::Dictionary&>(*plist)) {
            ++census.objects;
            census.bytes += 20;
            if (entry.first && kinds.kindOf(*entry.first) == Kind::String)
                census.bytes += static_cast<const qx::String&>(*entry.first).utf8().size();
            takeCensus(entry.second.get(), depth + 1, kinds, census);
        }
        break;
    case Kind::Array:
        for (const auto& element : static_cast<const qx::Array&>(*plist)) {
            census.bytes += 4;
            takeCensus(element.get(), depth + 1, kinds, census);
        }
        break;
    case Kind::String: census.bytes += static_cast<const qx::String&>(*plist).utf8().size(); break;
    case Kind::Data: census.bytes += static_cast<const qx::Data&>(*plist).length(); break;
    default: break;
    }
}

class BinaryWriter {
public:
    BinaryWriter(std::vector<std::uint8_t>& out, std::vector<std::uint8_t>& table, std::uint8_t refSize,
                 std::uint64_t& objectCount)
        : out_(out), table_(table), refSize_(refSize), objectCount_(objectCount) {}

    bool write(const qx::Object* plist, std::uint64_t* number, unsigned depth, qx::Ref<qx::Error>* error);

private:
    bool writeArray(const qx::Array& array, unsigned depth, qx::Ref<qx::Error>* error);
    bool writeDictionary(const qx::Dictionary& dictionary, std::uint64_t number, unsigned depth,
                         qx::Ref<qx::Error>* error);
    void writeString(const qx::String& string);

    // Appends the object's offset to the table, cut to the reference width.
    void recordOffset(std::uint64_t offset) {
        if (refSize_ == 2) {
            table_.push_back(static_cast<std::uint8_t>(offset >> 8));
            table_.push_back(static_cast<std::uint8_t>(offset));
        } else {
            appendBigEndian(table_, offset, refSize_);
        }
    }

    std::vector<std::uint8_t>& out_;
    std::vector<std::uint8_t>& table_;
    const std::uint8_t refSize_;
    std::uint64_t& objectCount_;
    KindCache kinds_;
};

bool BinaryWriter::write(const qx::Object* plist, std::uint64_t* number, unsigned depth, qx::Ref<qx::Error>* error) {
    recordOffset(out_.size());
    const std::uint64_t mine = objectCount_++;
    if (number) *number = mine;
    if (!plist) return true;

    switch (kinds_.kindOf(*plist)) {
    case Kind::String: writeString(static_cast<const qx::String&>(*plist)); break;
    case Kind::Number: {
        const auto& n = static_cast<const qx::Number&>(*plist);
        if (n.isBoolean()) {
            out_.push_back(n.boolValue() ? 0x09 : 0x08);
        } else if (n.isReal()) {
            out_.push_back(0x23);
            appendDouble(out_, n.doubleValue());
        } else {
            appendInteger(out_, static_cast<std::uint64_t>(n.int64Value()));
        }
        break;
    }
    case Kind::Dictionary: return writeDictionary(static_cast<const qx::Dictionary&>(*plist), mine, depth, error);
    case Kind::Array: return writeArray(static_cast<const qx::Array&>(*plist), depth, error);
    case Kind::Date:
        out_.push_back(0x33);
        appendDouble(out_, static_cast<const qx::Date&>(*plist).timeIntervalSinceReferenceDate());
        break;
    case Kind::Data: {
        const auto& d = static_cast<const qx::Data&>(*plist);
        appendCountHeader(out_, d.length(), 0x40);
        out_.insert(out_.end(), d.bytes(), d.bytes() + d.length());
        break;
    }
    case Kind::UID: {
        const auto& uid = static_cast<const QXUIDPropertyList&>(*plist);
        const std::size_t n = uid.data() ? uid.data()->length() : 0;
        if (n == 0 || n > 16) {
            QXLog("invalid UID length");
            setError(error);
            return false;
        }
        out_.push_back(static_cast<std::uint8_t>(0x80 + (n - 1)));
        out_.insert(out_.end(), uid.data()->bytes(), uid.data()->bytes() + n);
        break;
    }
    case Kind::Set:
    case Kind::Other: break;
    }
    // Any other kind (a set, null, a foreign object) keeps its number and
    // offset entry but writes nothing: its entry points at whatever follows.
    // Readers of files this writer made depend on that numbering.
    return true;
}

void BinaryWriter::writeString(const qx::String& string) {
    const std::string& utf8 = string.utf8();
    const auto* p = reinterpret_cast<const std::uint8_t*>(utf8.data());
    if (isASCII(p, utf8.size())) {
        appendCountHeader(out_, utf8.size(), 0x50);
        out_.insert(out_.end(), p, p + utf8.size());
        return;
    }
    const std::u16string units = string.utf16();
    appendCountHeader(out_, units.size(), 0x60);
    const std::size_t at = out_.size();
    out_.resize(at + 2 * units.size());
    std::uint8_t* dst = out_.data() + at;
    for (char16_t u : units) {
        *dst++ = static_cast<std::uint8_t>(u >> 8);
        *dst++ = static_cast<std::uint8_t>(u);
    }
}

bool BinaryWriter::writeArray(const qx::Array& array, unsigned depth, qx::Ref<qx::Error>* error) {
    if (depth >= QXBinaryPlistMaxNestingDepth) {
        QXLog("property list nests deeper than %u levels", QXBinaryPlistMaxNestingDepth);
        setError(error);
        return false;
    }
    const std::size_t count = array.count();
    appendCountHeader(out_, count, 0xA0);
    // References are reserved now and filled in as each element gets its number.
    const std::size_t refsAt = out_.size();
    out_.resize(refsAt + count * refSize_);
    for (std::size_t i = 0; i < count; ++i) {
        std::uint64_t element = 0;
        if (!write(array[i].get(), &element, depth + 1, error)) return false;
        putBigEndian(out_.data() + refsAt + i * refSize_, element, refSize_);
    }
    return true;
}

bool BinaryWriter::writeDictionary(const qx::Dictionary& dictionary, std::uint64_t number, unsigned depth,
                                   qx::Ref<qx::Error>* error) {
    if (depth >= QXBinaryPlistMaxNestingDepth) {
        QXLog("property list nests deeper than %u levels", QXBinaryPlistMaxNestingDepth);
        setError(error);
        return false;
    }
    const std::size_t count = dictionary.count();
    appendCountHeader(out_, count, 0xD0);
    // The keys are written first, right after the dictionary, so their numbers
    // are known before any of them is written.
    for (std::size_t i = 1; i <= count; ++i) appendBigEndian(out_, number + i, refSize_);
    const std::size_t valueRefsAt = out_.size();
    out_.resize(valueRefsAt + count * refSize_);

    std::vector<const qx::Dictionary::Entry*> entries;
    entries.reserve(count);
    for (const auto& entry : dictionary) {
        const qx::Object* key = entry.first.get();
        if (!key || kinds_.kindOf(*key) != Kind::String) {
            QXLog("can't have a non-string key!");
            setError(error);
            return false;
        }
        entries.push_back(&entry);
    }
    const auto byKey = [](const qx::Dictionary::Entry* a, const qx::Dictionary::Entry* b) {
        return static_cast<const qx::String&>(*a->first).localizedStandardCompare(
                   static_cast<const qx::String&>(*b->first)) < 0;
    };
    // Files written by this writer come back with their keys in order; checking
    // first saves the collator most of the work when they are written again.
    if (!std::is_sorted(entries.begin(), entries.end(), byKey)) std::sort(entries.begin(), entries.end(), byKey);

    for (const auto* entry : entries)
        if (!write(entry->first.get(), nullptr, depth + 1, error)) return false;
    for (std::size_t i = 0; i < count; ++i) {
        std::uint64_t value = 0;
        if (!write(entries[i]->second.get(), &value, depth + 1, error)) return false;
        putBigEndian(out_.data() + valueRefsAt + i * refSize_, value, refSize_);
    }
    return true;
}

// --- Format detection and the readers of other formats --------------------------

// True when bytes, read as UTF-8 with white space and line ends trimmed from
// the start, begin with the plist tag. Bytes that are not valid UTF-8 (a
// character cut at the end counts) are not text.
bool beginsWithPlistTag(std::string_view bytes) {
    UChar units[kTextSniffLength];
    int32_t count = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(units, static_cast<int32_t>(kTextSniffLength), &count, bytes.data(),
                  static_cast<int32_t>(bytes.size()), &status);
    if (U_FAILURE(status)) return false;
    int32_t i = 0;
    while (i < count) {
        UChar32 c;
        int32_t next = i;
        U16_NEXT(units, next, count, c);
        if (!u_isUWhiteSpace(c)) break;
        i = next;
    }
    if (static_cast<std::size_t>(count - i) < kPlistTag.size()) return false;
    for (std::size_t k = 0; k < kPlistTag.size(); ++k)
        if (units[static_cast<std::size_t>(i) + k] != static_cast<UChar>(kPlistTag[k])) return false;
    return true;
}

// The platform's reader, for data the library's own readers cannot read. It
// reads what this system's platform would: binary files are left as they
// failed; text that opens like an XML document (also in UTF-16) goes to the
// XML reader, whose errors are then the caller's; anything else is read as
// old-style text, the brace and parenthesis form that format 1 writes.
qx::Ref<qx::Object> readWithFallback(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format,
                                     qx::Ref<qx::Error>* error) {
    if (!data || data->view().starts_with("bplist")) {
        setError(error);
        return nullptr;
    }
    if (data->length() == 0) {
        QXLog("cannot read a property list from empty data");
        if (error)
            *error = QXGenerateError(qx::NSCocoaErrorDomain, kPropertyListErrorCode, nullptr, nullptr, nullptr,
                                     "The data is empty.");
        return nullptr;
    }
    const std::string_view bytes = data->view();
    // The opening, decoded as the text reader decodes: enough for an XML declaration.
    const std::u16string head = qx::decodeStringsFileText(bytes.substr(0, std::min<std::size_t>(bytes.size(), 256)));
    std::size_t i = 0;
    while (i < head.size() && (head[i] == u' ' || head[i] == u'\t' || head[i] == u'\r' || head[i] == u'\n' ||
                               head[i] == 0xFEFF))
        ++i;
    const std::u16string_view opening = std::u16string_view(head).substr(i);
    if (opening.starts_with(u"<?xml") || opening.starts_with(u"<!") || opening.starts_with(u"<plist")) {
        qx::Ref<qx::Error> xmlError;
        auto plist = QXPropertyListSerialization::XMLPropertyListWithData(data, &xmlError);
        if (plist) {
            if (format) *format = QXPropertyListXMLFormat_v1_0;
            return plist;
        }
        // Element text that does not parse fails the document without an
        // error of its own; the caller still learns that the data was refused.
        if (!xmlError) QXLog("XML property list holds text that is not a value of its element");
        if (error) *error = xmlError ? xmlError : makeError();
        return nullptr;
    }
    qx::OldStyleParseFailure failure;
    auto plist = qx::propertyListFromOldStyleData(bytes, &failure);
    if (!plist) {
        QXLog("old-style property list: %s at line %lu, column %lu", failure.reason,
              static_cast<unsigned long>(failure.line), static_cast<unsigned long>(failure.column));
        if (error)
            *error = QXGenerateError(qx::NSCocoaErrorDomain, kPropertyListErrorCode, nullptr, nullptr, nullptr,
                                     "The data is not a property list: %s at line %lu, column %lu.", failure.reason,
                                     static_cast<unsigned long>(failure.line),
                                     static_cast<unsigned long>(failure.column));
        return nullptr;
    }
    if (format) *format = QXPropertyListOpenStepFormat;
    return plist;
}

} // namespace

// --- Entry points --------------------------------------------------------------

bool QXPropertyListSerialization::isPropertyList(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format) {
    if (!data || data->length() < kMinimumSniffLength) return false;
    const std::string_view bytes = data->view();
    if (bytes.starts_with(kXMLDeclaration)) {
        if (bytes.substr(0, kXMLSniffLength).find(kPlistTag) == std::string_view::npos) return false;
        if (format) *format = QXPropertyListXMLFormat_v1_0;
        return true;
    }
    if (bytes.size() >= kTextSniffLength) {
        if (beginsWithPlistTag(bytes.substr(0, kTextSniffLength))) {
            if (format) *format = QXPropertyListXMLFormat_v1_0;
            return true;
        }
    } else if (bytes.size() < kMinimumBinaryLength) {
        return false;
    }
    if (!bytes.starts_with(kBinaryMagic)) return false;
    if (format) *format = QXPropertyListBinaryFormat_v1_0;
    return true;
}

qx::Ref<qx::Object> QXPropertyListSerialization::propertyListWithData(const qx::Ref<qx::Data>& data,
                                                                      QXPropertyListFormat* format,
                                                                      qx::Ref<qx::Error>* error) {
    QXPropertyListFormat recognised = 0;
    if (isPropertyList(data, &recognised)) {
        qx::Ref<qx::Object> plist = recognised == QXPropertyListBinaryFormat_v1_0
                                        ? binaryPropertyListWithData(data, nullptr)
                                        : XMLPropertyListWithData(data, nullptr);
        if (plist) {
            if (format) *format = recognised;
            return plist;
        }
    }
    return readWithFallback(data, format, error);
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                    QXPropertyListFormat format,
                                                                    qx::Ref<qx::Error>* error) {
    switch (format) {
    case QXPropertyListBinaryFormat_v1_0: return binaryDataWithPropertyList(plist, error);
    case QXPropertyListOpenStepFormat: return oldStylePlistDataWithItem(plist, error);
    case QXPropertyListXMLFormat_v1_0: return xmlDataWithPropertyList(plist, error);
    default: setError(error, qx::NSPOSIXErrorDomain, EINVAL); return nullptr;
    }
}

namespace {

qx::Ref<qx::Data> writeBinary(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error) {
    // One width serves both object references and file offsets, chosen from
    // the value count alone (keys are not counted): a file that outgrows it is
    // written with references and offsets cut to their low bytes. Readers of
    // this writer's files expect exactly that width, so it is never widened.
    KindCache kinds;
    Census census;
    takeCensus(plist.get(), 0, kinds, census);
    const std::uint64_t values = census.values;
    const std::uint8_t refSize = values < 65535 ? 2 : (values <= 4294967294ull ? 4 : 8);

    auto out = qx::Data::create();
    std::vector<std::uint8_t>& bytes = out->vector();
    bytes.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(census.bytes + 64, std::uint64_t{1} << 30)));
    bytes.insert(bytes.end(), kBinaryMagic.begin(), kBinaryMagic.end());
    std::vector<std::uint8_t> table;
    table.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(census.objects, std::uint64_t{1} << 30) * refSize));
    std::uint64_t objectCount = 0;
    BinaryWriter writer(bytes, table, refSize, objectCount);
    if (!writer.write(plist.get(), nullptr, 0, error)) return nullptr;
    if (table.size() != objectCount * refSize) {
        QXLog("Incorrect table size");
        setError(error);
        return nullptr;
    }
    const std::uint64_t tableOffset = bytes.size();
    bytes.insert(bytes.end(), table.begin(), table.end());
    bytes.insert(bytes.end(), 6, 0);
    bytes.push_back(refSize);
    bytes.push_back(refSize);
    appendBigEndian(bytes, objectCount, 8);
    appendBigEndian(bytes, 0, 8);
    appendBigEndian(bytes, tableOffset, 8);
    return out;
}

} // namespace

qx::Ref<qx::Data> QXPropertyListSerialization::binaryDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                          qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&] { return writeBinary(plist, error); });
}

qx::Ref<qx::Object> QXPropertyListSerialization::binaryPropertyListWithData(const qx::Ref<qx::Data>& data,
                                                                            qx::Ref<qx::Error>* error) {
    if (!data) {
        setError(error);
        return nullptr;
    }
    auto trailer = failingOnExhaustion(error, [&] { return QXBinaryPlistTrailer::trailerWithData(*data, error); });
    if (!trailer) return nullptr;
    return plistElementWithNumber(trailer->numberOfTopLevelObject(), *data, *trailer, error);
}

// --- Writer helpers ------------------------------------------------------------

std::uint64_t QXPropertyListSerialization::countPlists(const qx::Ref<qx::Object>& plist) {
    KindCache kinds;
    Census census;
    takeCensus(plist.get(), 0, kinds, census);
    return census.values;
}

bool QXPropertyListSerialization::addPlist(const qx::Ref<qx::Object>& plist, qx::Data& data, qx::Data& ptrTable,
                                           std::uint8_t ptrSize, std::uint64_t& objCount, std::uint64_t* objNum,
                                           qx::Ref<qx::Error>* error) {
    BinaryWriter writer(data.vector(), ptrTable.vector(), ptrSize, objCount);
    return writer.write(plist.get(), objNum, 0, error);
}

bool QXPropertyListSerialization::addVariableLength(std::uint64_t count, qx::Data& data, std::uint8_t marker,
                                                    qx::Ref<qx::Error>*) {
    appendCountHeader(data.vector(), count, marker);
    return true;
}

bool QXPropertyListSerialization::addInteger(std::uint64_t value, qx::Data& data, qx::Ref<qx::Error>*) {
    appendInteger(data.vector(), value);
    return true;
}

bool QXPropertyListSerialization::addInteger(std::uint64_t value, qx::Data& data, std::uint8_t intSize,
                                             qx::Ref<qx::Error>*) {
    appendBigEndian(data.vector(), value, intSize);
    return true;
}

bool QXPropertyListSerialization::addDouble(double value, qx::Data& data, qx::Ref<qx::Error>*) {
    appendDouble(data.vector(), value);
    return true;
}

// --- Reader helpers ------------------------------------------------------------

std::uint64_t QXPropertyListSerialization::intFromData(const qx::Data& data, std::uint64_t& position) {
    return readInteger(data.bytes(), data.length(), position);
}

std::uint64_t QXPropertyListSerialization::intFromData(const qx::Data& data, std::uint64_t& position,
                                                       std::uint64_t size) {
    return readSized(data.bytes(), data.length(), position, size);
}

qx::Ref<qx::Number> QXPropertyListSerialization::floatNumberFromData(const qx::Data& data, std::uint64_t& position,
                                                                     std::uint64_t size, qx::Ref<qx::Error>* error) {
    return readReal(data.bytes(), data.length(), position, size, error);
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataFromData(const qx::Data& data, std::uint64_t& position,
                                                            std::uint8_t initialByte, qx::Ref<qx::Error>* error) {
    Payload p;
    if (!readPayload(data.bytes(), data.length(), position, initialByte, p, error)) return nullptr;
    const std::uint64_t byteCount = (initialByte & 0xF0) == 0x60 ? 2 * p.count : p.count;
    return qx::Data::withBytes(p.bytes, static_cast<std::size_t>(byteCount));
}

qx::Ref<qx::Object> QXPropertyListSerialization::plistElementWithNumber(std::uint64_t number, const qx::Data& data,
                                                                        const QXBinaryPlistTrailer& trailer,
                                                                        qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&] {
        BinaryReader reader(data, trailer);
        return reader.decode(number, 0, error);
    });
}
