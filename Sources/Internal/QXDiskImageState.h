// QXDiskImageState.h - what an open disk image holds, shared by the units
// that open, read and verify it.
#pragma once

#include "Internal/QXDiskImageChunkCache.h"
#include "Internal/QXDiskImageSource.h"
#include "Internal/QXUDIFBlockTable.h"
#include "Internal/QXUDIFTrailer.h"

#include <QXFoundation/QXDiskImage.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One chunk placed on the disk: absolute sectors and its bytes in the file.
struct QXDiskImageMappedChunk {
    std::uint32_t type = 0;
    std::uint64_t firstSector = 0;
    std::uint64_t sectorCount = 0;
    std::uint64_t fileOffset = 0;
    std::uint64_t length = 0;
    std::size_t table = 0;
};

struct QXDiskImage::State {
    std::unique_ptr<QXDiskImageSource> source;
    bool udif = false;
    QXUDIF::Trailer trailer;
    std::vector<QXUDIF::BlockTable> tables;
    std::vector<QXDiskImagePartition> partitions;
    std::vector<QXDiskImageMappedChunk> chunks;  // by first sector, none overlapping
    std::string formatName;
    std::uint64_t sectorCount = 0;
    std::uint64_t size = 0;
    std::uint64_t compressedSize = 0;
    bool hasLicense = false;
    std::optional<std::string> license;
    QXDiskImageChunkCache cache{8};

    /// A chunk's decoded bytes (sectorCount * 512 of them) into out, its
    /// stored bytes read into stored on the way; zero chunks are not asked for.
    qx::Ref<qx::Error> decodeChunk(const QXDiskImageMappedChunk& chunk, std::vector<std::uint8_t>& out,
                                   std::vector<std::uint8_t>& stored);
    /// decodeChunk through the cache.
    QXDiskImageChunkCache::Bytes cachedChunk(std::size_t index, qx::Ref<qx::Error>* error);
    /// Calls visit for each of the chunks named by indices, in that order,
    /// with its decoded bytes (null for zero chunks), decoding several at
    /// once on the library's queue. Stops at the first failure or when visit
    /// returns false (then kQXDiskImageErrorCancelled).
    bool visitChunks(const std::vector<std::size_t>& indices,
                     const std::function<bool(std::size_t index, const std::uint8_t* bytes)>& visit,
                     qx::Ref<qx::Error>* error);
};

/// An error in kQXDiskImageErrorDomain with message as its description.
qx::Ref<qx::Error> QXDiskImageError(std::int64_t code, const std::string& message);
