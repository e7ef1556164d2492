// QXDiskImage.cpp - opening an image: telling UDIF from raw, refusing the
// kinds this reader does not handle, and laying the chunks out on the disk.
#include <QXFoundation/QXDiskImage.h>

#include "Internal/QXDiskImageState.h"
#include "Internal/QXUDIFLicense.h"
#include "Internal/QXUDIFResources.h"

#include <QXFoundation/QXError.h>

#include <algorithm>
#include <cstring>
#include <sstream>

const char* const kQXDiskImageErrorDomain = "QXDiskImageErrorDomain";

using namespace QXUDIF;

namespace {

// Raw images are cut into chunks of this many sectors so that they read like
// any other image.
constexpr std::uint64_t kRawChunkSectors = 2048;

struct FormatInfo {
    std::uint32_t type;
    const char* name;
    const char* description;
};

// In order of precedence when an image mixes compressions.
constexpr FormatInfo kFormats[] = {
    {kChunkZlib, "UDZO", "UDIF read-only compressed (zlib)"},
    {kChunkBZip2, "UDBZ", "UDIF read-only compressed (bzip2)"},
    {kChunkLZFSE, "ULFO", "UDIF read-only compressed (lzfse)"},
    {kChunkXZ, "ULMO", "UDIF read-only compressed (lzma)"},
    {kChunkADC, "UDCO", "UDIF read-only compressed (ADC)"},
};

// "disk image (Apple_HFS : 4)" -> "disk image", "Apple_HFS".
void splitPartitionName(const std::string& full, QXDiskImagePartition& partition) {
    partition.name = full;
    const std::size_t open = full.rfind(" (");
    if (full.empty() || full.back() != ')' || open == std::string::npos) return;
    const std::string inside = full.substr(open + 2, full.size() - open - 3);
    const std::size_t colon = inside.rfind(" : ");
    partition.name = full.substr(0, open);
    partition.type = colon == std::string::npos ? inside : inside.substr(0, colon);
}

// DiskCopy 4.2: a 84-byte header whose sizes add up to the file.
bool isDiskCopy42(const std::uint8_t* header, std::uint64_t fileSize) {
    if (header[0] > 63 || be16(header + 82) != 0x0100) return false;
    return 84ull + be32(header + 64) + be32(header + 68) == fileSize;
}

class Opener {
public:
    explicit Opener(std::unique_ptr<QXDiskImageSource> source) : state_(std::make_unique<QXDiskImage::State>()) {
        state_->source = std::move(source);
    }

    std::unique_ptr<QXDiskImage::State> open(qx::Ref<qx::Error>* error) {
        error_ = error;
        auto& source = *state_->source;
        const std::uint64_t fileSize = source.size();
        std::uint8_t head[512] = {};
        std::uint8_t tail[Trailer::Size] = {};
        const std::size_t headLength = static_cast<std::size_t>(std::min<std::uint64_t>(fileSize, sizeof head));
        if (headLength > 0 && !source.read(0, head, headLength, error)) return nullptr;
        if (fileSize >= Trailer::Size && !source.read(fileSize - Trailer::Size, tail, Trailer::Size, error))
            return nullptr;

        if (fileSize >= 8 && std::memcmp(head, "encrcdsa", 8) == 0)
            return refuse(kQXDiskImageErrorUnsupportedImage, "encrypted images are not supported");
        if (fileSize >= Trailer::Size && std::memcmp(tail + Trailer::Size - 8, "cdsaencr", 8) == 0)
            return refuse(kQXDiskImageErrorUnsupportedImage, "encrypted images are not supported");
        if (fileSize >= Trailer::Size && Trailer::hasMagic(tail)) return openUDIF(tail, fileSize);
        if (fileSize >= 84 && isDiskCopy42(head, fileSize))
            return refuse(kQXDiskImageErrorUnsupportedImage, "DiskCopy 4.2 images are not supported");
        if (fileSize >= 4 && std::memcmp(head, "sprs", 4) == 0)
            return refuse(kQXDiskImageErrorUnsupportedImage, "sparse images are not supported");
        if (isNDIF()) return refuse(kQXDiskImageErrorUnsupportedImage, "NDIF images are not supported");
        return openRaw(fileSize);
    }

private:
    std::unique_ptr<QXDiskImage::State> refuse(std::int64_t code, const std::string& message) {
        if (error_) *error_ = QXDiskImageError(code, message);
        return nullptr;
    }

    // NDIF keeps its block map in a "bcem" resource of the classic resource fork.
    bool isNDIF() {
        const std::string fork = state_->source->legacyResourceFork();
        if (fork.empty()) return false;
        std::string reason;
        auto resources =
            Resources::fromResourceFork(reinterpret_cast<const std::uint8_t*>(fork.data()), fork.size(), &reason);
        return resources && resources->hasType("bcem");
    }

    std::unique_ptr<QXDiskImage::State> openRaw(std::uint64_t fileSize) {
        auto& s = *state_;
        s.formatName = "UDRW";
        s.size = fileSize;
        s.compressedSize = fileSize;
        s.sectorCount = (fileSize + kSectorSize - 1) / kSectorSize;
        for (std::uint64_t sector = 0; sector < s.sectorCount; sector += kRawChunkSectors) {
            QXDiskImageMappedChunk chunk;
            chunk.type = kChunkRaw;
            chunk.firstSector = sector;
            chunk.sectorCount = std::min(kRawChunkSectors, s.sectorCount - sector);
            chunk.fileOffset = sector * kSectorSize;
            chunk.length = std::min(chunk.sectorCount * kSectorSize, fileSize - chunk.fileOffset);
            s.chunks.push_back(chunk);
        }
        return std::move(state_);
    }

    std::optional<Resources> readResources() {
        auto& s = *state_;
        std::string reason;
        std::optional<Resources> resources;
        const bool fromXML = s.trailer.xmlLength != 0;
        const std::uint64_t offset = fromXML ? s.trailer.xmlOffset : s.trailer.rsrcForkOffset;
        std::vector<std::uint8_t> bytes(fromXML ? s.trailer.xmlLength : s.trailer.rsrcForkLength);
        if (!s.source->read(offset, bytes.data(), bytes.size(), error_)) return std::nullopt;
        resources = fromXML ? Resources::fromXML(bytes.data(), bytes.size(), &reason)
                            : Resources::fromResourceFork(bytes.data(), bytes.size(), &reason);
        if (!resources) refuse(kQXDiskImageErrorCorrupt, reason);
        return resources;
    }

    std::unique_ptr<QXDiskImage::State> openUDIF(const std::uint8_t* tail, std::uint64_t fileSize) {
        auto& s = *state_;
        s.udif = true;
        if (Trailer::isSegmented(tail))
            return refuse(kQXDiskImageErrorUnsupportedImage, "segmented images are not supported");
        std::string reason;
        auto trailer = Trailer::parse(tail, fileSize, &reason);
        if (!trailer) return refuse(kQXDiskImageErrorCorrupt, reason);
        s.trailer = *trailer;
        s.sectorCount = trailer->sectorCount;
        s.size = trailer->sectorCount * kSectorSize;

        const auto resources = readResources();
        if (!resources) return nullptr;
        const auto& blkx = resources->ofType("blkx");
        if (blkx.empty()) return refuse(kQXDiskImageErrorCorrupt, "image has no block tables");
        for (const auto& resource : blkx)
            if (!addTable(resource)) return nullptr;
        if (!placeChunks()) return nullptr;
        s.hasLicense = License::isPresent(*resources);
        s.license = License::text(*resources);
        s.formatName = "UDRO";
        for (const auto& format : kFormats) {
            const bool used = std::any_of(s.chunks.begin(), s.chunks.end(),
                                          [&format](const QXDiskImageMappedChunk& c) { return c.type == format.type; });
            if (!used) continue;
            s.formatName = format.name;
            break;
        }
        return std::move(state_);
    }

    bool addTable(const Resource& resource) {
        auto& s = *state_;
        std::string reason;
        std::optional<std::uint32_t> unsupported;
        auto table = BlockTable::parse(resource.data.data(), resource.data.size(), &reason, &unsupported);
        if (!table) {
            if (unsupported) {
                std::ostringstream message;
                message << "unsupported chunk type 0x" << std::hex << *unsupported;
                refuse(kQXDiskImageErrorUnsupportedChunk, message.str());
            } else {
                refuse(kQXDiskImageErrorCorrupt, reason);
            }
            return false;
        }
        if (!rangeWithin(table->firstSector, table->sectorCount, s.sectorCount)) {
            refuse(kQXDiskImageErrorCorrupt, "block table lies outside the disk");
            return false;
        }
        // A chunk's bytes lie at data fork + table data offset + chunk offset,
        // and all of them inside the data fork.
        const std::uint64_t forkStart = s.trailer.dataForkOffset;
        const std::uint64_t forkLength = s.trailer.dataForkLength;
        for (const auto& chunk : table->chunks) {
            if (isZeroChunk(chunk.type)) continue;
            if (table->dataOffset > forkLength || !rangeWithin(chunk.offset, chunk.length, forkLength - table->dataOffset)) {
                refuse(kQXDiskImageErrorCorrupt, "chunk lies outside the data fork");
                return false;
            }
            QXDiskImageMappedChunk mapped;
            mapped.type = chunk.type;
            mapped.firstSector = table->firstSector + chunk.firstSector;
            mapped.sectorCount = chunk.sectorCount;
            mapped.fileOffset = forkStart + table->dataOffset + chunk.offset;
            mapped.length = chunk.length;
            mapped.table = s.tables.size();
            s.chunks.push_back(mapped);
            s.compressedSize += chunk.length;
        }
        for (const auto& chunk : table->chunks) {
            if (!isZeroChunk(chunk.type)) continue;
            QXDiskImageMappedChunk mapped;
            mapped.type = chunk.type;
            mapped.firstSector = table->firstSector + chunk.firstSector;
            mapped.sectorCount = chunk.sectorCount;
            mapped.table = s.tables.size();
            s.chunks.push_back(mapped);
        }
        QXDiskImagePartition partition;
        splitPartitionName(resource.name, partition);
        partition.number = resource.id;
        partition.firstSector = table->firstSector;
        partition.sectorCount = table->sectorCount;
        partition.checksumType = table->checksum.type;
        partition.checksum = table->checksum.value32();
        s.partitions.push_back(std::move(partition));
        s.tables.push_back(std::move(*table));
        return true;
    }

    // Orders the chunks by where they land on the disk; two claiming the
    // same sector would make reads depend on lookup order.
    bool placeChunks() {
        auto& chunks = state_->chunks;
        std::sort(chunks.begin(), chunks.end(), [](const QXDiskImageMappedChunk& a, const QXDiskImageMappedChunk& b) {
            return a.firstSector < b.firstSector;
        });
        for (std::size_t i = 1; i < chunks.size(); ++i) {
            if (chunks[i].firstSector < chunks[i - 1].firstSector + chunks[i - 1].sectorCount) {
                refuse(kQXDiskImageErrorCorrupt, "chunks overlap");
                return false;
            }
        }
        return true;
    }

    std::unique_ptr<QXDiskImage::State> state_;
    qx::Ref<qx::Error>* error_ = nullptr;
};

qx::Ref<QXDiskImage> makeImage(std::unique_ptr<QXDiskImageSource> source, qx::Ref<qx::Error>* error);

} // namespace

qx::Ref<qx::Error> QXDiskImageError(std::int64_t code, const std::string& message) {
    return QXGenerateError(kQXDiskImageErrorDomain, code, nullptr, nullptr, nullptr, "%s", message);
}

bool QXDiskImageVerification::passed() const {
    auto failed = [](State state) { return state == State::Failed; };
    return std::none_of(partitions.begin(), partitions.end(), failed) && !failed(master) && !failed(dataFork);
}

QXDiskImage::QXDiskImage(std::unique_ptr<State> state) : state_(std::move(state)) {}
QXDiskImage::~QXDiskImage() = default;

namespace {

class DiskImage final : public QXDiskImage {
public:
    explicit DiskImage(std::unique_ptr<State> state) : QXDiskImage(std::move(state)) {}
};

qx::Ref<QXDiskImage> makeImage(std::unique_ptr<QXDiskImageSource> source, qx::Ref<qx::Error>* error) {
    if (!source) return nullptr;
    auto state = Opener(std::move(source)).open(error);
    if (!state) return nullptr;
    return std::make_shared<DiskImage>(std::move(state));
}

} // namespace

qx::Ref<QXDiskImage> QXDiskImage::imageWithContentsOfURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error) {
    if (!url) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, EINVAL);
        return nullptr;
    }
    if (url->isFileURL()) return makeImage(QXDiskImageSource::openFile(url->path(), error), error);
    auto handle = QXRemoteFileHandle::initForReadingFromURL(url, error);
    if (!handle) return nullptr;
    return imageWithFileHandle(handle, error);
}

qx::Ref<QXDiskImage> QXDiskImage::imageWithFileHandle(const qx::Ref<QXRemoteFileHandle>& handle,
                                                      qx::Ref<qx::Error>* error) {
    return makeImage(QXDiskImageSource::withHandle(handle, error), error);
}

qx::Ref<QXDiskImage> QXDiskImage::imageWithData(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error) {
    return makeImage(QXDiskImageSource::withData(data), error);
}

bool QXDiskImage::isUDIF() const { return state_->udif; }
std::string QXDiskImage::formatName() const { return state_->formatName; }

std::string QXDiskImage::formatDescription() const {
    if (!state_->udif) return "raw disk image";
    for (const auto& format : kFormats)
        if (state_->formatName == format.name) return format.description;
    return "UDIF read-only";
}

std::uint32_t QXDiskImage::imageVariant() const { return state_->udif ? state_->trailer.imageVariant : 0; }
std::uint64_t QXDiskImage::sectorCount() const { return state_->sectorCount; }
std::uint64_t QXDiskImage::size() const { return state_->size; }
std::uint64_t QXDiskImage::fileSize() const { return state_->source->size(); }
std::uint64_t QXDiskImage::compressedSize() const { return state_->compressedSize; }
const std::vector<QXDiskImagePartition>& QXDiskImage::partitions() const { return state_->partitions; }

QXDiskImageChecksum QXDiskImage::masterChecksum() const {
    const auto& sum = state_->trailer.masterChecksum;
    return {sum.type, sum.bits, sum.value32()};
}

QXDiskImageChecksum QXDiskImage::dataForkChecksum() const {
    const auto& sum = state_->trailer.dataForkChecksum;
    return {sum.type, sum.bits, sum.value32()};
}

bool QXDiskImage::hasLicenseAgreement() const { return state_->hasLicense; }
std::optional<std::string> QXDiskImage::licenseAgreement() const { return state_->license; }

std::string QXDiskImage::description() const {
    std::ostringstream text;
    text << "<QXDiskImage " << state_->formatName << ", " << state_->sectorCount << " sectors, "
         << state_->partitions.size() << " partitions>";
    return text.str();
}
