// QXHandleReader.cpp - a handle read in pieces, ahead of the decoder for regular files.
#include "Internal/QXHandleReader.h"

#include "Internal/QXCodec.h"

#include <sys/stat.h>

using qx::Data;
using qx::Ref;

QXHandleReader::QXHandleReader(qx::FileHandle& handle) : handle_(handle) {
    struct stat info {};
    const bool regular = ::fstat(handle.fileDescriptor(), &info) == 0 && S_ISREG(info.st_mode);
    for (int i = 0; i < 2; ++i) free_.push_back(Data::create());
    if (regular) thread_ = std::thread([this] { run(); });
}

QXHandleReader::~QXHandleReader() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

Ref<Data> QXHandleReader::next() {
    if (!thread_.joinable()) {
        Ref<Data> piece = free_.front();
        fill(*piece);
        return piece;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !ready_.empty() || failure_; });
    if (ready_.empty()) std::rethrow_exception(failure_);
    Ref<Data> piece = std::move(ready_.front());
    ready_.pop_front();
    return piece;
}

void QXHandleReader::recycle(Ref<Data> piece) {
    if (!thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        free_.push_back(std::move(piece));
    }
    changed_.notify_all();
}

void QXHandleReader::fill(Data& piece) {
    piece.setLength(kQXCodecBufferSize);
    piece.setLength(handle_.readBytesOfLength(piece.mutableBytes(), kQXCodecBufferSize));
}

void QXHandleReader::run() {
    for (;;) {
        Ref<Data> piece;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return stop_ || !free_.empty(); });
            if (stop_) return;
            piece = std::move(free_.back());
            free_.pop_back();
        }
        bool atEnd = false;
        try {
            fill(*piece);
            atEnd = piece->length() == 0;
        } catch (...) {
            std::lock_guard<std::mutex> lock(mutex_);
            failure_ = std::current_exception();
            changed_.notify_all();
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ready_.push_back(std::move(piece));
        }
        changed_.notify_all();
        if (atEnd) return;
    }
}
