// QXFileHandleInputStream.h - an input stream over a file handle (pipe, socket, file).
//
// Reads block on the handle. After a read has used up what the stream held,
// it reads ahead up to 1024 bytes, so the read that takes the last bytes of
// the handle is also the one that finds its end: EndEncountered comes as
// soon as the data is gone, not one read later.
//
// Events go to the delegate only, merged into one mask per delivery, on the
// run loops the stream is scheduled in (its own run-loop source, signalled
// from whichever thread raised the event: the handle's readability watcher
// or the reader). Without a delegate nothing is even queued. HasBytesAvailable
// comes from the handle's readability watcher while the stream is open, and
// after a read that only drained the read-ahead; it is left out of a delivery
// once the stream is no longer open.
//
// Handle faults never escape: a failed read puts the stream in Error with
// NSCocoaErrorDomain 256 and the fault's text, and returns -1.
//
// One reading thread at a time; events may be raised on any thread.
#pragma once

#include <qx/FileHandle.h>
#include <qx/InputStream.h>
#include <qx/RunLoopSource.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class QXRunLoopTable;

class QXFileHandleInputStream : public qx::InputStream {
public:
    /// A stream over handle, NotOpen. With closeFileWhenStreamClosed the
    /// stream closes the handle when it is closed (at most once).
    static qx::Ref<QXFileHandleInputStream> initWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle,
                                                               bool closeFileWhenStreamClosed);

    /// Key paths that streamStatus depends on: { "qxFileHandleStreamStatus" }.
    static std::vector<std::string> keyPathsForValuesAffectingStreamStatus();
    /// { "qxFileHandleStreamError" }. The misspelt name is the published one
    /// and is kept as it is, so that observers looking for the usual name
    /// find no dependency.
    static std::vector<std::string> keyPathsForValuesAffectinStreamError();

    /// From NotOpen only: watches the handle for readability, status Open,
    /// queues OpenCompleted.
    void open() override;
    /// Stops watching, status Closed, closes the handle when asked to.
    void close() override;
    /// Up to maxLength bytes; -1 unless open (also at the end) and on a fault.
    std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override;
    /// The handle's blocking read of up to length bytes (empty at the end);
    /// nothing, with the fault as NSCocoaErrorDomain 256, when it raises.
    qx::Ref<qx::Data> readDataFromFileHandleWithLength(std::uint64_t length, qx::Ref<qx::Error>* error = nullptr);
    /// Never: the stream has no buffer to lend.
    bool getBuffer(const std::uint8_t** buffer, std::uint64_t* length) override;
    /// True exactly while open.
    bool hasBytesAvailable() const override;

    qx::StreamStatus streamStatus() const override { return qxFileHandleStreamStatus(); }
    qx::Ref<qx::Error> streamError() const override { return qxFileHandleStreamError(); }

    /// FileCurrentOffsetKey gives the handle's offset (nothing when the
    /// handle cannot tell); other keys nothing.
    qx::Ref<qx::Object> propertyForKey(const std::string& key) const override;
    /// Never settable.
    bool setProperty(const qx::Ref<qx::Object>& property, const std::string& key) override;

    /// Held weakly; no default.
    qx::Ref<qx::StreamDelegate> delegate() const override { return qxFileHandleStreamDelegate(); }
    void setDelegate(const qx::Ref<qx::StreamDelegate>& delegate) override { setQxFileHandleStreamDelegate(delegate); }

    void scheduleInRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) override;
    void removeFromRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) override;
    void removeFromAllRunLoops();
    /// Wakes every run loop the stream is scheduled in.
    void wakeUpRunLoop();

    /// Stops readability reports, status AtEnd, queues EndEncountered.
    void endEncountered();
    /// Stops readability reports, status Error, keeps error, queues ErrorOccurred.
    void errorOccurred(const qx::Ref<qx::Error>& error);
    /// Merges event into the pending mask and signals the run-loop source;
    /// does nothing without a delegate.
    void notifyDelegateOfEvent(qx::StreamEventMask event);

    // Accessors of the stream's state.
    bool qxFileHandleStreamFileIsOpen() const;
    bool qxFileHandleStreamCloseWhenDone() const { return closeWhenDone_; }
    qx::Ref<qx::StreamDelegate> qxFileHandleStreamDelegate() const;
    void setQxFileHandleStreamDelegate(const qx::Ref<qx::StreamDelegate>& delegate);
    const qx::Ref<qx::FileHandle>& qxFileHandleStreamFileHandle() const { return fileHandle_; }
    qx::StreamStatus qxFileHandleStreamStatus() const { return status_.load(); }
    qx::Ref<qx::Error> qxFileHandleStreamError() const;

    std::string className() const override { return "QXFileHandleInputStream"; }

    ~QXFileHandleInputStream() override;

protected:
    QXFileHandleInputStream(qx::Ref<qx::FileHandle> fileHandle, bool closeFileWhenStreamClosed);

private:
    void runLoopSourceCallback();
    void stopReadabilityReports();

    // Guards currentEvent_, runLoopTable_, fileIsOpen_, error_ and delegate_.
    mutable std::mutex lock_;
    std::unique_ptr<QXRunLoopTable> runLoopTable_;
    qx::Ref<qx::RunLoopSource> runLoopSource_;
    qx::StreamEventMask currentEvent_ = 0;
    // Set while a read has used up the read-ahead and is about to refill it.
    std::atomic<bool> willReadAgain_{false};
    bool fileIsOpen_ = true;
    const bool closeWhenDone_;
    qx::WeakRef<qx::StreamDelegate> delegate_;
    const qx::Ref<qx::FileHandle> fileHandle_;
    std::atomic<qx::StreamStatus> status_{qx::StreamStatus::NotOpen};
    qx::Ref<qx::Error> error_;
    // Read ahead from the handle, not yet handed out: enough to tell "more
    // data" from "the end" without buffering much (reader's thread only).
    static constexpr std::size_t kReadAhead = 1024;
    std::uint8_t readAhead_[kReadAhead];
    std::size_t aheadStart_ = 0;  // aheadStart_ <= aheadEnd_ <= kReadAhead
    std::size_t aheadEnd_ = 0;
};
