// QXBinaryPlistTrailer.h - the decoded trailer of a "bplist00" file.
//
// The trailer is the last 32 bytes of a binary property list: the widths of
// offset-table entries and of object references, the object count, the root
// object's number and where the offset table starts. A trailer object holds
// those fields and the offset table itself, decoded once so that looking up
// an object's offset is an index operation. It is read-only after creation,
// so any number of threads may use one trailer at once.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <cstdint>
#include <vector>

class QXBinaryPlistTrailer : public qx::Object {
public:
    /// Decodes the trailer and offset table of data, or returns nothing with
    /// NSCocoaErrorDomain 3840 when they do not fit the data or the entry
    /// width is not 1, 2, 4 or 8. The table is validated against the data
    /// length before anything is allocated for it, so a forged object count
    /// cannot make this allocate more than a few times the data's size.
    static qx::Ref<QXBinaryPlistTrailer> trailerWithData(const qx::Data& data, qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<QXBinaryPlistTrailer> initWithData(const qx::Data& data, qx::Ref<qx::Error>* error = nullptr);

    /// Width in bytes of object references inside arrays, sets and dictionaries.
    std::uint8_t sizeOfOffsets() const { return ofsSiz_; }
    /// Width in bytes of each offset-table entry.
    std::uint8_t sizeOfOffsetTableEntries() const { return tbOfsSiz_; }
    std::uint64_t numberOfObjects() const { return ofsCnt_; }
    std::uint64_t numberOfTopLevelObject() const { return topLvl_; }

    /// The file offset of object number, or all ones when number is not below
    /// numberOfObjects() (an offset no data can reach, so callers need only one
    /// bounds test). An entry width other than 1, 2, 4 or 8 can only survive
    /// decoding with zero objects; asking for an offset then logs and yields
    /// all ones as well.
    std::uint64_t offsetOfObjectWithNumber(std::uint64_t number) const;

    std::string className() const override { return "QXBinaryPlistTrailer"; }

protected:
    QXBinaryPlistTrailer() = default;

private:
    bool decode(const qx::Data& data, qx::Ref<qx::Error>* error);

    std::uint8_t tbOfsSiz_ = 0;       // offset-table entry width
    std::uint8_t ofsSiz_ = 0;         // object-reference width
    std::uint64_t ofsCnt_ = 0;        // number of objects and of table entries
    std::uint64_t topLvl_ = 0;        // root object number
    std::vector<std::uint8_t> tbl_;   // ofsCnt_ entries of tbOfsSiz_ bytes each, machine byte order
};
