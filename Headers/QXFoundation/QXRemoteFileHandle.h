// QXRemoteFileHandle.h - one file-handle interface over a local file, the
// resource fork of a local file, and an HTTP or HTTPS resource.
//
// Local data-fork handles wrap a qx::FileHandle. Resource-fork handles read and
// write the extended attribute "user.com.apple.ResourceFork" of the open file
// (positions are 32-bit, the length is capped at 0xFFFFFFFF); a file system that
// refuses user attributes makes their initialisers fail with the system's
// error. HTTP handles find their size with a HEAD request (fileSize waits for
// it) and read with GET requests carrying "Range: bytes=<first>-[<last>]".
//
// Reads are synchronous (by length, by range, to the end) or chunked and
// asynchronous: a DataHandler is called with each chunk and a done flag, and
// returns false to stop. The three chunked paths differ, on purpose:
//
//  * HTTP: chunks arrive on the HTTP client's delegate queue as the body
//    streams in; the status code is not examined (a 404 page is delivered as
//    data). The end is one call with done set: an empty chunk, or no chunk and
//    the transfer's error (after a stop: the cancellation error, or the empty
//    chunk when the whole body had arrived before the stop was seen).
//  * Resource fork: a thread of its own reads and calls the handler. Its reads
//    do not advance the offset, so every pass reads the same bytes; a read is
//    bounded by what the fork holds past the offset. A stop before the end is
//    answered by one more call with Cocoa error 3072.
//  * Local data fork: a reading thread reads through the descriptor (1 MiB at
//    most per read) and hands chunks, in order and one at a time, to a serial
//    delivery queue ("com.tovarik.QXRemoteFileHandle.callback"). The reader
//    stays at most about maxBufferSize ahead of the handler. The end of file
//    is an empty chunk with done set; a read error is (no chunk, done false,
//    POSIX error); after a stop nothing more is delivered, not even chunks
//    already read. A chunk's storage serves later reads once nobody holds
//    the chunk any more; a chunk that is kept is never written again.
//
// A local descriptor that cannot seek (a pipe, a socket, a terminal) is read
// front to back: the handle counts the position itself, a seek forward reads
// and drops the bytes in between, and the last 64 KiB read are kept, so that
// a seek back among them reads them again. A caller that looked at a
// payload's first bytes, or wants its last few, can thus go back as it would
// in a file. A seek back further than that, or forward past the end of the
// stream, fails with POSIX ESPIPE (the latter leaving the handle at the end).
//
// An asynchronous read keeps the handle alive until its last handler call.
// The handle itself has no lock: use one handle from one thread at a time
// (its flags and offsets are atomic only so that the HTTP client's queue may
// update them while the owner looks on).
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/FileHandle.h>
#include <qx/HTTPClient.h>
#include <qx/Semaphore.h>
#include <qx/URL.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

/// "QXRemoteFileHandleErrorDomain"; exported for callers, used by no failure path.
extern const char* const kQXRemoteFileHandleErrorDomain;

class QXRemoteFileHandleStreamWindow;

class QXRemoteFileHandle : public qx::Object {
public:
    /// A chunked read's callback: (handle, chunk or nothing, done, error or
    /// nothing); returns true to go on, false to stop.
    using DataHandler = std::function<bool(const qx::Ref<QXRemoteFileHandle>& handle, const qx::Ref<qx::Data>& chunk,
                                           bool done, const qx::Ref<qx::Error>& error)>;
    /// writeDataCompletionHandler's callback: nothing on success, else the error.
    using WriteCompletionHandler = std::function<void(const qx::Ref<QXRemoteFileHandle>& handle, const qx::Ref<qx::Error>& error)>;

    /// The length a chunked read is given to mean "to the end".
    static constexpr std::uint64_t ToEndOfFile = 0xFFFFFFFFFFFFFFFFull;
    /// The largest resource fork (and its positions) the handle addresses.
    static constexpr std::uint64_t MaxRsrcForkLength = 0xFFFFFFFFull;

    // ---- Initialisers: the handle, or nothing with an error ----

    /// A file URL: must exist (else the file system's error, Cocoa 260 for a
    /// missing file) and is opened for reading. An http or https URL (scheme
    /// compared without case): starts the HEAD request for the size and is
    /// seekable until the answer says otherwise. Another scheme: Cocoa 262.
    static qx::Ref<QXRemoteFileHandle> initForReadingFromURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error = nullptr);
    /// Opens an existing local file for writing. Sets no URL and no size.
    static qx::Ref<QXRemoteFileHandle> initForWritingToURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error = nullptr);
    /// Wraps an open handle. Seekable unless a FIFO, a socket or another
    /// descriptor that refuses to seek (read front to back then); readable when
    /// the descriptor's status flags are exactly read-only or read-write,
    /// writable when exactly write-only or read-write (a descriptor opened
    /// with O_APPEND or O_NONBLOCK is neither).
    static qx::Ref<QXRemoteFileHandle> initWithSystemFileHandle(const qx::Ref<qx::FileHandle>& fileHandle, bool closeOnDealloc,
                                                                qx::Ref<qx::Error>* error = nullptr);
    /// The resource fork of a local file, for reading, respectively writing.
    static qx::Ref<QXRemoteFileHandle> initForReadingFromResourceForkAtURL(const qx::Ref<qx::URL>& url,
                                                                           qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<QXRemoteFileHandle> initForWritingToResourceForkAtURL(const qx::Ref<qx::URL>& url,
                                                                         qx::Ref<qx::Error>* error = nullptr);
    /// The resource fork of an open file; fails when its length cannot be had
    /// (a missing fork has length 0; a file system without user attributes
    /// fails with its POSIX error). Never seekable.
    static qx::Ref<QXRemoteFileHandle> initWithResourceForkForSystemFileHandle(const qx::Ref<qx::FileHandle>& fileHandle, bool forReading,
                                                                               bool forWriting, bool closeOnDealloc,
                                                                               qx::Ref<qx::Error>* error = nullptr);

    /// Closes the file when closeWhenDone is set (errors are ignored).
    ~QXRemoteFileHandle() override;

    // ---- Properties (set by the initialisers and the handle's own work) ----

    bool isSeekable() const { return seekable_.load(); }
    bool isRsrcFork() const { return rsrcFork_.load(); }
    bool isReadable() const { return readable_.load(); }
    bool isWritable() const { return writable_.load(); }
    bool closeWhenDone() const { return closeWhenDone_.load(); }
    void setCloseWhenDone(bool value) { closeWhenDone_.store(value); }
    /// The open local file; nothing for an HTTP handle.
    const qx::Ref<qx::FileHandle>& systemFileHandle() const { return fileHandle_; }
    /// The position of HTTP and resource-fork handles.
    std::uint64_t privateOffsetInFile() const { return privateOffset_.load(); }
    /// Where the handle reads from (set by initForReadingFromURL only).
    const qx::Ref<qx::URL>& URL() const { return url_; }
    /// The size once known (read it through fileSize while it may be unknown).
    std::uint64_t privateSize() const { return privateSize_.load(); }
    /// The status of the last HTTP response (the HEAD, then each ranged
    /// GET, as each arrives); 0 before any response and for local files
    /// and resource forks. A ranged GET's status is set before its first
    /// chunk is delivered; the HEAD, which runs beside the reads, sets it
    /// only while no GET has answered.
    std::int64_t statusCode() const { return statusCode_.load(); }

    // ---- Position and size ----

    /// The platform handle's position for a local data-fork handle, else
    /// privateOffsetInFile. A closed local handle reports 0.
    std::uint64_t offsetInFile() const;
    /// Sets privateOffsetInFile only (a local data-fork handle moves with seekToFileOffset).
    void setOffsetInFile(std::uint64_t offset) { setPrivateOffsetInFile(offset); }
    /// The size; for handles made by initForReadingFromURL it waits until
    /// the size is found (an HTTP handle's HEAD request has been answered).
    /// Other handles report privateSize.
    std::uint64_t fileSize();
    /// The resource fork's length (0 when there is none, at most 0xFFFFFFFF);
    /// POSIX 22 for a handle that is not a resource fork.
    bool getRsrcForkLength(std::uint64_t* length, qx::Ref<qx::Error>* error = nullptr);

    // ---- Synchronous reads: data (possibly shorter at the end), or nothing with an error ----

    /// From the current offset. A resource-fork read leaves the offset where
    /// it was; a local data-fork or HTTP read advances it.
    qx::Ref<qx::Data> readDataOfLength(std::uint64_t length, qx::Ref<qx::Error>* error = nullptr);
    /// Seeks to offset, then reads length bytes. For HTTP this blocks on an
    /// asynchronous read: never call it from the HTTP client's delegate queue.
    qx::Ref<qx::Data> readDataInRange(std::uint64_t offset, std::uint64_t length, qx::Ref<qx::Error>* error = nullptr);
    /// Everything from the current offset to the end.
    qx::Ref<qx::Data> readDataToEndOfFileAndReturnError(qx::Ref<qx::Error>* error = nullptr);

    // ---- Chunked asynchronous reads (see the file comment for the three paths) ----
    // The selector's first keyword is readDataOfLength, which the synchronous
    // read already names; hence the next keyword in the name.

    /// Reads length bytes (or to the end) from the current offset in chunks of
    /// at most maxBufferSize bytes. A handle that is not readable calls the
    /// handler once with (no chunk, done, POSIX 22).
    void readDataOfLengthMaxBufferSize(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler);
    /// Seeks, then reads as above; a failed seek is one call with (no chunk, done, the seek's error).
    void readDataAtOffset(std::uint64_t offset, std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler);
    void readDataToEndOfFileWithMaxBufferSize(std::uint64_t maxBufferSize, DataHandler handler);

    // ---- Writing, seeking, closing ----

    /// Local data fork: writes at the current position. Resource fork: writes
    /// into the fork at offsetInFile and moves past what was written; a write
    /// that would take the fork beyond 0xFFFFFFFF bytes is silently cut to fit.
    /// POSIX 22 for a handle that is not writable and for every HTTP handle.
    bool writeData(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error = nullptr);
    /// writeData on a background thread, then completion there (named by its
    /// next keyword: a null completion would not tell the two overloads apart).
    void writeDataCompletionHandler(const qx::Ref<qx::Data>& data, WriteCompletionHandler completion);
    /// Local data fork: the platform handle's seek. Resource fork: within the
    /// fork's length (POSIX 34 beyond it). HTTP: any offset, unchecked.
    bool seekToFileOffset(std::uint64_t offset, qx::Ref<qx::Error>* error = nullptr);
    /// Handles with a platform handle seek it to its end (a resource-fork
    /// handle's own offset does not move); HTTP handles go to fileSize.
    bool seekToEndOfFileAndReturnError(qx::Ref<qx::Error>* error = nullptr);
    /// Closes the platform handle; true at once when there is none.
    bool closeFileAndReturnError(qx::Ref<qx::Error>* error = nullptr);

    std::string className() const override { return "QXRemoteFileHandle"; }
    std::string description() const override;

protected:
    QXRemoteFileHandle();
    QXRemoteFileHandle(const QXRemoteFileHandle&) = delete;
    QXRemoteFileHandle& operator=(const QXRemoteFileHandle&) = delete;

private:
    void setIsSeekable(bool value) { seekable_.store(value); }
    void setIsRsrcFork(bool value) { rsrcFork_.store(value); }
    void setIsReadable(bool value) { readable_.store(value); }
    void setIsWritable(bool value) { writable_.store(value); }
    void setPrivateOffsetInFile(std::uint64_t value) { privateOffset_.store(value); }
    void setPrivateSize(std::uint64_t value) { privateSize_.store(value); }
    qx::Ref<QXRemoteFileHandle> self();
    qx::Ref<qx::Error> exceptionError(std::int64_t code, const std::exception& exception) const;

    /// Finds the size: a local file by seeking to its end and back; an HTTP
    /// resource by a HEAD request, returning at once (fileSize waits for the
    /// answer; a transport failure gives size 0 and not seekable). Holds
    /// sizeSemaphore_ (count 1) until the size is set.
    void calculateFileSize();
    void calculateHTTPFileSize();
    /// Takes the size from a HEAD response: an unknown length gives size 0 and
    /// not seekable; else the length, seekable only when "Accept-Ranges"
    /// contains "bytes".
    void setSizeWithURLResponse(const qx::Ref<qx::HTTPResponse>& response);

    // The three sources (the HTTP, resource-fork and local units).
    void readHTTP(std::uint64_t length, DataHandler handler);
    qx::Ref<qx::Data> readHTTPSynchronously(std::uint64_t offset, std::uint64_t length, bool toEnd, qx::Ref<qx::Error>* error);
    qx::Ref<qx::Data> readRsrcForkOfLength(std::uint64_t length, qx::Ref<qx::Error>* error);
    qx::Ref<qx::Data> readRsrcForkToEnd(qx::Ref<qx::Error>* error);
    void readRsrcFork(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler);
    bool writeRsrcFork(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error);
    bool seekRsrcFork(std::uint64_t offset, qx::Ref<qx::Error>* error);
    void readLocal(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler);
    qx::Ref<qx::Data> readStream(std::uint64_t length, qx::Ref<qx::Error>* error);
    bool seekStream(std::uint64_t offset, qx::Ref<qx::Error>* error);

    std::atomic<bool> seekable_{false};
    std::atomic<bool> rsrcFork_{false};
    std::atomic<bool> readable_{false};
    std::atomic<bool> writable_{false};
    std::atomic<bool> closeWhenDone_{false};
    qx::Ref<qx::FileHandle> fileHandle_;
    std::atomic<std::uint64_t> privateOffset_{0};
    qx::Ref<qx::URL> url_;
    std::atomic<std::uint64_t> privateSize_{0};
    std::atomic<std::int64_t> statusCode_{0};
    // Held (count 1 taken) while the size is being found; nothing for
    // handles that never look their size up.
    qx::Ref<qx::Semaphore> sizeSemaphore_;
    // The client of the HEAD request; dropping the handle cancels it.
    qx::Ref<qx::HTTPClient> sizeSession_;
    // Only for a local descriptor that cannot seek: its position and the
    // bytes most recently read from it.
    std::shared_ptr<QXRemoteFileHandleStreamWindow> stream_;
};
