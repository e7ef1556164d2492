// QXFileHandleOutputStream.h - an output stream that writes to a file handle.
//
// Writes are synchronous and whole: write() returns its length, or -1 when
// the stream is not open or the handle faults. A fault is told to the
// delegate as ErrorOccurred, at once, on the writing thread; the status is
// left as it was. The stream has no run-loop behaviour and raises no other
// events.
//
// One writing thread at a time; the stream takes no lock of its own.
#pragma once

#include <qx/FileHandle.h>
#include <qx/OutputStream.h>

#include <atomic>

class QXFileHandleOutputStream : public qx::OutputStream {
public:
    static qx::Ref<QXFileHandleOutputStream> initWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle,
                                                                bool closeFileWhenStreamClosed);

    /// From NotOpen only: status Open (no event).
    void open() override;
    /// Status Closed; closes the handle when closeWhenDone is set.
    void close() override;
    std::int64_t write(const std::uint8_t* buffer, std::uint64_t length) override;
    /// True exactly while open.
    bool hasSpaceAvailable() const override { return status() == qx::StreamStatus::Open; }

    qx::StreamStatus streamStatus() const override { return status(); }
    /// Always nothing: faults are reported as events only.
    qx::Ref<qx::Error> streamError() const override { return nullptr; }
    qx::Ref<qx::StreamDelegate> delegate() const override { return qxDelegate(); }
    void setDelegate(const qx::Ref<qx::StreamDelegate>& delegate) override { setQxDelegate(delegate); }
    /// FileCurrentOffsetKey gives the handle's offset; other keys nothing.
    qx::Ref<qx::Object> propertyForKey(const std::string& key) const override;
    bool setProperty(const qx::Ref<qx::Object>& property, const std::string& key) override;
    /// Nothing to schedule.
    void scheduleInRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) override {}
    void removeFromRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) override {}

    bool closeWhenDone() const { return closeWhenDone_; }
    qx::Ref<qx::StreamDelegate> qxDelegate() const;
    void setQxDelegate(const qx::Ref<qx::StreamDelegate>& delegate);
    const qx::Ref<qx::FileHandle>& fileHandle() const { return fileHandle_; }
    qx::StreamStatus status() const { return status_.load(); }

    std::string className() const override { return "QXFileHandleOutputStream"; }

    /// Logs "<description> dealloc", then closes.
    ~QXFileHandleOutputStream() override;

protected:
    QXFileHandleOutputStream(qx::Ref<qx::FileHandle> fileHandle, bool closeFileWhenStreamClosed);

private:
    const bool closeWhenDone_;
    mutable std::mutex delegateLock_;
    qx::WeakRef<qx::StreamDelegate> qxDelegate_;
    const qx::Ref<qx::FileHandle> fileHandle_;
    std::atomic<qx::StreamStatus> status_{qx::StreamStatus::NotOpen};
};
