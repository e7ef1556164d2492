// QXDiskImageExport.h - an image's decoded disk written into a plain file.
//
// Runs of zeros (zero-fill and free-space chunks) are not written: they stay
// holes, so a mostly empty disk costs only its data on the file system. The
// file's size is set to the disk's size at the end. Chunks are decoded in
// parallel by the image's whole-image pass.
#pragma once

#include <cstdint>
#include <functional>

#include <qx/Error.h>

class QXDiskImage;

namespace QXDiskImageExport {

/// Decoded bytes done so far and the disk's size, after each piece is
/// written; returns false to stop the writing (an interrupted command).
using Progress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

/// Writes image's disk into fd (a regular file, written at offsets from 0,
/// expected empty). False on failure: *writeErrno (when given) is the errno
/// of a failed write or truncate, ECANCELED when progress stopped it, or 0
/// when reading the image failed, whose error then goes to *error.
bool writeDisk(QXDiskImage& image, int fd, const Progress& progress, int* writeErrno, qx::Ref<qx::Error>* error = nullptr);

} // namespace QXDiskImageExport
