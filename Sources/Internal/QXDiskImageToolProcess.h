// QXDiskImageToolProcess.h - running the disk-image tool: owning its child,
// reading its pipes and terminal without blocking forever, and the plain
// runs whose output is only read to its end.
#pragma once

#include <qx/Error.h>
#include <qx/Process.h>
#include <qx/String.h>
#include <qx/URL.h>

#include <chrono>
#include <string>
#include <vector>

/// Owns a started child: when dropped before the child was waited for (an
/// early return, an exception from a callback), kills it and reaps it, so
/// that no tool outlives its operation and no zombie is left.
class QXToolChild {
public:
    explicit QXToolChild(qx::Ref<qx::Process> process) : _process(std::move(process)) {}
    ~QXToolChild();
    QXToolChild(const QXToolChild&) = delete;
    QXToolChild& operator=(const QXToolChild&) = delete;

    qx::Process& process() const { return *_process; }
    /// Waits for the end; the exit status, or -1 when a signal ended it.
    int waitForExitStatus();

private:
    qx::Ref<qx::Process> _process;
    bool _waited = false;
};

/// One descriptor read by QXReadUntilQuiet and the conversation: what has
/// arrived, and whether its end was seen. A terminal's primary side reports
/// EIO once the child side is closed: that is its end.
struct QXToolChannel {
    int fd = -1;
    std::string text;
    bool ended = false;

    bool open() const { return fd >= 0 && !ended; }
    /// One read of what is there (the caller knows it will not block);
    /// false when nothing came (the end, or a failure, which ends it too).
    bool readOnce();
    /// Reads what is there now, without waiting; true when anything came.
    bool readAvailable();
};

/// Waits up to timeout for any open channel to be readable and reads one
/// chunk from each that is. True when anything arrived (or an end was seen).
/// A failed wait logs "error in select()" and counts as nothing.
bool QXPollChannels(QXToolChannel* const* channels, std::size_t count, std::chrono::milliseconds timeout);

/// Reads the channels until each has ended, or until the child has exited
/// and a one-second poll brings nothing (a helper the tool left running may
/// hold a pipe open for ever).
void QXReadUntilQuiet(qx::Process& process, QXToolChannel* const* channels, std::size_t count);

/// What a plain run of the tool left.
struct QXToolRun {
    int exitStatus = -1;  // -1: ended by a signal
    std::string output;   // standard output (and error, when merged)
    std::string errorOutput;
};

/// Runs the tool at path with arguments, standard input on /dev/null,
/// standard error on its own pipe or (mergeErrors) on standard output's, and
/// reads both to their end while it runs. False only when the child could
/// not be started (the POSIX error with the tool's path).
bool QXRunDiskImageTool(const std::string& path, const std::vector<std::string>& arguments, bool mergeErrors,
                        QXToolRun& run, qx::Ref<qx::Error>* error);

/// text without white space and line ends at either end.
std::string QXTrimmed(const std::string& text);
/// The tool's bytes as text; a sequence that is not UTF-8 becomes U+FFFD
/// instead of costing the reader the whole text.
qx::Ref<qx::String> QXDecodedToolText(const std::string& bytes);

/// A file URL for a path the tool printed (a folder's URL ends in "/").
qx::Ref<qx::URL> QXToolPathURL(const std::string& path);
/// The file URL of a device the tool names: a name outside "/dev" is taken
/// inside it ("disk2s1" is /dev/disk2s1).
qx::Ref<qx::URL> QXDevEntryURL(const std::string& devEntry);
