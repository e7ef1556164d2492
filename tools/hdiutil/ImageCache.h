// ImageCache.h - decoded disks of UDIF and remote images, kept for the next attach.
//
// A loop device needs a plain file, so an image that is not one (a UDIF
// image, or any image read over http) is decoded once into a sparse file in
// the cache folder, named after what identifies the image's state: for a
// local file its real path, device, inode, size and change time; for a
// remote one its URL, size and stored checksums. The same image attached
// again finds its file and skips the decoding; an image changed since gets a
// new one. Files are written through a temporary that is renamed into place
// only when complete, so a cut-off decode never leaves a file that looks done.
// After each attach through the cache the folder is trimmed to its budget
// (CacheTrimmer.h), so many different images do not fill the disk.
#pragma once

#include "ImageLocation.h"

#include "Internal/QXDiskImageExport.h"

#include <string>

class QXDiskImage;

namespace hdiutil {

class ImageCache {
public:
    /// The decoded file for image, decoding it unless the cache has it; its
    /// path, or empty with the reason. progress sees the decoding only. A
    /// reused file is marked used now; the cache is then trimmed.
    static std::string decodedFile(QXDiskImage& image, const ImageLocation& location,
                                   const QXDiskImageExport::Progress& progress, std::string& reason);
    /// Whether path names a file in the cache folder.
    static bool holds(const std::string& path);
    /// The name the cache gives image's decoded file (without the folder).
    static std::string fileName(QXDiskImage& image, const ImageLocation& location);
};

} // namespace hdiutil
