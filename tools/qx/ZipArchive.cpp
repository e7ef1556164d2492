// ZipArchive.cpp - the central directory of a ZIP archive, and its entries' bytes.
#include "ZipArchive.h"

#include <QXFoundation/QXChecksum.h>
#include <QXFoundation/QXExplode.h>
#include <QXFoundation/QXUnshrink.h>

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

constexpr std::size_t kEndRecordLength = 22;
constexpr std::size_t kMaxCommentLength = 65535;
constexpr std::size_t kCentralHeaderLength = 46;
constexpr std::size_t kLocalHeaderLength = 30;
constexpr std::size_t kPiece = 1 << 20;

std::uint16_t le16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
std::uint32_t le32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
}
bool hasSignature(const std::uint8_t* p, std::uint8_t third, std::uint8_t fourth) {
    return p[0] == 'P' && p[1] == 'K' && p[2] == third && p[3] == fourth;
}

std::string hex32(std::uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "%08" PRIx32, v);
    return text;
}

// The CRC-32 as a number, from QXChecksum's machine-order bytes.
std::uint32_t crcValue(QXChecksum& checksum) {
    std::uint32_t value = 0;
    const auto bytes = checksum.checksumData();
    std::memcpy(&value, bytes->bytes(), sizeof value);
    return value;
}

using Sink = std::function<bool(const std::uint8_t*, std::size_t, std::string&)>;

// Reads the entry's compressed bytes piece by piece into feed; feed returns
// false to stop early (done or failed).
bool forEachPiece(const ZipArchive& archive, std::uint64_t offset, std::uint64_t length, std::string& reason,
                  const std::function<bool(const std::uint8_t*, std::size_t, bool last)>& feed) {
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(length, kPiece)));
    std::uint64_t done = 0;
    do {
        const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(length - done, kPiece));
        if (!archive.read(offset + done, buffer.data(), n, reason)) return false;
        done += n;
        if (!feed(buffer.data(), n, done == length)) return reason.empty();
    } while (done < length);
    return true;
}

bool inflateEntry(const ZipArchive& archive, const ZipEntry& entry, std::uint64_t offset, const Sink& sink,
                  std::string& reason) {
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) {
        reason = "out of memory";
        return false;
    }
    std::unique_ptr<z_stream, int (*)(z_stream*)> owner(&z, inflateEnd);
    std::vector<std::uint8_t> out(kPiece);
    bool ended = false;
    const bool ok = forEachPiece(archive, offset, entry.compressedSize, reason, [&](const std::uint8_t* in, std::size_t n, bool) {
        z.next_in = const_cast<Bytef*>(in);
        z.avail_in = static_cast<uInt>(n);
        do {
            z.next_out = out.data();
            z.avail_out = static_cast<uInt>(out.size());
            const int rc = inflate(&z, Z_NO_FLUSH);
            if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
                reason = std::string("deflated data is corrupt (") + (z.msg ? z.msg : zError(rc)) + ")";
                return false;
            }
            if (!sink(out.data(), out.size() - z.avail_out, reason)) return false;
            if (rc == Z_STREAM_END) {
                ended = true;
                return false;
            }
        } while (z.avail_out == 0 || z.avail_in > 0);
        return true;
    });
    if (!ok) return false;
    if (!ended) {
        reason = "deflated data ends early";
        return false;
    }
    return true;
}

bool unshrinkEntry(const ZipArchive& archive, const ZipEntry& entry, std::uint64_t offset, const Sink& sink,
                   std::string& reason) {
    std::unique_ptr<QXUnshrinkStream, int (*)(QXUnshrinkStream*)> stream(QXUnshrinkInit(entry.uncompressedSize),
                                                                         QXUnshrinkCleanup);
    if (!stream) {
        reason = "out of memory";
        return false;
    }
    std::vector<std::uint8_t> out(kPiece);
    int result = QXUNSHRINK_AGAIN;
    const bool ok = forEachPiece(archive, offset, entry.compressedSize, reason, [&](const std::uint8_t* in, std::size_t n, bool) {
        stream->next_in = in;
        stream->avail_in = n;
        std::size_t written;
        do {
            stream->next_out = out.data();
            stream->avail_out = out.size();
            result = QXUnshrink(stream.get());
            written = out.size() - static_cast<std::size_t>(stream->avail_out);
            if (!sink(out.data(), written, reason)) return false;
        } while (result == QXUNSHRINK_AGAIN && written > 0);
        return result == QXUNSHRINK_AGAIN;
    });
    if (!ok) return false;
    switch (result) {
    case QXUNSHRINK_OK: return true;
    case QXUNSHRINK_AGAIN: reason = "shrunk data ends early"; break;
    case QXUNSHRINK_DATA_ERROR:
        reason = "shrunk data is corrupt (an undefined code, a code whose previous code was freed, or codes wider than 13 bits)";
        break;
    default: reason = "shrunk data is corrupt (a string leads to a missing code)"; break;
    }
    return false;
}

bool explodeEntry(const ZipArchive& archive, const ZipEntry& entry, std::uint64_t offset, const Sink& sink,
                  std::string& reason) {
    std::unique_ptr<QXExplodeStream, int (*)(QXExplodeStream*)> stream(
        QXExplodeInit(entry.uncompressedSize, entry.flags & 2u, entry.flags & 4u), QXExplodeCleanup);
    if (!stream) {
        reason = "out of memory";
        return false;
    }
    int result = QXEXPLODE_NEED_INPUT;
    const bool ok = forEachPiece(archive, offset, entry.compressedSize, reason, [&](const std::uint8_t* in, std::size_t n, bool) {
        stream->next_in = in;
        stream->avail_in = n;
        const std::uint8_t* out = nullptr;
        std::uint64_t count = 0;
        result = QXExplode(stream.get(), &out, &count);
        if (count > 0 && !sink(out, static_cast<std::size_t>(count), reason)) return false;
        return result == QXEXPLODE_NEED_INPUT;
    });
    if (!ok) return false;
    switch (result) {
    case QXEXPLODE_OK: return true;
    case QXEXPLODE_NEED_INPUT: reason = "imploded data ends early"; break;
    case QXEXPLODE_BAD_TREE: reason = "imploded data is corrupt (a code tree gives two symbols one code)"; break;
    default: reason = "imploded data is corrupt (a code that no symbol has)"; break;
    }
    return false;
}

} // namespace

std::string zipMethodName(std::uint16_t method) {
    switch (method) {
    case 0: return "stored";
    case 1: return "shrunk";
    case 2: case 3: case 4: case 5: return "reduced" + std::to_string(method - 1);
    case 6: return "imploded";
    case 8: return "deflated";
    case 9: return "deflate64";
    case 12: return "bzip2";
    case 14: return "lzma";
    case 93: return "zstd";
    case 95: return "xz";
    default: return "method " + std::to_string(method);
    }
}

std::string zipEntryRefusal(const ZipEntry& entry) {
    if (entry.isEncrypted()) return "encrypted entries are not supported";
    switch (entry.method) {
    case 0: case 1: case 6: case 8: return {};
    default: return "compression method " + std::to_string(entry.method) + " (" + zipMethodName(entry.method) + ") is not supported";
    }
}

std::unique_ptr<ZipArchive> ZipArchive::open(const std::string& path, std::string& reason) {
    qx::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        reason = std::strerror(errno);
        return nullptr;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        reason = S_ISDIR(st.st_mode) ? std::strerror(EISDIR) : "not a regular file";
        return nullptr;
    }
    const auto size = static_cast<std::uint64_t>(st.st_size);
    std::unique_ptr<ZipArchive> archive(new ZipArchive(std::move(fd), size));
    if (!archive->readDirectory(reason)) return nullptr;
    return archive;
}


bool ZipArchive::read(std::uint64_t offset, void* buffer, std::size_t length, std::string& reason) const {
    if (offset > size_ || length > size_ - offset) {
        reason = "the archive is truncated";
        return false;
    }
    auto* p = static_cast<std::uint8_t*>(buffer);
    while (length > 0) {
        const ssize_t n = ::pread(fd_.get(), p, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            reason = n < 0 ? std::strerror(errno) : "the archive is truncated";
            return false;
        }
        p += n;
        offset += static_cast<std::uint64_t>(n);
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

bool ZipArchive::readDirectory(std::string& reason) {
    if (size_ < kEndRecordLength) {
        reason = "not a ZIP archive (too short)";
        return false;
    }
    const auto tailLength = static_cast<std::size_t>(std::min<std::uint64_t>(size_, kEndRecordLength + kMaxCommentLength));
    const std::uint64_t tailStart = size_ - tailLength;
    std::vector<std::uint8_t> tail(tailLength);
    if (!read(tailStart, tail.data(), tail.size(), reason)) return false;
    std::size_t end = tailLength;
    for (std::size_t i = tailLength - kEndRecordLength + 1; i-- > 0;) {
        if (hasSignature(&tail[i], 5, 6) && i + kEndRecordLength + le16(&tail[i + 20]) <= tailLength) {
            end = i;
            break;
        }
    }
    if (end == tailLength) {
        reason = "not a ZIP archive (no end of central directory record)";
        return false;
    }
    const std::uint8_t* e = &tail[end];
    const std::uint64_t endOffset = tailStart + end;
    const std::uint16_t disk = le16(e + 4), directoryDisk = le16(e + 6), onDisk = le16(e + 8), total = le16(e + 10);
    const std::uint32_t directorySize = le32(e + 12), directoryOffset = le32(e + 16);
    const bool zip64Locator = end >= 20 && hasSignature(&tail[end - 20], 6, 7);
    if (zip64Locator || total == 0xFFFF || onDisk == 0xFFFF || directorySize == 0xFFFFFFFFu ||
        directoryOffset == 0xFFFFFFFFu) {
        reason = "ZIP64 archives are not supported";
        return false;
    }
    if (disk != 0 || directoryDisk != 0 || onDisk != total) {
        reason = "archives split over several disks are not supported";
        return false;
    }
    if (directoryOffset > endOffset || directorySize > endOffset - directoryOffset) {
        reason = "the central directory lies outside the archive";
        return false;
    }
    std::vector<std::uint8_t> directory(directorySize);
    if (!read(directoryOffset, directory.data(), directory.size(), reason)) return false;
    std::size_t at = 0;
    entries_.reserve(total);
    for (std::size_t index = 0; index < total; ++index) {
        const std::size_t left = directory.size() - at;
        const std::uint8_t* h = directory.data() + at;
        if (left < kCentralHeaderLength || !hasSignature(h, 1, 2)) {
            reason = "the central directory is corrupt (entry " + std::to_string(index + 1) + " of " + std::to_string(total) + ")";
            return false;
        }
        const std::size_t nameLength = le16(h + 28), extraLength = le16(h + 30), commentLength = le16(h + 32);
        if (nameLength + extraLength + commentLength > left - kCentralHeaderLength) {
            reason = "the central directory is corrupt (entry " + std::to_string(index + 1) + " runs past its end)";
            return false;
        }
        ZipEntry entry;
        entry.versionMadeBy = le16(h + 4);
        entry.flags = le16(h + 8);
        entry.method = le16(h + 10);
        entry.crc32 = le32(h + 16);
        entry.compressedSize = le32(h + 20);
        entry.uncompressedSize = le32(h + 24);
        entry.externalAttributes = le32(h + 38);
        entry.localHeaderOffset = le32(h + 42);
        if (entry.compressedSize == 0xFFFFFFFFu || entry.uncompressedSize == 0xFFFFFFFFu ||
            entry.localHeaderOffset == 0xFFFFFFFFu) {
            reason = "ZIP64 archives are not supported";
            return false;
        }
        entry.name.assign(reinterpret_cast<const char*>(h + kCentralHeaderLength), nameLength);
        entries_.push_back(std::move(entry));
        at += kCentralHeaderLength + nameLength + extraLength + commentLength;
    }
    return true;
}

bool ZipArchive::dataOffset(const ZipEntry& entry, std::uint64_t& offset, std::string& reason) const {
    std::uint8_t header[kLocalHeaderLength];
    if (!read(entry.localHeaderOffset, header, sizeof header, reason) || !hasSignature(header, 3, 4)) {
        reason = "the entry's local header is missing or damaged";
        return false;
    }
    offset = entry.localHeaderOffset + kLocalHeaderLength + le16(header + 26) + le16(header + 28);
    if (offset > size_ || entry.compressedSize > size_ - offset) {
        reason = "the entry's data runs past the end of the archive";
        return false;
    }
    return true;
}

bool decodeZipEntry(const ZipArchive& archive, const ZipEntry& entry, const Sink& sink, std::string& reason) {
    reason.clear();
    if (auto refusal = zipEntryRefusal(entry); !refusal.empty()) {
        reason = refusal;
        return false;
    }
    std::uint64_t offset = 0;
    if (!archive.dataOffset(entry, offset, reason)) return false;

    // Count and check every byte on its way to the caller's sink.
    auto checksum = QXChecksum::initWithAlgorithm(QXChecksumAlgorithmCRC32);
    std::uint64_t total = 0;
    const Sink counted = [&](const std::uint8_t* bytes, std::size_t n, std::string& why) {
        if (n == 0) return true;
        if (n > entry.uncompressedSize - total) {
            why = "more data than the entry's size of " + std::to_string(entry.uncompressedSize) + " bytes";
            return false;
        }
        total += n;
        checksum->updateWithInputData(bytes, n);
        return sink(bytes, n, why);
    };

    bool ok = false;
    switch (entry.method) {
    case 0:
        ok = entry.compressedSize == 0 ||
             forEachPiece(archive, offset, entry.compressedSize, reason,
                          [&](const std::uint8_t* in, std::size_t n, bool) { return counted(in, n, reason); });
        break;
    case 1: ok = unshrinkEntry(archive, entry, offset, counted, reason); break;
    case 6: ok = explodeEntry(archive, entry, offset, counted, reason); break;
    default: ok = inflateEntry(archive, entry, offset, counted, reason); break;
    }
    if (!ok) return false;
    if (total != entry.uncompressedSize) {
        reason = "size mismatch: the entry should have " + std::to_string(entry.uncompressedSize) + " bytes, decoded " +
                 std::to_string(total);
        return false;
    }
    const std::uint32_t crc = crcValue(*checksum);
    if (crc != entry.crc32) {
        reason = "CRC-32 mismatch: stored " + hex32(entry.crc32) + ", computed " + hex32(crc);
        return false;
    }
    return true;
}

} // namespace qxtool
