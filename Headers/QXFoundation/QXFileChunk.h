// QXFileChunk.h - one link of a data reference's chunk list.
//
// A chunk is either a file chunk (a stretch of the file, starting at
// fileAddress) or a memory chunk (edited bytes held in data). Its length is
// not stored: it is the next chunk's address minus its own, or, for the last
// chunk, its data's length (memory) or what the file holds past fileAddress
// (file; the data reference knows the file and answers lengthOfChunk).
//
// The list owns its chunks through the strong next links; back links are
// weak. Linking two memory chunks merges them (see setNextChunk). The list's
// ends belong to the data reference, which relinks them itself.
#pragma once

#include <qx/Data.h>
#include <qx/Object.h>

#include <cstdint>
#include <string>

class QXFileChunk : public qx::Object {
public:
    using Ref = qx::Ref<QXFileChunk>;

    static Ref chunkWithFileAddress(std::uint64_t fileAddress, std::uint64_t address);
    static Ref initWithFileAddress(std::uint64_t fileAddress, std::uint64_t address) {
        return chunkWithFileAddress(fileAddress, address);
    }
    /// A memory chunk holding a growing copy of data.
    static Ref chunkWithData(const qx::Ref<qx::Data>& data, std::uint64_t address);
    static Ref initWithData(const qx::Ref<qx::Data>& data, std::uint64_t address) { return chunkWithData(data, address); }

    /// Unlinks the followers one by one, so that dropping a long list does
    /// not recurse once per chunk.
    ~QXFileChunk() override;

    /// Stores a growing copy (when data is not already this chunk's own);
    /// storing data makes the file address 0, nothing makes a file chunk.
    void setData(const qx::Ref<qx::Data>& data);
    /// Makes this a file chunk starting at fileAddress.
    void setFileAddress(std::uint64_t fileAddress);
    /// Stores address. With fix, every follower moves too: the one after a
    /// memory chunk to its address plus its data's length, the one after a
    /// file chunk by the same shift as its predecessor.
    void setAddress(std::uint64_t address, bool fixSubsequentChunks);
    /// Links next after this chunk (nothing to do when it already is). When
    /// both are memory chunks they merge: next takes this chunk's bytes in
    /// front of its own and its address, and this chunk's previous chunk is
    /// linked to next instead (which may merge again). Returns true when a
    /// merge happened; a chunk without a previous chunk then stays in front
    /// of next, and the list's owner relinks the head.
    bool setNextChunk(const Ref& next);
    /// Stores the weak back link only.
    void setPreviousChunk(const Ref& previous) { previous_ = previous; }

    std::uint64_t address() const { return address_; }
    std::uint64_t fileAddress() const { return fileAddress_; }
    /// A memory chunk's bytes (editable in place); nothing for a file chunk.
    const qx::Ref<qx::Data>& data() const { return data_; }
    const Ref& nextChunk() const { return next_; }
    Ref previousChunk() const { return previous_.lock(); }
    bool isMemoryChunk() const { return data_ != nullptr; }

    std::string className() const override { return "QXFileChunk"; }
    std::string description() const override;

protected:
    QXFileChunk() = default;

private:
    // The walks along a list read only next_ and address_: side by side.
    Ref next_;
    std::uint64_t address_ = 0;
    std::uint64_t fileAddress_ = 0;   // 0 for a memory chunk
    qx::Ref<qx::Data> data_;          // present exactly for a memory chunk
    qx::WeakRef<QXFileChunk> previous_;
};
