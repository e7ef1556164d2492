// QXRemoteFileHandleResourceFork.cpp - the resource-fork path of
// QXRemoteFileHandle: the fork is an extended attribute of the open file,
// read whole and sliced, written whole.
#include <QXFoundation/QXRemoteFileHandle.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXRemoteFileHandlePrivate.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/limits.h>
#include <sys/xattr.h>

using qx::Data;
using qx::Error;
using qx::Ref;
using qxrfh::kRsrcForkAttribute;
using qxrfh::posixError;

int qxrfh::readWholeFork(int fd, std::vector<std::uint8_t>& value) {
    for (;;) {
        const ssize_t size = ::fgetxattr(fd, kRsrcForkAttribute, nullptr, 0);
        if (size < 0) return errno;
        value.resize(static_cast<std::size_t>(size));
        const ssize_t got = ::fgetxattr(fd, kRsrcForkAttribute, value.data(), value.size());
        if (got >= 0) {
            value.resize(static_cast<std::size_t>(got));
            return 0;
        }
        if (errno != ERANGE) return errno;  // ERANGE: it grew in between; ask again
    }
}

bool QXRemoteFileHandle::getRsrcForkLength(std::uint64_t* length, Ref<Error>* error) {
    if (!isRsrcFork() || !fileHandle_) {
        if (error) *error = posixError(EINVAL);
        return false;
    }
    const ssize_t size = ::fgetxattr(fileHandle_->fileDescriptor(), kRsrcForkAttribute, nullptr, 0);
    std::uint64_t result;
    if (size >= 0) {
        result = std::min<std::uint64_t>(static_cast<std::uint64_t>(size), MaxRsrcForkLength);
    } else if (errno == ENODATA) {
        result = 0;  // no fork yet
    } else {
        if (error) *error = posixError(errno);
        return false;
    }
    if (length) *length = result;
    return true;
}

Ref<Data> QXRemoteFileHandle::readRsrcForkOfLength(std::uint64_t length, Ref<Error>* error) {
    // The fork is read whole and sliced: the attribute interface has no
    // positional read here. A missing fork reads as empty.
    std::vector<std::uint8_t> value;
    const int rc = qxrfh::readWholeFork(fileHandle_->fileDescriptor(), value);
    if (rc != 0 && rc != ENODATA) {
        if (error) *error = posixError(rc);
        return nullptr;
    }
    // Deliberately not advanced: a fork read leaves the offset where it was.
    const std::uint64_t position = static_cast<std::uint32_t>(privateOffsetInFile());
    if (position >= value.size()) return Data::create();
    const std::uint64_t count = std::min<std::uint64_t>(length, value.size() - position);
    return Data::withBytes(value.data() + position, static_cast<std::size_t>(count));
}

Ref<Data> QXRemoteFileHandle::readRsrcForkToEnd(Ref<Error>* error) {
    std::uint64_t length = 0;
    if (!getRsrcForkLength(&length, error)) return nullptr;
    const std::uint64_t offset = offsetInFile();
    return readDataOfLength(offset < length ? length - offset : 0, error);
}

void QXRemoteFileHandle::readRsrcFork(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler) {
    const auto handle = self();
    // Each pass rereads from the same offset (fork reads keep it). A read to
    // the end would then repeat forever; it is bounded by what the fork holds
    // beyond the offset when the read starts.
    std::uint64_t available = 0;
    if (getRsrcForkLength(&available, nullptr)) {
        const std::uint64_t position = static_cast<std::uint32_t>(privateOffsetInFile());
        available = position < available ? available - position : 0;
        length = std::min(length, available);
    }
    auto work = [handle, length, maxBufferSize, handler] {
        std::uint64_t total = 0;
        for (;;) {
            Ref<Error> error;
            const auto chunk = handle->readDataOfLength(std::min(length - total, maxBufferSize), &error);
            if (!chunk) {
                if (handler) handler(handle, nullptr, true, error);
                return;
            }
            const std::uint64_t n = chunk->length();
            total += n;
            const bool done = n == 0 || total >= length;
            if (handler && !handler(handle, chunk, done, nullptr)) {
                if (!done) handler(handle, nullptr, true, QXGenerateError(qx::NSCocoaErrorDomain, 3072));
                return;
            }
            if (done) return;
        }
    };
    if (!qxrfh::startThread("qx.rfh.fork", work) && handler) handler(handle, nullptr, true, posixError(EAGAIN));
}

bool QXRemoteFileHandle::writeRsrcFork(const Ref<Data>& data, Ref<Error>* error) {
    const std::uint64_t dataLength = data ? data->length() : 0;
    std::uint64_t forkLength = 0;
    if (!getRsrcForkLength(&forkLength, error)) return false;
    std::uint64_t count = dataLength;
    // The cap comes from the fork's length, not the position; a write cut
    // short by it is deliberately not reported.
    if (dataLength > MaxRsrcForkLength || forkLength + dataLength > MaxRsrcForkLength) count = MaxRsrcForkLength - forkLength;
    const std::uint64_t position = static_cast<std::uint32_t>(offsetInFile());
    // No attribute can hold more than XATTR_SIZE_MAX: refuse before building it.
    if (position + count > XATTR_SIZE_MAX) {
        if (error) *error = posixError(E2BIG);
        return false;
    }
    const int fd = fileHandle_->fileDescriptor();
    std::vector<std::uint8_t> value;
    const int rc = qxrfh::readWholeFork(fd, value);
    if (rc != 0 && rc != ENODATA) {
        if (error) *error = posixError(rc);
        return false;
    }
    if (value.size() < position + count) value.resize(static_cast<std::size_t>(position + count));
    if (count) std::memcpy(value.data() + position, data->bytes(), static_cast<std::size_t>(count));
    if (::fsetxattr(fd, kRsrcForkAttribute, value.data(), value.size(), 0) != 0) {
        if (error) *error = posixError(errno);
        return false;
    }
    return seekToFileOffset(offsetInFile() + count, error);
}

bool QXRemoteFileHandle::seekRsrcFork(std::uint64_t offset, Ref<Error>* error) {
    std::uint64_t length = 0;
    if (!getRsrcForkLength(&length, error)) return false;
    if (offset > MaxRsrcForkLength || offset > length) {
        if (error) *error = posixError(ERANGE);
        return false;
    }
    setPrivateOffsetInFile(offset);
    return true;
}
