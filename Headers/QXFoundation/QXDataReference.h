// QXDataReference.h - an editable view of a data object or of a file's bytes
// (its data or its resource fork), with undo, search and in-place write-out.
//
// A file is never loaded whole: a list of QXFileChunks describes the edited
// contents, file chunks pointing into the file and memory chunks holding
// edited bytes. Every structural change goes through one of the undoable
// primitives below: each posts QXDataReferenceWillChangeNotification, makes
// the change, posts QXDataReferenceDidChangeNotification and registers its
// inverse, then clearCachedSize, with the undo manager (when there is one).
// One edit is thus a series of undo steps; the host groups them.
//
// The file edit walk (replaceBytesInRange on a file) is kept as it has always
// behaved, including two oddities that callers must know about:
//
//  * After the chunk that takes an insertion (or replacement), the walk goes
//    on with the following chunks, and the location it hands on is the next
//    chunk's address, so the same bytes are offered to that chunk again and
//    land a second time at its start. On a 100-byte file, inserting 2 bytes
//    at 50 and then 2 bytes at 10 gives 106 bytes, the second insertion twice
//    (at 10 and at 52). Only an edit whose chunk is the last one, or a pure
//    deletion, is free of this. A file chunk with no next chunk hands on
//    nothing, so the walk ends there. An edit that meets a list of one file
//    chunk (a freshly opened or written-out file) is always exact: callers
//    that need exact edits write out and reopen between edits.
//  * Inserting at the start of a file chunk that follows a memory chunk
//    appends the bytes to that memory chunk and moves the file chunk's
//    address by their count, also when the edit removes bytes as well.
//  When the walk has offered the bytes more than once, the cached size is
//  dropped, so that size() answers from the chunk list.
//
// Merging two memory chunks is undone by restoring the chunks' state as it
// was before the merge (one undo step), which keeps undo exact.
//
// Wrapped data objects are edited directly. An edit whose range runs past the
// end moves its location to (length - location), not its length: kept.
//
// Searching (fastSearch, rangeOfData) is a quick-search scan in 1 MiB
// windows; its answers are kept exactly, including (NotFound, 0) for the
// early answers but (0, 0) for a scan that found nothing, and a backwards
// scan that never examines the candidate starting at the range's location.
// boyerMooreSearch gives the same answers by a Horspool scan.
//
// Writing out rewrites the target in place: chunks that have not moved or
// have moved towards the start are written where they belong, and from the
// first chunk that moved towards the end, the rest of the contents is staged
// through an unlinked temporary file on the target's file system and copied
// back. The target is then truncated to the size and synced. Writing to a
// file other than the reference's own (another device or inode, or a file
// that did not exist) writes every byte of the contents in order instead, as
// the in-place pass relies on the target holding the original bytes.
//
// A write-out that fails part-way has already changed the file, so the chunk
// list no longer describes it: the reference then reports
// fileMatchesContents() false, and its reads show whatever the file holds
// now. The caller still has the error and should not trust the contents;
// setURL (reopening) makes the reference consistent again. A failure before
// any byte was written leaves fileMatchesContents() true and the contents as
// they were.
//
// Resource forks are the extended attribute "user.com.apple.ResourceFork".
// Their positions are 32-bit: a write-out write at 4 GiB or beyond is skipped,
// the fork is never truncated, and size() reports at most 0xFFFFFFFF.
//
// Not thread-safe: use a reference and its chunks from one thread at a time.
#pragma once

#include <QXFoundation/QXFileChunk.h>
#include <QXFoundation/QXRemoteFileHandle.h>

#include <qx/Coder.h>
#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/UndoManager.h>
#include <qx/URL.h>

#include <cstdint>
#include <string>
#include <vector>

extern const char* const QXDataReferenceWillChangeNotification;
extern const char* const QXDataReferenceDidChangeNotification;
extern const char* const QXDataReferenceDidWriteOutNotification;

/// Search option bits.
enum : std::uint64_t {
    QXDataReferenceCaseInsensitiveSearch = 1,
    QXDataReferenceBackwardsSearch = 4,
};

/// A location and a length.
struct QXDataRange {
    std::uint64_t location = 0;
    std::uint64_t length = 0;
    friend bool operator==(const QXDataRange&, const QXDataRange&) = default;
};

/// The location of a search that found nothing before scanning.
inline constexpr std::uint64_t QXDataReferenceNotFound = 0x7FFFFFFFFFFFFFFFull;

/// The Mac OS Roman upper-case letter of c, or c when it has none in that set.
unsigned char ConvertCharToUppercaseUsingMacOSRoman(unsigned char c);

class QXDataReference : public qx::Object, public qx::Coding {
public:
    using Ref = qx::Ref<QXDataReference>;
    using Chunk = QXFileChunk::Ref;

    static Ref dataReferenceWithData(const qx::Ref<qx::Data>& data);
    static Ref initWithData(const qx::Ref<qx::Data>& data) { return dataReferenceWithData(data); }
    static Ref dataReferenceWithURL(const qx::Ref<qx::URL>& url, bool isResourceFork = false);
    static Ref initWithURL(const qx::Ref<qx::URL>& url, bool isResourceFork = false) { return dataReferenceWithURL(url, isResourceFork); }
    /// Reopens the archived file (or data) and fork choice; nothing when the archive holds neither.
    static Ref initWithCoder(qx::Coder& coder);
    void encodeWithCoder(qx::Coder& coder) const override;

    ~QXDataReference() override;

    /// Opens url and makes the list one file chunk. Open failures are ignored:
    /// the reference is then empty.
    void setURL(const qx::Ref<qx::URL>& url, bool isResourceFork = false);

    std::uint64_t size();
    std::uint64_t lengthOfChunk(const Chunk& chunk);

    // ---- Reading ----
    void getBytes(void* buffer);
    void getBytes(void* buffer, std::uint64_t length);
    void getBytes(void* buffer, QXDataRange range);
    qx::Ref<qx::Data> subdataWithRange(QXDataRange range);
    /// Reads through the chunk list; read failures are ignored (a failed
    /// resource-fork read is logged).
    qx::Ref<qx::Data> subdataFromFileHandleWithRange(QXDataRange range);

    // ---- Editing ----
    void replaceBytesInRange(QXDataRange range, const qx::Ref<qx::Data>& data);
    void replaceBytesInRange(QXDataRange range, const void* bytes, std::uint64_t length);
    /// Shows the file as it is on disk again (undoable).
    void discardChanges();

    // ---- List ends and the undoable primitives ----
    const Chunk& firstChunk() const { return firstChunk_; }
    Chunk lastChunk() const { return lastChunk_.lock(); }
    void setFirstChunk(const Chunk& chunk);
    void setLastChunk(const Chunk& chunk);
    void setAddressForChunk(std::uint64_t address, const Chunk& chunk);
    void setFileAddressForChunk(std::uint64_t fileAddress, const Chunk& chunk);
    /// Links next after chunk; a merge of two memory chunks is registered as
    /// one step that restores the merged chunks, and the head is relinked
    /// when the merged-away chunk was the first.
    void setNextChunkForChunk(const Chunk& next, const Chunk& chunk);
    void setPreviousChunkForChunk(const Chunk& previous, const Chunk& chunk);
    void appendDataToDataChunk(const qx::Ref<qx::Data>& data, const Chunk& chunk);
    void replaceRangeInDataChunk(QXDataRange range, const Chunk& chunk, const qx::Ref<qx::Data>& data);
    void clearCachedSize() { cachedSize_ = 0; }

    // ---- State ----
    bool isResourceFork() const { return isResourceFork_; }
    void setIsResourceFork(bool value) { isResourceFork_ = value; }
    const qx::Ref<qx::UndoManager>& undoManager() const { return undoManager_; }
    void setUndoManager(const qx::Ref<qx::UndoManager>& manager) { undoManager_ = manager; }
    const qx::Ref<qx::URL>& URL() const { return url_; }
    /// The wrapped data object, or nothing for a file.
    const qx::Ref<qx::Data>& data() const { return data_; }
    bool wrapsDataObject() const { return data_ != nullptr; }
    /// False after a write-out failed once it had changed the file (see the
    /// file comment), and after lowLevelWriteToURL rewrote the reference's own
    /// file without the reopening writeToURL does; setURL makes it true again.
    bool fileMatchesContents() const { return fileMatchesContents_; }

    // ---- Writing out ----
    /// Writes the contents back to the reference's own file (or fork).
    bool writeToFileAndReturnError(qx::Ref<qx::Error>* error = nullptr);
    /// lowLevelWriteToURL, then on success reopens url's data fork, posts
    /// QXDataReferenceDidWriteOutNotification and clears the undo manager.
    bool writeToURL(const qx::Ref<qx::URL>& url, bool inResourceFork, qx::Ref<qx::Error>* error = nullptr);
    bool lowLevelWriteToURL(const qx::Ref<qx::URL>& url, bool inResourceFork, qx::Ref<qx::Error>* error = nullptr);

    // ---- Searching ----
    QXDataRange rangeOfData(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range);
    QXDataRange fastSearch(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range);
    QXDataRange boyerMooreSearch(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range);

    std::string className() const override { return "QXDataReference"; }

protected:
    QXDataReference() = default;

private:
    struct ChunkState;

    Ref self();
    void willChange();
    void didChange();
    template <class F> void registerInverse(F inverse);
    std::uint64_t fileLength();
    /// Reads length bytes at fileAddress of the file or fork into out; an errno on failure.
    int readFile(std::uint64_t fileAddress, std::uint64_t length, std::uint8_t* out);
    /// The contents in range into out (which is resized); an errno on failure.
    int readContents(QXDataRange range, std::vector<std::uint8_t>& out);

    void replaceDataBytes(QXDataRange range, const void* bytes, std::uint64_t length);
    void replaceFileHandleBytes(QXDataRange range, const void* bytes, std::uint64_t length);
    QXDataRange replaceFileHandleBytesInDataChunk(const Chunk& chunk, QXDataRange range, const qx::Ref<qx::Data>& bytes);
    QXDataRange replaceFileHandleBytesInFileHandleChunk(const Chunk& chunk, QXDataRange range, const qx::Ref<qx::Data>& bytes);
    void restoreChunks(const std::vector<ChunkState>& states, const Chunk& first);

    QXDataRange quickSearch(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range, bool horspool);

    qx::Ref<qx::URL> url_;
    qx::Ref<qx::Data> data_;                 // set exactly when a data object is wrapped
    qx::Ref<QXRemoteFileHandle> fileHandle_;
    Chunk firstChunk_;                       // owns the list
    qx::WeakRef<QXFileChunk> lastChunk_;
    std::uint64_t cachedSize_ = 0;           // 0: not known
    bool isResourceFork_ = false;
    bool fileMatchesContents_ = true;
    qx::Ref<qx::UndoManager> undoManager_;
};
