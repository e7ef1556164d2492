// QXDiskImageVerification.cpp - checking the stored CRC-32s: each block
// table's over its decoded sectors, the master one over the tables' own, and
// the data fork's over its stored bytes.
#include <QXFoundation/QXDiskImage.h>

#include "Internal/QXDiskImageState.h"

#include <QXFoundation/QXChecksum.h>

#include <algorithm>
#include <cstring>

using namespace QXUDIF;

namespace {

using State = QXDiskImageVerification::State;

constexpr std::size_t kPieceLength = 1 << 20;

std::uint32_t crcValue(const qx::Ref<QXChecksum>& checksum) {
    // The library hands CRC-32 over in machine order.
    auto data = checksum->checksumData();
    std::uint32_t value = 0;
    if (data && data->length() == sizeof value) std::memcpy(&value, data->bytes(), sizeof value);
    return value;
}

State stateOf(const Checksum& stored, std::uint32_t computed) {
    if (stored.type == kChecksumNone) return State::NotPresent;
    if (!stored.isCRC32()) return State::Unsupported;
    return stored.value32() == computed ? State::Passed : State::Failed;
}

void addZeros(QXChecksum& checksum, std::uint64_t length) {
    static const std::vector<std::uint8_t> zeros(kPieceLength, 0);
    while (length > 0) {
        const std::uint64_t piece = std::min<std::uint64_t>(length, zeros.size());
        checksum.updateWithInputData(zeros.data(), piece);
        length -= piece;
    }
}

} // namespace

bool QXDiskImage::verifyChecksums(QXDiskImageVerification* result, qx::Ref<qx::Error>* error) {
    auto& s = *state_;
    QXDiskImageVerification outcome;
    if (!s.udif) {
        if (result) *result = outcome;
        return true;
    }
    for (std::size_t t = 0; t < s.tables.size(); ++t) {
        const auto& table = s.tables[t];
        if (!table.checksum.isCRC32()) {
            outcome.partitions.push_back(stateOf(table.checksum, 0));
            continue;
        }
        std::vector<std::size_t> indices;
        for (std::size_t i = 0; i < s.chunks.size(); ++i)
            if (s.chunks[i].table == t) indices.push_back(i);
        auto checksum = QXChecksum::initWithAlgorithm(QXChecksumAlgorithmCRC32);
        // Free space ("ignore") is left out; zero fill counts as zeros.
        const bool read = s.visitChunks(
            indices,
            [&](std::size_t index, const std::uint8_t* bytes) {
                const auto& chunk = s.chunks[index];
                const std::uint64_t length = chunk.sectorCount * kSectorSize;
                if (chunk.type == kChunkZeroFill) addZeros(*checksum, length);
                else if (bytes) checksum->updateWithInputData(bytes, length);
                return true;
            },
            error);
        if (!read) return false;
        outcome.partitions.push_back(stateOf(table.checksum, crcValue(checksum)));
    }

    auto master = QXChecksum::initWithAlgorithm(QXChecksumAlgorithmCRC32);
    for (const auto& table : s.tables) master->updateWithInputData(table.checksum.bytes.data(), 4);
    outcome.master = stateOf(s.trailer.masterChecksum, crcValue(master));

    if (s.trailer.dataForkChecksum.isCRC32()) {
        auto fork = QXChecksum::initWithAlgorithm(QXChecksumAlgorithmCRC32);
        std::vector<std::uint8_t> piece(kPieceLength);
        for (std::uint64_t done = 0; done < s.trailer.dataForkLength;) {
            const std::size_t length = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), s.trailer.dataForkLength - done));
            if (!s.source->read(s.trailer.dataForkOffset + done, piece.data(), length, error)) return false;
            fork->updateWithInputData(piece.data(), length);
            done += length;
        }
        outcome.dataFork = stateOf(s.trailer.dataForkChecksum, crcValue(fork));
    } else {
        outcome.dataFork = stateOf(s.trailer.dataForkChecksum, 0);
    }
    if (result) *result = outcome;
    return true;
}
