// QXDiskImageWriter.h - writing flattened UDIF images (.dmg) from any disk
// the library can read: a raw image file, or another image's decoded bytes.
//
// The disk is stored in chunks of at most 1 MiB (2048 sectors of 512 bytes):
// runs of zero sectors as zero-fill chunks that store nothing, the rest raw
// (UDRO) or each as one complete zlib (UDZO), bzip2 (UDBZ) or xz (ULMO)
// stream. A disk with a GPT or MBR partition table gets one block table per
// partition and one for each stretch between them; one without is a single
// "whole disk" table. Every checksum is written: each table's CRC-32 of its
// sectors, the master CRC-32 over the tables' own, and the data fork's CRC-32.
// An English licence agreement can be added from plain text.
//
// Chunks are compressed side by side on an operation queue of
// threadCount() workers; at most two chunks per worker wait at any time, so
// memory stays a few MiB whatever the disk's size. A disk whose size is not a
// whole number of sectors is padded with zeros to the next sector.
//
// The file is written through a temporary beside it that replaces the target
// only when everything succeeded: a failure leaves nothing behind and the
// target as it was.
//
// One writer is used by one thread at a time.
#pragma once

#include <QXFoundation/QXDiskImage.h>

#include <qx/Error.h>
#include <qx/Object.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

enum class QXDiskImageFormat { UDRO, UDZO, UDBZ, ULMO };

class QXDiskImageWriter : public qx::Object {
public:
    /// Gets the decoded bytes written so far and the disk's size.
    using ProgressBlock = std::function<void(std::uint64_t done, std::uint64_t total)>;

    static qx::Ref<QXDiskImageWriter> writerWithFormat(QXDiskImageFormat format);
    /// "UDRO", "UDZO", "UDBZ", "ULMO"; nothing for other names.
    static std::optional<QXDiskImageFormat> formatNamed(const std::string& name);

    QXDiskImageFormat format() const { return format_; }
    /// zlib's level (0..9), bzip2's block size in 100 kB (1..9) or xz's
    /// preset (0..9). Default: 6 for zlib and xz (a larger xz dictionary
    /// buys nothing for 1 MiB chunks and costs memory per worker), 9 for
    /// bzip2. Ignored by UDRO; a level outside the range fails the write
    /// with kQXDiskImageErrorInvalidLevel.
    void setCompressionLevel(std::optional<int> level) { level_ = level; }
    /// 0 (the default): one worker per processor.
    void setThreadCount(unsigned threads) { threads_ = threads; }
    unsigned threadCount() const { return threads_; }
    /// An English agreement shown before the image is used. False with
    /// kQXDiskImageErrorInvalidLicense when the text is not UTF-8 or holds
    /// characters Mac OS Roman has not; nothing (the default) for none.
    bool setLicenseAgreement(const std::optional<std::string>& utf8Text, qx::Ref<qx::Error>* error = nullptr);
    /// Called on the writing thread after each chunk is stored.
    void setProgressBlock(ProgressBlock block) { progress_ = std::move(block); }

    /// Writes source's decoded disk to path, creating or replacing it. False
    /// with the error: the source's read error, the compressor's, or
    /// kQXDiskImageErrorWriteFailed (the POSIX error underlying) for the output.
    bool writeImage(QXDiskImage& source, const std::string& path, qx::Ref<qx::Error>* error = nullptr);

    std::string className() const override { return "QXDiskImageWriter"; }

protected:
    explicit QXDiskImageWriter(QXDiskImageFormat format) : format_(format) {}

private:
    QXDiskImageFormat format_;
    std::optional<int> level_;
    unsigned threads_ = 0;
    std::optional<std::string> license_;
    ProgressBlock progress_;
};
