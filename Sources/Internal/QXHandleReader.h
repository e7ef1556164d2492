// QXHandleReader.h - the generic driver's input: pieces of up to
// kQXCodecBufferSize bytes read from a handle.
//
// From a regular file the next piece is read on a thread of its own while the
// current one is decoded, so that copying the file in overlaps with decoding;
// pipes, sockets and terminals are read inline, when asked, since a read
// ahead there could wait for bytes nobody is going to send. Two buffers go
// back and forth between the reader and the decoder.
//
// Thread safety: next and recycle are called from one thread; the read-ahead
// thread is the reader's own and is joined by its destructor.
#pragma once

#include <qx/Data.h>
#include <qx/FileHandle.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

class QXHandleReader {
public:
    explicit QXHandleReader(qx::FileHandle& handle);
    ~QXHandleReader();
    QXHandleReader(const QXHandleReader&) = delete;
    QXHandleReader& operator=(const QXHandleReader&) = delete;

    /// The next piece, empty at the end; a read fault (qx::Exception) is rethrown here.
    qx::Ref<qx::Data> next();
    /// Hands a piece from next() back for the reads to come.
    void recycle(qx::Ref<qx::Data> piece);

private:
    void fill(qx::Data& piece);
    void run();

    qx::FileHandle& handle_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<qx::Ref<qx::Data>> free_;   // guarded by mutex_ while the thread runs
    std::deque<qx::Ref<qx::Data>> ready_;   // guarded
    std::exception_ptr failure_;            // guarded
    bool stop_ = false;                     // guarded
    std::thread thread_;  // joined by the destructor before the state it uses goes
};
