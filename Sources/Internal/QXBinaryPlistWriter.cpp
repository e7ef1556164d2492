// QXBinaryPlistWriter.cpp - encoding values as a binary property list.
#include "Internal/QXBinaryPlistWriter.h"

#include <QXFoundation/QXUIDPropertyList.h>

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/String.h>

#include <algorithm>
#include <string_view>

namespace QXBinaryPlistInternal {

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

namespace {

std::uint8_t widthForCount(std::uint64_t count) { return count < 65535 ? 2 : (count <= 4294967294ull ? 4 : 8); }

std::uint64_t largestIn(std::uint8_t width) { return width >= 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << (8 * width)) - 1; }

} // namespace

qx::Ref<qx::Data> writeBinary(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error, bool widen) {
    // One width serves both object references and file offsets, chosen from
    // the value count alone (keys are not counted): a file that outgrows it is
    // written with references and offsets cut to their low bytes. Readers of
    // this writer's files expect exactly that width, so it is widened only
    // when the caller asks.
    KindCache kinds;
    Census census;
    takeCensus(plist.get(), 0, kinds, census);
    std::uint8_t refSize = widthForCount(census.values);
    if (widen) refSize = std::max(refSize, widthForCount(census.objects));
    for (;;) {
        auto out = qx::Data::create();
        std::vector<std::uint8_t>& bytes = out->vector();
        bytes.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(census.bytes + 64, std::uint64_t{1} << 30)));
        bytes.insert(bytes.end(), kBinaryPlistMagic.begin(), kBinaryPlistMagic.end());
        std::vector<std::uint8_t> table;
        table.reserve(
            static_cast<std::size_t>(std::min<std::uint64_t>(census.objects, std::uint64_t{1} << 30) * refSize));
        std::uint64_t objectCount = 0;
        BinaryWriter writer(bytes, table, refSize, objectCount);
        if (!writer.write(plist.get(), nullptr, 0, error)) return nullptr;
        if (table.size() != objectCount * refSize) {
            QXLog("Incorrect table size");
            setError(error);
            return nullptr;
        }
        const std::uint64_t tableOffset = bytes.size();
        // Offsets lie below the table; the last object number is objectCount - 1.
        if (widen && refSize < 8 && std::max(tableOffset - 1, objectCount - 1) > largestIn(refSize)) {
            refSize = static_cast<std::uint8_t>(refSize * 2);
            continue;
        }
        bytes.insert(bytes.end(), table.begin(), table.end());
        bytes.insert(bytes.end(), 6, 0);
        bytes.push_back(refSize);
        bytes.push_back(refSize);
        appendBigEndian(bytes, objectCount, 8);
        appendBigEndian(bytes, 0, 8);
        appendBigEndian(bytes, tableOffset, 8);
        return out;
    }
}

} // namespace QXBinaryPlistInternal
