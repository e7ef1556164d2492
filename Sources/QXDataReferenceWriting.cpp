// QXDataReferenceWriting.cpp - writing a data reference's contents out: in
// place where the edits allow it, through an unlinked temporary file from the
// first chunk that moved towards the end, and every byte in order when the
// target is not the reference's own file.
#include <QXFoundation/QXDataReference.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXDataReferenceIO.h"
#include "Internal/QXSafeFileWriter.h"

#include <qx/FileHandle.h>
#include <qx/NotificationCenter.h>

#include <cerrno>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t kBlockSize = 1048576;

// Replaces path with bytes; 0 or an errno.
int writeAtomically(const std::string& path, const qx::Ref<qx::Data>& bytes) {
    QXSafeFileWriter writer;
    if (const int rc = writer.open(path)) return rc;
    if (const int rc = writer.writeAll(bytes->bytes(), bytes->length())) return rc;
    return writer.commit();
}

} // namespace

bool QXDataReference::writeToFileAndReturnError(qx::Ref<qx::Error>* error) {
    return writeToURL(url_, isResourceFork_, error);
}

bool QXDataReference::writeToURL(const qx::Ref<qx::URL>& url, bool inResourceFork, qx::Ref<qx::Error>* error) {
    if (!lowLevelWriteToURL(url, inResourceFork, error)) return false;
    setURL(url);
    qx::NotificationCenter::defaultCenter()->post(QXDataReferenceDidWriteOutNotification, self());
    if (undoManager_) undoManager_->removeAllActions();
    return true;
}

bool QXDataReference::lowLevelWriteToURL(const qx::Ref<qx::URL>& url, bool inResourceFork, qx::Ref<qx::Error>* error) {
    const auto fail = [&](int code, const qx::Ref<qx::URL>& about) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, code, about);
        return false;
    };
    if (!url || !url->isFileURL()) return fail(EINVAL, url);
    if (data_) {
        const int rc = writeAtomically(url->path(), data_);
        return rc == 0 || fail(rc, url);
    }
    if (!fileHandle_ || !fileHandle_->systemFileHandle()) return fail(EINVAL, url);

    struct stat info {};
    if (::stat(url->path().c_str(), &info) != 0) {
        if (errno != ENOENT) return fail(errno, url);
        if (const int rc = writeAtomically(url->path(), qx::Data::create())) return fail(rc, url);
    }
    const auto target = qx::FileHandle::fileHandleForWritingToURL(url, error);
    if (!target) return false;
    const int fd = target->fileDescriptor();

    // The in-place pass assumes the target holds the original bytes: only
    // the reference's own file does.
    struct stat own {}, written {};
    const bool ownFile = ::fstat(fileHandle_->systemFileHandle()->fileDescriptor(), &own) == 0 && ::fstat(fd, &written) == 0 &&
                         own.st_dev == written.st_dev && own.st_ino == written.st_ino;
    const std::uint64_t S = size();
    bool touched = false;
    const auto failWriting = [&](int code) {
        if (touched && ownFile) fileMatchesContents_ = false;
        return fail(code, url);
    };

    if (inResourceFork) {
        // The fork is one attribute value: the new value is gathered whole
        // before the old one goes, since file chunks read from the old one.
        std::vector<std::uint8_t> contents;
        if (const int rc = readContents(QXDataRange{0, std::min(S, qxdataref::kMaxForkPosition)}, contents)) return fail(rc, url);
        std::uint64_t existing = 0;
        if (qxdataref::forkLength(fd, &existing) == 0 && existing > 0) {
            touched = true;
            if (const int rc = qxdataref::removeFork(fd)) return failWriting(rc);
        }
        touched = true;
        if (const int rc = qxdataref::writeFork(fd, 0, contents.data(), contents.size())) return failWriting(rc);
        if (ownFile) fileMatchesContents_ = false;
        return true;
    }

    std::vector<std::uint8_t> block;
    // Copies the contents [from, S) to the target through block-sized reads.
    const auto copyOut = [&](std::uint64_t from, int out, std::uint64_t outOffset) -> int {
        for (std::uint64_t position = from; position < S; position += kBlockSize) {
            const std::uint64_t count = std::min(kBlockSize, S - position);
            if (const int rc = readContents(QXDataRange{position, count}, block)) return rc;
            if (block.size() != count) return EIO;
            touched = touched || out == fd;
            if (const int rc = qxdataref::writeAt(out, block.data(), block.size(), position - from + outOffset)) return rc;
        }
        return 0;
    };

    std::uint64_t stagedFrom = S;
    if (!ownFile) {
        stagedFrom = 0;
        if (const int rc = copyOut(0, fd, 0)) return failWriting(rc);
    } else {
        for (Chunk chunk = firstChunk_; chunk; chunk = chunk->nextChunk()) {
            const std::uint64_t l = lengthOfChunk(chunk);
            if (l == 0) continue;
            const std::uint64_t address = chunk->address();
            if (chunk->isMemoryChunk()) {
                const Chunk& next = chunk->nextChunk();
                if (next && next->address() > next->fileAddress()) {
                    stagedFrom = address;
                    break;
                }
                touched = true;
                if (const int rc = qxdataref::writeAt(fd, chunk->data()->bytes(), std::min<std::uint64_t>(l, chunk->data()->length()), address))
                    return failWriting(rc);
            } else if (chunk->fileAddress() < address) {
                stagedFrom = address;
                break;
            } else if (chunk->fileAddress() > address) {
                // Front to back: each block's source lies beyond what was written before it.
                for (std::uint64_t done = 0; done < l; done += kBlockSize) {
                    const std::uint64_t count = std::min(kBlockSize, l - done);
                    block.resize(count);
                    if (const int rc = readFile(chunk->fileAddress() + done, count, block.data())) return failWriting(rc);
                    touched = true;
                    if (const int rc = qxdataref::writeAt(fd, block.data(), count, address + done)) return failWriting(rc);
                }
            }
        }
        if (stagedFrom < S) {
            qx::UniqueFd temporary;
            if (const int rc = qxdataref::openUnlinkedTemporary(url->path(), &temporary)) return failWriting(rc);
            if (const int rc = copyOut(stagedFrom, temporary.get(), 0)) return failWriting(rc);
            for (std::uint64_t position = stagedFrom; position < S; position += kBlockSize) {
                const std::uint64_t count = std::min(kBlockSize, S - position);
                block.resize(count);
                const long long got = qxdataref::readAt(temporary.get(), block.data(), count, position - stagedFrom);
                if (got < 0) return failWriting(errno);
                if (static_cast<std::uint64_t>(got) != count) return failWriting(EIO);
                touched = true;
                if (const int rc = qxdataref::writeAt(fd, block.data(), count, position)) return failWriting(rc);
            }
        }
    }
    touched = true;
    if (const int rc = qxdataref::truncateTo(fd, S)) return failWriting(rc);
    if (const int rc = qxdataref::syncFile(fd)) return failWriting(rc);
    // The list described the file before it was rewritten; writeToURL reopens it.
    if (ownFile) fileMatchesContents_ = false;
    return true;
}
