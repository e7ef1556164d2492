// FileIO.h - whole-file input and all-or-nothing output for qx commands.
//
// Failures are reported like the library's: a null or false result and an
// error (NSPOSIXErrorDomain, errno) through the optional out-parameter.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/UniqueFd.h>

#include "Internal/QXSafeFileWriter.h"

#include <cstddef>
#include <memory>
#include <string>

namespace qxtool {

/// Reads all of path into memory; "-" reads standard input to its end.
qx::Ref<qx::Data> readInput(const std::string& path, qx::Ref<qx::Error>* error = nullptr);

/// A command's output destination.
///
/// A regular file, or a path that does not exist yet, is written through a
/// temporary file beside it; commit() renames that into place, so OUTPUT is
/// either its old self or complete new content, never a partial write. An
/// object destroyed without commit() removes its temporary file. Anything that
/// is not a regular file ("-" for standard output, a pipe, a terminal,
/// /dev/null) is written straight through and is never replaced. A symbolic
/// link is followed: its target is replaced and the link kept. The
/// replacement is QXSafeFileWriter's: mode and owner kept, synced to disk.
class OutputFile {
public:
    /// Opens path for writing, or returns null and the reason.
    static std::unique_ptr<OutputFile> open(const std::string& path, qx::Ref<qx::Error>* error = nullptr);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Appends bytes; false and the reason when the system refuses.
    bool write(const void* bytes, std::size_t length, qx::Ref<qx::Error>* error = nullptr);
    /// Makes the written bytes the output; after a failure nothing was replaced.
    bool commit(qx::Ref<qx::Error>* error = nullptr);

private:
    OutputFile(int fd, qx::UniqueFd owned, QXSafeFileWriter replacement);

    int fd_;                          // where writes go; -1 once committed
    qx::UniqueFd owned_;              // a stream opened here; empty for standard output
    QXSafeFileWriter replacement_;    // open when a file is being replaced
};

/// Writes bytes to path as one all-or-nothing OutputFile.
bool writeOutput(const std::string& path, const void* bytes, std::size_t length,
                 qx::Ref<qx::Error>* error = nullptr);

} // namespace qxtool
