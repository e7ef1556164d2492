// QXFileChunk.cpp - chunk links, address fixing and memory-chunk merging.
#include <QXFoundation/QXFileChunk.h>

#include <qx/Format.h>

namespace {

struct ChunkFactory : QXFileChunk {};

} // namespace

QXFileChunk::Ref QXFileChunk::chunkWithFileAddress(std::uint64_t fileAddress, std::uint64_t address) {
    Ref chunk = std::make_shared<ChunkFactory>();
    chunk->setAddress(address, false);
    chunk->setFileAddress(fileAddress);
    return chunk;
}

QXFileChunk::Ref QXFileChunk::chunkWithData(const qx::Ref<qx::Data>& data, std::uint64_t address) {
    Ref chunk = std::make_shared<ChunkFactory>();
    chunk->setAddress(address, false);
    chunk->setData(data ? data : qx::Data::create());
    return chunk;
}

QXFileChunk::~QXFileChunk() {
    Ref next = std::move(next_);
    while (next && next.use_count() == 1) next = std::move(next->next_);
}

void QXFileChunk::setData(const qx::Ref<qx::Data>& data) {
    if (data == data_) return;
    if (!data) {
        data_.reset();
        return;
    }
    data_ = std::make_shared<qx::Data>(data->vector());
    fileAddress_ = 0;
}

void QXFileChunk::setFileAddress(std::uint64_t fileAddress) {
    fileAddress_ = fileAddress;
    data_.reset();
}

void QXFileChunk::setAddress(std::uint64_t address, bool fixSubsequentChunks) {
    // A loop rather than the natural recursion: lists run to many thousand chunks.
    QXFileChunk* chunk = this;
    std::uint64_t newAddress = address;
    for (;;) {
        const std::uint64_t oldAddress = chunk->address_;
        chunk->address_ = newAddress;
        if (!fixSubsequentChunks || !chunk->next_) return;
        QXFileChunk* next = chunk->next_.get();
        newAddress = chunk->data_ ? newAddress + chunk->data_->length() : next->address_ + (newAddress - oldAddress);
        chunk = next;
    }
}

bool QXFileChunk::setNextChunk(const Ref& next) {
    if (next == next_) return false;
    if (next_) next_->setPreviousChunk(nullptr);
    next_ = next;
    if (!next) return false;
    const auto self = std::static_pointer_cast<QXFileChunk>(shared_from_this());
    next->setPreviousChunk(self);
    if (!data_ || !next->data_) return false;

    auto& bytes = next->data_->vector();
    bytes.insert(bytes.begin(), data_->vector().begin(), data_->vector().end());
    if (Ref previous = previousChunk()) previous->setNextChunk(next);
    next->setAddress(address_, true);
    return true;
}

std::string QXFileChunk::description() const {
    if (data_) return qx::format("<QXFileChunk memory address=%llu length=%zu>", static_cast<unsigned long long>(address_), data_->length());
    return qx::format("<QXFileChunk file address=%llu fileAddress=%llu>", static_cast<unsigned long long>(address_),
                      static_cast<unsigned long long>(fileAddress_));
}
