// QXDiskImageSource.h - where an image's stored bytes come from: a local
// file, a remote file handle (http ranges), or memory.
//
// Reads are positional and may come from several threads at once; a source
// that cannot serve them in parallel takes them one at a time.
#pragma once

#include <QXFoundation/QXRemoteFileHandle.h>

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/UniqueFd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class QXDiskImageSource {
public:
    virtual ~QXDiskImageSource() = default;

    /// The local file at path; nothing with the system's error.
    static std::unique_ptr<QXDiskImageSource> openFile(const std::string& path, qx::Ref<qx::Error>* error);
    static std::unique_ptr<QXDiskImageSource> withHandle(const qx::Ref<QXRemoteFileHandle>& handle,
                                                         qx::Ref<qx::Error>* error);
    static std::unique_ptr<QXDiskImageSource> withData(const qx::Ref<qx::Data>& data);

    std::uint64_t size() const { return size_; }
    /// Exactly length bytes at offset, which the caller has checked lie
    /// within size(); false with the error when they cannot be had.
    virtual bool read(std::uint64_t offset, void* buffer, std::size_t length, qx::Ref<qx::Error>* error) = 0;
    /// The classic resource fork beside the file, when the source has one
    /// (a local file's extended attribute); empty otherwise.
    virtual std::string legacyResourceFork() { return {}; }

protected:
    std::uint64_t size_ = 0;
};
