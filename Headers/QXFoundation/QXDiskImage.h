// QXDiskImage.h - reading disk-image files: flattened UDIF images (.dmg) and
// raw images (.iso, .cdr, .img).
//
// A UDIF image is recognised by its 512-byte trailer at the end of the file,
// never by its first bytes (the data fork starts at offset 0, so a bzip2
// image begins like a bzip2 file). A file without the trailer is a raw image
// whose bytes are the disk. Encrypted, segmented, NDIF and DiskCopy 4.2
// images are refused with kQXDiskImageErrorUnsupportedImage and a message
// naming the kind.
//
// Every offset, length and count the file states is checked against the
// file before use: an image that lies fails to open (or, for damage inside a
// chunk, fails to read that chunk) with kQXDiskImageErrorCorrupt; nothing is
// read outside the file and no allocation is larger than one chunk (64 MiB
// at most) or the property list (256 MiB at most).
//
// Reads decode only the chunks that cover the range asked for, in whatever
// order they are stored, and keep the last few decoded chunks, so that
// sequential reads decode each chunk once. Whole-image passes (contents,
// verification) decode many chunks at once on the library's operation queue.
//
// Thread-safe: reads from several threads are allowed (a remote source serves
// them one at a time).
#pragma once

#include <QXFoundation/QXRemoteFileHandle.h>

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/Object.h>
#include <qx/URL.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// "QXDiskImageErrorDomain"
extern const char* const kQXDiskImageErrorDomain;

enum : std::int64_t {
    kQXDiskImageErrorReadFailed = 1,        // the file could not be read (underlying error attached)
    kQXDiskImageErrorCorrupt = 2,           // a field lies, or a chunk does not decode
    kQXDiskImageErrorUnsupportedImage = 3,  // encrypted, segmented, NDIF, DiskCopy 4.2
    kQXDiskImageErrorUnsupportedChunk = 4,  // a chunk kind or compression this build cannot read
    kQXDiskImageErrorCancelled = 5,         // a contents handler asked to stop
    kQXDiskImageErrorInvalidLicense = 6,    // a licence text the writer cannot store
    kQXDiskImageErrorInvalidLevel = 7,      // a compression level outside the format's range
    kQXDiskImageErrorWriteFailed = 8,       // the output file could not be written (POSIX error attached)
};

/// One block table: a partition-map entry of the image.
struct QXDiskImagePartition {
    std::string name;         // "disk image", "Protective Master Boot Record", ...
    std::string type;         // "Apple_HFS", "MBR", ... (empty when the name has none)
    std::int64_t number = 0;  // the resource ID: -1 for the MBR/DDM entry
    std::uint64_t firstSector = 0;
    std::uint64_t sectorCount = 0;
    std::uint32_t checksumType = 0;  // 0 none, 2 CRC-32
    std::uint32_t checksum = 0;      // the stored value when 32 bits wide
};

/// A stored checksum: kind (0 none, 2 CRC-32) and its first 32 bits.
struct QXDiskImageChecksum {
    std::uint32_t type = 0;
    std::uint32_t bits = 0;
    std::uint32_t value = 0;
};

/// The outcome of checking the stored checksums.
struct QXDiskImageVerification {
    enum class State { NotPresent, Unsupported, Passed, Failed };
    std::vector<State> partitions;  // one per partition, in order
    State master = State::NotPresent;
    State dataFork = State::NotPresent;
    /// True when no checksum failed (absent or unsupported ones do not fail).
    bool passed() const;
};

class QXDiskImage : public qx::Object {
public:
    /// The image's decoded bytes arrive in order as (offset, bytes, length);
    /// bytes is null for runs of zeros (zero-fill and free-space chunks),
    /// which a writer may leave as holes. Returns false to stop.
    using ContentHandler = std::function<bool(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length)>;

    /// A local file (file URL) or an http(s) resource, read by ranges.
    static qx::Ref<QXDiskImage> imageWithContentsOfURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error = nullptr);
    /// An open, seekable handle (kept, and used one read at a time).
    static qx::Ref<QXDiskImage> imageWithFileHandle(const qx::Ref<QXRemoteFileHandle>& handle,
                                                    qx::Ref<qx::Error>* error = nullptr);
    /// An image held in memory (the data is kept, not copied).
    static qx::Ref<QXDiskImage> imageWithData(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error = nullptr);

    ~QXDiskImage() override;

    // ---- Properties ----
    /// Whether the file is a UDIF image (else a raw image).
    bool isUDIF() const;
    /// "UDZO", "UDBZ", "ULFO", "ULMO", "UDCO", "UDRO" by the chunks' kinds, "UDRW" for a raw image.
    std::string formatName() const;
    /// A sentence for the format: "UDIF read-only compressed (zlib)", ...
    std::string formatDescription() const;
    /// 1 device image with a partition map, 2 partition image; 0 for a raw image.
    std::uint32_t imageVariant() const;
    std::uint64_t sectorCount() const;
    /// The decoded size in bytes.
    std::uint64_t size() const;
    /// The file's size.
    std::uint64_t fileSize() const;
    /// The stored bytes of all chunks (the file size for a raw image).
    std::uint64_t compressedSize() const;
    const std::vector<QXDiskImagePartition>& partitions() const;
    QXDiskImageChecksum masterChecksum() const;
    QXDiskImageChecksum dataForkChecksum() const;
    bool hasLicenseAgreement() const;
    /// The agreement as UTF-8 text with LF line ends; nothing when there is none.
    std::optional<std::string> licenseAgreement() const;

    // ---- Reading ----
    /// Reads up to length decoded bytes at offset into buffer: the count
    /// (short only at the end of the image), or -1 with the error.
    std::int64_t readBytes(std::uint64_t offset, void* buffer, std::uint64_t length, qx::Ref<qx::Error>* error = nullptr);
    /// The same into new data.
    qx::Ref<qx::Data> readDataInRange(std::uint64_t offset, std::uint64_t length, qx::Ref<qx::Error>* error = nullptr);
    /// Hands the whole image to handler in order, decoding chunks in parallel.
    bool enumerateContents(const ContentHandler& handler, qx::Ref<qx::Error>* error = nullptr);

    // ---- Checking ----
    /// Checks every stored checksum (this decodes the whole image). False with
    /// the error only when the image could not be read; mismatches are in *result.
    bool verifyChecksums(QXDiskImageVerification* result, qx::Ref<qx::Error>* error = nullptr);

    std::string className() const override { return "QXDiskImage"; }
    std::string description() const override;

    struct State;

protected:
    explicit QXDiskImage(std::unique_ptr<State> state);
    QXDiskImage(const QXDiskImage&) = delete;
    QXDiskImage& operator=(const QXDiskImage&) = delete;

private:
    std::unique_ptr<State> state_;
};
