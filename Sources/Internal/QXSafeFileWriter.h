// QXSafeFileWriter.h - the one way a file is replaced: write a temporary
// beside it, then rename the temporary over it.
//
// Every path that replaces a file goes through this writer, so a reader (or a
// crash) sees either the old file or the complete new one, never a partial
// write, and the replacement keeps what the old file's users rely on:
//
// - The temporary lives in the target's folder (rename is atomic only within
//   one file system), is created O_EXCL with mode 0600 so nobody else can open
//   it while it is being filled, and has a unique hidden name unless the
//   caller names it (a name that exists is refused, never reused).
// - At commit it takes the existing target's mode, and its owner and group
//   where the process may set them (EPERM is ignored: an ordinary user cannot
//   give a file away, and the replacement is still wanted). A new file gets
//   0666 & ~umask, or the mode the caller asks for.
// - The file is synced before the rename and the folder after it, so the new
//   content survives a power loss once commit returns. A folder that cannot be
//   synced is not reported: the target has been replaced by then, and an error
//   would tell the caller it had not.
// - Written bytes are handed to the kernel's write-back in 8 MiB steps while
//   the caller goes on producing the next ones, so the sync at commit waits
//   only for the last few steps instead of the whole file: a large output
//   then costs little more than one that is never synced.
// - Any failure, and destruction without commit, removes the temporary and
//   leaves the target as it was.
//
// Symbolic links. open(path) follows a link at path: the file the link names
// is replaced and the link itself stays. That is what people who point an
// output path at a link expect (`qx` has always written through links), and
// replacing the link with a plain file would silently break whatever else
// relies on it. A link that names nothing is replaced itself, as there is no
// file to write through to.
// openAt(dirFd, name) never follows: a link at name is replaced by the new
// file. The caller has opened that folder on purpose (an extractor walks down
// with O_NOFOLLOW to keep every write inside its destination), and following a
// link planted there would let the write land anywhere.
//
// Not thread-safe; one writer per file being written.
#pragma once

#include <qx/UniqueFd.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

class QXSafeFileWriter {
public:
    QXSafeFileWriter() = default;
    ~QXSafeFileWriter();
    QXSafeFileWriter(QXSafeFileWriter&& other) noexcept;
    QXSafeFileWriter& operator=(QXSafeFileWriter&& other) noexcept;
    QXSafeFileWriter(const QXSafeFileWriter&) = delete;
    QXSafeFileWriter& operator=(const QXSafeFileWriter&) = delete;

    /// Starts a temporary beside path (a link at path is followed); 0 or an
    /// errno value. A temporary from an earlier open is discarded first.
    /// temporaryName, one path component, replaces the writer's own hidden
    /// name; EEXIST when a file of that name is there already.
    int open(const std::string& path, const std::optional<std::string>& temporaryName = std::nullopt);
    /// The same in the folder open as dirFd (not closed, not kept: the writer
    /// duplicates it), for name, one path component. newFileMode, when given,
    /// is the mode a new file gets instead of 0666 & ~umask.
    int openAt(int dirFd, const std::string& name, std::optional<mode_t> newFileMode = std::nullopt);

    /// The temporary, for writing; -1 when nothing is open.
    int fd() const { return file_.get(); }
    /// Writes all of bytes to the temporary; 0 or an errno value. Short writes
    /// and EINTR are retried.
    int writeAll(const void* bytes, std::size_t length);
    /// For bytes written through fd() directly (pwrite, holes): the file's
    /// bytes before end are complete, so their write-back may start. A hint;
    /// writeAll gives it itself.
    void wroteUpTo(std::uint64_t end);
    /// Makes the written bytes the target; 0 or an errno value. On failure the
    /// temporary is gone and the target untouched. Nothing is open afterwards.
    int commit();
    /// Removes the temporary; the target is untouched.
    void discard();
    /// The end of every replacement: commit when keep, else discard. 0 or
    /// commit's errno value.
    int finish(bool keep);

    /// The file commit replaces: path, or what the link at path names.
    const std::string& targetPath() const { return targetPath_; }

private:
    int start(qx::UniqueFd folder, std::string name, std::optional<mode_t> newFileMode,
              const std::optional<std::string>& temporaryName = std::nullopt);
    int fail(int code);

    qx::UniqueFd folder_;               // the target's folder, -1 when nothing is open
    qx::UniqueFd file_;                 // the temporary, -1 when nothing is open
    std::string name_;                  // the target's name in folder_
    std::string temporaryName_;         // the temporary's name in folder_; empty when none
    std::string targetPath_;            // for display and callers; name_ alone for openAt
    std::optional<mode_t> newFileMode_; // a new file's mode when the caller chose one
    std::uint64_t appended_ = 0;        // bytes writeAll has written
    std::uint64_t writebackFrom_ = 0;   // where the next early write-back starts
};
