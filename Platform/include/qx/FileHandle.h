// FileHandle.h - a file, pipe, socket or terminal behind one descriptor.
//
// Reads, writes and positioning act on the descriptor directly (no user-space
// buffering) and throw qx::Exception (named FileHandleOperationException, the
// reason carrying the system's error text) when the system call fails, as the
// platform's handle raises. Interrupted calls are retried and short writes
// completed, so a call either does all of its work or throws.
//
// A readability handler, while set, is called on a background watcher thread
// whenever the descriptor has data (or its end) to read. After each call the
// watcher waits until the handle has been read through one of its own read
// operations (from any thread), or new data arrives, before it looks again; so
// a handler that leaves the data for another thread to read is not called in a
// tight loop meanwhile. Reads straight from fileDescriptor() do not count.
//
// Handles are not locked: one handle should not be read, written, positioned
// or closed by several threads at once (the watcher and the handler are the
// exception: setting, replacing and clearing the handler is safe anywhere).
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/Exception.h>
#include <qx/URL.h>
#include <qx/UniqueFd.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace qx {

class FileHandle : public Object {
public:
    using ReadabilityHandler = std::function<void(FileHandle&)>;

    // Opening. The path forms return nothing when the file cannot be opened;
    // the URL forms also say why, as a POSIX error with the URL. Neither
    // creates a file: writing and updating need an existing file. Each handle
    // closes its descriptor when it is destroyed.
    static Ref<FileHandle> fileHandleForReadingAtPath(const std::string& path);
    static Ref<FileHandle> fileHandleForWritingAtPath(const std::string& path);
    static Ref<FileHandle> fileHandleForUpdatingAtPath(const std::string& path);
    static Ref<FileHandle> fileHandleForReadingFromURL(const Ref<URL>& url, Ref<Error>* error = nullptr);
    static Ref<FileHandle> fileHandleForWritingToURL(const Ref<URL>& url, Ref<Error>* error = nullptr);
    static Ref<FileHandle> fileHandleForUpdatingURL(const Ref<URL>& url, Ref<Error>* error = nullptr);

    /// A handle over a descriptor the caller opened; it is closed with the
    /// handle only when closeOnDealloc is set. Nothing for a negative descriptor.
    static Ref<FileHandle> initWithFileDescriptor(int fd, bool closeOnDealloc = false);
    /// The process's standard descriptors (never closed by the handle).
    static Ref<FileHandle> fileHandleWithStandardInput();
    static Ref<FileHandle> fileHandleWithStandardOutput();
    static Ref<FileHandle> fileHandleWithStandardError();
    /// Reads give no data, writes are discarded (a handle on /dev/null).
    static Ref<FileHandle> fileHandleWithNullDevice();

    ~FileHandle() override;

    /// The descriptor, or -1 once closed.
    int fileDescriptor() const { return fd_.get(); }

    /// Reads until length bytes have arrived or the end is reached (fewer
    /// bytes, possibly none, then); blocks on pipes and sockets meanwhile.
    Ref<Data> readDataOfLength(std::uint64_t length);
    /// readDataOfLength into the caller's memory: reads until length bytes
    /// have arrived or the end is reached and returns how many (fewer, possibly
    /// 0, at the end). Counts as a read of the handle, as readDataOfLength does.
    std::uint64_t readBytesOfLength(void* buffer, std::uint64_t length);
    /// Reads until the end.
    Ref<Data> readDataToEndOfFile();
    /// For a regular file, the rest of it; otherwise whatever one read returns
    /// (blocking until something is there). Empty at the end.
    Ref<Data> availableData();

    /// Writes all of data (a broken pipe throws; it does not end the process).
    void writeData(const Data& data);
    void writeBytes(const void* bytes, std::size_t length);

    std::uint64_t offsetInFile();
    /// Moves to the end and returns the new offset.
    std::uint64_t seekToEndOfFile();
    void seekToFileOffset(std::uint64_t offset);
    /// Sets the file's length and moves to offset.
    void truncateFileAtOffset(std::uint64_t offset);
    /// Flushes the file's data and metadata to the storage device.
    void synchronizeFile();
    /// Stops any readability handler and closes the descriptor. Closing an
    /// already closed handle does nothing.
    void closeFile();

    /// Sets, replaces or (with an empty function) clears the handler.
    /// Clearing stops the watcher and waits for a running call to return,
    /// unless it is done from within the handler itself.
    void setReadabilityHandler(ReadabilityHandler handler);
    ReadabilityHandler readabilityHandler() const;

    std::string className() const override { return "FileHandle"; }
    std::string description() const override;

    FileHandle(int fd, bool closeOnDealloc);

protected:
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

private:
    struct Watcher;
    static Ref<FileHandle> openAtPath(const std::string& path, int flags, Ref<Error>* error, const Ref<URL>& url);
    void checkOpen(const char* operation) const;
    void noteRead();
    void stopWatcher();

    UniqueFd fd_;           // given up unclosed at destruction unless closeOnDealloc_
    bool closeOnDealloc_;
    std::shared_ptr<Watcher> watcher_;  // guarded by watcherMutex_
    mutable std::mutex watcherMutex_;
};

} // namespace qx
