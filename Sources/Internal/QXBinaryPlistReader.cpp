// QXBinaryPlistReader.cpp - decoding the objects of a binary property list.
#include "Internal/QXBinaryPlistReader.h"

#include <QXFoundation/QXUIDPropertyList.h>

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/Set.h>
#include <qx/String.h>

#include <unicode/ustring.h>

#include <algorithm>
#include <limits>

namespace QXBinaryPlistInternal {

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

} // namespace QXBinaryPlistInternal
