// InputStream.h - streams to read from, and the memory and file streams.
//
// read() is the one way bytes come out; HasBytesAvailable is raised again
// after each read that leaves bytes to read, and EndEncountered by the read
// (or the open) that finds the end, so a delegate that reads once per event
// sees every byte. A read in any state but Open returns -1, except at the
// end, where it returns 0.
#pragma once

#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Stream.h>
#include <qx/URL.h>

namespace qx {

class InputStream : public Stream {
public:
    /// Reads data from its start. data is kept, not copied: it must not be
    /// changed while the stream is in use.
    static Ref<InputStream> inputStreamWithData(const Ref<Data>& data);
    /// Reads the file at path; a file that cannot be opened puts the stream
    /// in Error when it is opened (a POSIX error).
    static Ref<InputStream> inputStreamWithFileAtPath(const std::string& path);
    /// A file URL reads the file; an http or https URL is read by a GET
    /// (see HTTPInputStream). Nothing for other URLs.
    static Ref<InputStream> inputStreamWithURL(const Ref<URL>& url);

    /// Copies up to maxLength bytes into buffer; returns how many, 0 at the
    /// end, -1 on failure or when not open. May block until bytes arrive.
    virtual std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) = 0;
    /// The stream's own buffer of bytes not yet read, when it has one (memory
    /// streams): *buffer and *length describe it, and the bytes stay unread.
    virtual bool getBuffer(const std::uint8_t** buffer, std::uint64_t* length);
    /// True when a read would return without blocking.
    virtual bool hasBytesAvailable() const = 0;

    std::string className() const override { return "InputStream"; }

protected:
    InputStream() = default;
};

} // namespace qx
