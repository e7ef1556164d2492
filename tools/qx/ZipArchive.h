// ZipArchive.h - the central directory of a ZIP archive, and its entries' bytes.
//
// Reads what `qx zip` needs and checks every offset and length it reads
// against the file: an archive that lies about where things are is refused
// with a reason, never read out of bounds. ZIP64 archives and archives split
// over several disks are refused by name.
//
// Entries are decoded by ZipEntryDecoder: stored, deflated (method 8), shrunk
// (method 1) and imploded (method 6); each entry's CRC-32 and size are checked
// once its last byte is out.
#pragma once

#include <qx/UniqueFd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qxtool {

struct ZipEntry {
    std::string name;                  // as stored (bytes, not necessarily UTF-8)
    std::uint16_t versionMadeBy = 0;
    std::uint16_t flags = 0;           // general-purpose bit flags
    std::uint16_t method = 0;
    std::uint32_t crc32 = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t uncompressedSize = 0;
    std::uint64_t localHeaderOffset = 0;
    std::uint32_t externalAttributes = 0;

    bool isEncrypted() const { return flags & 1u; }
    bool isDirectory() const { return !name.empty() && (name.back() == '/' || name.back() == '\\'); }
};

/// "stored", "shrunk", "imploded", "deflated", ... or "method N".
std::string zipMethodName(std::uint16_t method);

class ZipArchive {
public:
    /// Opens path and reads its central directory; null and the reason on failure.
    static std::unique_ptr<ZipArchive> open(const std::string& path, std::string& reason);
    ZipArchive(const ZipArchive&) = delete;
    ZipArchive& operator=(const ZipArchive&) = delete;

    const std::vector<ZipEntry>& entries() const { return entries_; }

    /// Offset of the entry's data (after its local header); false and the
    /// reason when the local header is missing or the data runs past the file.
    bool dataOffset(const ZipEntry& entry, std::uint64_t& offset, std::string& reason) const;

    /// Reads up to length bytes at offset; false and the reason on failure.
    bool read(std::uint64_t offset, void* buffer, std::size_t length, std::string& reason) const;

private:
    ZipArchive(qx::UniqueFd fd, std::uint64_t size) : fd_(std::move(fd)), size_(size) {}
    bool readDirectory(std::string& reason);

    qx::UniqueFd fd_;
    std::uint64_t size_;
    std::vector<ZipEntry> entries_;
};

/// Why an entry can't be decoded (encrypted, unsupported method), or empty.
std::string zipEntryRefusal(const ZipEntry& entry);

/// Decodes one entry, handing its bytes to sink in order; false and the
/// reason when the data is corrupt, the CRC-32 or the size does not match,
/// or sink returns false (with reason set by the sink).
bool decodeZipEntry(const ZipArchive& archive, const ZipEntry& entry,
                    const std::function<bool(const std::uint8_t*, std::size_t, std::string&)>& sink,
                    std::string& reason);

} // namespace qxtool
