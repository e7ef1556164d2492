// DiskImageFuzzer.cpp - libFuzzer target for the disk-image reader: trailer,
// property list, block tables, resource fork, licence text, and reads.
//
// Input: one byte choosing the layer, then its bytes.
//   0: a whole image (opened from memory, then read and verified where small);
//   1: a classic resource fork;  2: one block table;  3: RTF licence text.
// Besides not crashing: every failure is the reader's own error, never a read
// outside the file (the memory source reports those as read failures).
#include "FuzzSupport.h"

#include "Internal/QXUDIFBlockTable.h"
#include "Internal/QXUDIFLicense.h"
#include "Internal/QXUDIFResources.h"

#include <QXFoundation/QXDiskImage.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace {

// Decoding a lying sector count of zeros is slow, not wrong: keep runs short.
constexpr std::uint64_t kMaxWholeRead = 16ull << 20;

void requireReaderError(const qx::Ref<qx::Error>& error) {
    if (!error) return;
    fuzz::require(error->domain() == kQXDiskImageErrorDomain);
    fuzz::require(error->code() != kQXDiskImageErrorReadFailed);
}

void fuzzImage(const std::uint8_t* data, std::size_t size) {
    qx::Ref<qx::Error> error;
    auto image = QXDiskImage::imageWithData(qx::Data::withBytes(data, size), &error);
    requireReaderError(error);
    if (!image) return;
    const std::uint64_t total = image->size();
    for (std::uint64_t offset : {std::uint64_t{0}, total / 2, total > 100 ? total - 100 : 0}) {
        error = nullptr;
        auto bytes = image->readDataInRange(offset, 4096, &error);
        requireReaderError(error);
        if (bytes) fuzz::require(bytes->length() == std::min<std::uint64_t>(4096, total - std::min(total, offset)));
    }
    if (total <= kMaxWholeRead) {
        error = nullptr;
        std::uint64_t next = 0;
        const bool ok = image->enumerateContents(
            [&next](std::uint64_t offset, const std::uint8_t*, std::uint64_t length) {
                fuzz::require(offset == next);
                next = offset + length;
                return true;
            },
            &error);
        requireReaderError(error);
        if (ok) fuzz::require(next == total);
        QXDiskImageVerification verification;
        error = nullptr;
        image->verifyChecksums(&verification, &error);
        requireReaderError(error);
    }
    (void)image->licenseAgreement();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::silenceLog();
    if (size < 1) return 0;
    const std::uint8_t layer = data[0] % 4;
    ++data;
    --size;
    std::string reason;
    switch (layer) {
    case 0:
        fuzzImage(data, size);
        break;
    case 1:
        if (auto resources = QXUDIF::Resources::fromResourceFork(data, size, &reason)) (void)QXUDIF::License::text(*resources);
        break;
    case 2:
        (void)QXUDIF::BlockTable::parse(data, size, &reason);
        break;
    default:
        (void)QXUDIF::License::textFromRTF(std::string(reinterpret_cast<const char*>(data), size));
        break;
    }
    return 0;
}
