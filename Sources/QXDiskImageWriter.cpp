// QXDiskImageWriter.cpp - reading the disk in order, encoding its pieces on
// an operation queue, and storing them in order with the tables, resources
// and trailer that describe them.
#include <QXFoundation/QXDiskImageWriter.h>

#include "Internal/QXDiskImageState.h"
#include "Internal/QXSafeFileWriter.h"
#include "Internal/QXUDIFChunkEncoder.h"
#include "Internal/QXUDIFLicense.h"
#include "Internal/QXUDIFPartitionMap.h"
#include "Internal/QXUDIFResources.h"

#include <QXFoundation/QXError.h>

#include <qx/Operation.h>
#include <qx/OperationQueue.h>
#include <qx/UUID.h>

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <thread>

using namespace QXUDIF;

namespace {

// Attributes writers give block tables and the plst resource.
constexpr std::uint16_t kTableAttributes = 0x0050;
// The plst resource: opaque to readers, expected by some.
constexpr std::size_t kPlstLength = 0x70;

struct FormatInfo {
    QXDiskImageFormat format;
    const char* name;
    std::uint32_t method;
    int defaultLevel;
    int minLevel;
    int maxLevel;
};

constexpr FormatInfo kFormats[] = {
    {QXDiskImageFormat::UDRO, "UDRO", kChunkRaw, 0, 0, 9},
    {QXDiskImageFormat::UDZO, "UDZO", kChunkZlib, 6, 0, 9},
    {QXDiskImageFormat::UDBZ, "UDBZ", kChunkBZip2, 9, 1, 9},
    {QXDiskImageFormat::ULMO, "ULMO", kChunkXZ, 6, 0, 9},
};

const FormatInfo& infoOf(QXDiskImageFormat format) {
    for (const auto& info : kFormats)
        if (info.format == format) return info;
    return kFormats[0];
}

qx::Ref<qx::Error> writeError(int code) {
    return QXGenerateError(kQXDiskImageErrorDomain, kQXDiskImageErrorWriteFailed, nullptr,
                           QXGenerateError(qx::NSPOSIXErrorDomain, code), nullptr, "%s", std::string(std::strerror(code)));
}

// A run of sectors of one table, encoded as a unit.
struct Piece {
    std::size_t table = 0;
    std::uint64_t firstSector = 0;  // on the disk
    std::uint64_t sectorCount = 0;
};

struct Job {
    std::vector<std::uint8_t> input;
    EncodedPiece output;
    qx::Ref<qx::Error> failure;
};

// One image being written: the pieces in disk order, the jobs in flight
// (oldest first), and what the stored pieces have added up to.
class Pipeline {
public:
    Pipeline(const PartitionMap& map, const ChunkEncoder& encoder, unsigned threads, QXSafeFileWriter& out,
             const QXDiskImageWriter::ProgressBlock& progress, std::uint64_t diskSize)
        : encoder_(encoder), out_(out), progress_(progress), diskSize_(diskSize),
          queue_(qx::OperationQueue::create("QXDiskImageWriter")), maxInFlight_(4 * std::size_t{threads}) {
        queue_->setMaxConcurrentOperationCount(static_cast<int>(threads));
        for (const auto& entry : map.entries) {
            BlockTable table;
            table.firstSector = entry.firstSector;
            table.sectorCount = entry.sectorCount;
            table.buffersNeeded = static_cast<std::uint32_t>(kWriterChunkSectors);
            tables_.push_back(table);
            tableCRCs_.push_back(0);
            for (std::uint64_t s = 0; s < entry.sectorCount; s += kWriterChunkSectors)
                pieces_.push_back({tables_.size() - 1, entry.firstSector + s,
                                   std::min(kWriterChunkSectors, entry.sectorCount - s)});
        }
    }

    ~Pipeline() {
        queue_->cancelAllOperations();
        queue_->waitUntilAllOperationsAreFinished();
    }

    /// Takes the disk's next bytes (zeros when bytes is null); false once a
    /// piece failed or could not be stored.
    bool feed(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
        while (length > 0 && next_ < pieces_.size()) {
            const Piece& piece = pieces_[next_];
            const std::uint64_t start = piece.firstSector * kSectorSize;
            const std::uint64_t end = start + piece.sectorCount * kSectorSize;
            if (buffer_.empty()) buffer_.assign(end - start, 0);
            const std::uint64_t n = std::min(length, end - offset);
            if (bytes) {
                std::memcpy(buffer_.data() + (offset - start), bytes, n);
                bytes += n;
            }
            offset += n;
            length -= n;
            if (offset == end && !submit()) return false;
        }
        return true;
    }

    /// Submits the last pieces (a disk that ends inside a sector leaves one
    /// part-filled) and stores everything still in flight.
    bool finish() {
        while (next_ < pieces_.size())
            if (!submit()) return false;
        while (!inFlight_.empty())
            if (!storeOldest()) return false;
        for (std::size_t t = 0; t < tables_.size(); ++t) tables_[t].checksum = Checksum::crc32(tableCRCs_[t]);
        return true;
    }

    const qx::Ref<qx::Error>& error() const { return error_; }
    const std::vector<BlockTable>& tables() const { return tables_; }
    std::uint64_t dataForkLength() const { return position_; }
    std::uint32_t dataForkCRC() const { return forkCRC_; }

private:
    bool submit() {
        auto job = std::make_shared<Job>();
        job->input = std::move(buffer_);
        buffer_.clear();
        if (job->input.empty()) job->input.assign(pieces_[next_].sectorCount * kSectorSize, 0);
        const ChunkEncoder encoder = encoder_;
        const std::uint64_t count = pieces_[next_].sectorCount;
        auto operation = qx::BlockOperation::create([job, encoder, count] {
            job->failure = encoder.encode(job->input.data(), count, job->output);
            job->input = {};
        });
        queue_->addOperation(operation);
        inFlight_.push_back({job, operation, next_});
        ++next_;
        return inFlight_.size() < maxInFlight_ || storeOldest();
    }

    bool storeOldest() {
        InFlight oldest = std::move(inFlight_.front());
        inFlight_.pop_front();
        oldest.operation->waitUntilFinished();
        Job& job = *oldest.job;
        if (job.failure) {
            error_ = job.failure;
            return false;
        }
        const Piece& piece = pieces_[oldest.piece];
        BlockTable& table = tables_[piece.table];
        for (Chunk chunk : job.output.chunks) {
            chunk.firstSector += piece.firstSector - table.firstSector;
            chunk.offset += position_;
            table.chunks.push_back(chunk);
        }
        const auto& stored = job.output.stored;
        if (const int code = out_.writeAll(stored.data(), stored.size())) {
            error_ = writeError(code);
            return false;
        }
        position_ += stored.size();
        forkCRC_ = static_cast<std::uint32_t>(crc32_combine64(forkCRC_, job.output.storedCRC, static_cast<z_off64_t>(stored.size())));
        auto& tableCRC = tableCRCs_[piece.table];
        tableCRC = static_cast<std::uint32_t>(crc32_combine64(tableCRC, job.output.sectorsCRC,
                                                            static_cast<z_off64_t>(piece.sectorCount * kSectorSize)));
        done_ = std::min(diskSize_, (piece.firstSector + piece.sectorCount) * kSectorSize);
        if (progress_) progress_(done_, diskSize_);
        return true;
    }

    struct InFlight {
        std::shared_ptr<Job> job;
        qx::Ref<qx::Operation> operation;
        std::size_t piece = 0;
    };

    const ChunkEncoder& encoder_;
    QXSafeFileWriter& out_;
    const QXDiskImageWriter::ProgressBlock& progress_;
    std::uint64_t diskSize_;
    qx::Ref<qx::OperationQueue> queue_;
    // Pieces submitted and not yet stored. Three queued behind each worker's
    // own keep the workers busy while this thread waits for the processor on
    // a loaded machine; a few MiB per thread bound the memory.
    std::size_t maxInFlight_;

    std::vector<BlockTable> tables_;
    std::vector<std::uint32_t> tableCRCs_;
    std::vector<Piece> pieces_;
    std::size_t next_ = 0;                // the piece being filled
    std::vector<std::uint8_t> buffer_;    // its bytes so far
    std::deque<InFlight> inFlight_;
    std::uint64_t position_ = 0;          // data-fork bytes stored
    std::uint32_t forkCRC_ = 0;
    std::uint64_t done_ = 0;
    qx::Ref<qx::Error> error_;
};

std::vector<std::uint8_t> propertyList(const PartitionMap& map, const std::vector<BlockTable>& tables,
                                       const std::optional<std::string>& license) {
    Resources resources;
    for (std::size_t t = 0; t < tables.size(); ++t) {
        Resource resource;
        resource.id = map.entries[t].id;
        resource.name = map.entries[t].name;
        resource.attributes = kTableAttributes;
        resource.data = tables[t].serialize();
        resources.add("blkx", std::move(resource));
    }
    Resource plst;
    plst.attributes = kTableAttributes;
    plst.data.assign(kPlstLength, 0);
    resources.add("plst", std::move(plst));
    std::string reason;
    // The text was checked when it was set.
    if (license) License::addEnglish(*license, resources, &reason);
    return resources.toXML();
}

} // namespace

qx::Ref<QXDiskImageWriter> QXDiskImageWriter::writerWithFormat(QXDiskImageFormat format) {
    return qx::Ref<QXDiskImageWriter>(new QXDiskImageWriter(format));
}

std::optional<QXDiskImageFormat> QXDiskImageWriter::formatNamed(const std::string& name) {
    for (const auto& info : kFormats)
        if (name == info.name) return info.format;
    return std::nullopt;
}

bool QXDiskImageWriter::setLicenseAgreement(const std::optional<std::string>& utf8Text, qx::Ref<qx::Error>* error) {
    if (utf8Text) {
        Resources scratch;
        std::string reason;
        if (!License::addEnglish(*utf8Text, scratch, &reason)) {
            if (error) *error = QXDiskImageError(kQXDiskImageErrorInvalidLicense, reason);
            return false;
        }
    }
    license_ = utf8Text;
    return true;
}

bool QXDiskImageWriter::writeImage(QXDiskImage& source, const std::string& path, qx::Ref<qx::Error>* error) {
    const FormatInfo& info = infoOf(format_);
    auto fail = [error](const qx::Ref<qx::Error>& failure) {
        if (error) *error = failure;
        return false;
    };
    const int level = level_.value_or(info.defaultLevel);
    if (level < info.minLevel || level > info.maxLevel)
        return fail(QXDiskImageError(kQXDiskImageErrorInvalidLevel,
                                     "compression level " + std::to_string(level) + " is outside " +
                                         std::to_string(info.minLevel) + "-" + std::to_string(info.maxLevel) +
                                         " for " + info.name));
    const ChunkEncoder encoder(info.method, level);
    if (auto refused = encoder.check()) return fail(refused);
    const unsigned threads = threads_ != 0 ? threads_ : std::max(1u, std::thread::hardware_concurrency());
    const PartitionMap map = PartitionMap::probe(source);

    QXSafeFileWriter out;
    if (const int code = out.open(path)) return fail(writeError(code));
    Pipeline pipeline(map, encoder, threads, out, progress_, source.size());
    qx::Ref<qx::Error> readError;
    const bool read = source.enumerateContents(
        [&pipeline](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
            return pipeline.feed(offset, bytes, length);
        },
        &readError);
    if (!read) return fail(pipeline.error() ? pipeline.error() : readError);
    if (!pipeline.finish()) return fail(pipeline.error());

    const auto xml = propertyList(map, pipeline.tables(), license_);
    if (const int code = out.writeAll(xml.data(), xml.size())) return fail(writeError(code));

    std::uint32_t master = 0;
    for (const auto& table : pipeline.tables())
        master = static_cast<std::uint32_t>(crc32_z(master, table.checksum.bytes.data(), 4));
    Trailer trailer;
    trailer.version = 4;
    trailer.headerSize = Trailer::Size;
    trailer.flags = 1;  // flattened: the forks and the trailer share one file
    trailer.dataForkLength = pipeline.dataForkLength();
    trailer.segmentNumber = 1;
    trailer.segmentCount = 1;
    const auto uuid = qx::UUID::create()->bytes();
    std::copy(uuid.begin(), uuid.end(), trailer.segmentID.begin());
    trailer.dataForkChecksum = Checksum::crc32(pipeline.dataForkCRC());
    trailer.xmlOffset = pipeline.dataForkLength();
    trailer.xmlLength = xml.size();
    trailer.masterChecksum = Checksum::crc32(master);
    trailer.imageVariant = map.variant;
    trailer.sectorCount = (source.size() + kSectorSize - 1) / kSectorSize;
    const auto bytes = trailer.serialize();
    if (const int code = out.writeAll(bytes.data(), bytes.size())) return fail(writeError(code));
    if (const int code = out.commit()) return fail(writeError(code));
    return true;
}
