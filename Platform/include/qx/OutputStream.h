// OutputStream.h - streams to write to, and the memory and file streams.
//
// Writes of the concrete streams here are synchronous and complete: a write
// returns its whole length or -1 (the stream then in Error). HasSpaceAvailable
// is raised at the open and after each write.
#pragma once

#include <qx/Data.h>
#include <qx/Stream.h>
#include <qx/URL.h>

namespace qx {

class OutputStream : public Stream {
public:
    /// Collects what is written; DataWrittenToMemoryStreamKey gives a copy.
    static Ref<OutputStream> outputStreamToMemory();
    /// Writes the file at path, created when missing (mode 0666 less the
    /// umask); truncated at the open unless append is set.
    static Ref<OutputStream> outputStreamToFileAtPath(const std::string& path, bool append);
    /// The same for a file URL; nothing for other URLs.
    static Ref<OutputStream> outputStreamWithURL(const Ref<URL>& url, bool append);

    /// Writes up to length bytes; returns how many, or -1 on failure or when
    /// not open.
    virtual std::int64_t write(const std::uint8_t* buffer, std::uint64_t length) = 0;
    virtual bool hasSpaceAvailable() const = 0;

    std::string className() const override { return "OutputStream"; }

protected:
    OutputStream() = default;
};

} // namespace qx
