// QXBinaryPlistWriter.h - the encoder of binary "bplist00" property lists.
//
// Private to Sources/. Objects are numbered depth first, a dictionary's keys
// right after the dictionary and before its values; values of kinds the format
// cannot hold keep a number and an offset entry without bytes. A writer
// serves one encode on one thread.
#pragma once

#include <QXFoundation/QXPropertyListSerialization.h>

#include "Internal/QXBinaryPlistBytes.h"
#include "Internal/QXPropertyListKind.h"

#include <cstdint>
#include <vector>

namespace QXBinaryPlistInternal {

// What the writer needs to know before it starts: the value count that
// chooses the reference width, and a rough size of the output so that the
// buffer is allocated once (an overestimate costs address space, not memory).
struct Census {
    std::uint64_t values = 0;   // keys not counted
    std::uint64_t objects = 0;  // keys counted
    std::uint64_t bytes = 0;
};


/// Counts plist and everything it holds into census (down to the nesting limit).
void takeCensus(const qx::Object* plist, unsigned depth, KindCache& kinds, Census& census);

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

/// The whole file for plist: header, objects, offset table and trailer.
/// widen: grow the reference width until every object number and offset fits.
qx::Ref<qx::Data> writeBinary(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error, bool widen = false);

} // namespace QXBinaryPlistInternal
