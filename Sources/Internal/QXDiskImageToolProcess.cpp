// QXDiskImageToolProcess.cpp - the tool's child, its channels and plain runs.
#include "Internal/QXDiskImageToolProcess.h"

#include <qx/Log.h>

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

QXToolChild::~QXToolChild() {
    if (_waited) return;
    _process->sendSignal(SIGKILL);
    _process->waitUntilExit();
}

int QXToolChild::waitForExitStatus() {
    _process->waitUntilExit();
    _waited = true;
    if (_process->terminationReason() != qx::Process::TerminationReason::Exit) return -1;
    return _process->terminationStatus();
}

bool QXToolChannel::readOnce() {
    if (!open()) return false;
    char buffer[16384];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) < 0 && errno == EINTR) {
    }
    if (n > 0) {
        text.append(buffer, static_cast<std::size_t>(n));
        return true;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
    ended = true;  // end of file, or EIO from a terminal whose other side has closed
    return false;
}

bool QXToolChannel::readAvailable() {
    bool any = false;
    while (open()) {
        struct pollfd p = {fd, POLLIN, 0};
        int ready;
        while ((ready = ::poll(&p, 1, 0)) < 0 && errno == EINTR) {
        }
        if (ready <= 0 || !readOnce()) break;
        any = true;
    }
    return any;
}

bool QXPollChannels(QXToolChannel* const* channels, std::size_t count, std::chrono::milliseconds timeout) {
    std::vector<struct pollfd> fds(count);
    bool watching = false;
    for (std::size_t i = 0; i < count; ++i) {
        fds[i] = {channels[i]->open() ? channels[i]->fd : -1, POLLIN, 0};  // -1: not watched
        watching = watching || fds[i].fd >= 0;
    }
    if (!watching) return false;
    const int ready = ::poll(fds.data(), static_cast<nfds_t>(count), static_cast<int>(timeout.count()));
    if (ready < 0) {
        if (errno != EINTR) QXLog("error in select()");
        return false;
    }
    bool any = false;
    for (std::size_t i = 0; i < count; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        const bool wasOpen = channels[i]->open();
        if (channels[i]->readOnce() || wasOpen != channels[i]->open()) any = true;
    }
    return any;
}

void QXReadUntilQuiet(qx::Process& process, QXToolChannel* const* channels, std::size_t count) {
    for (;;) {
        bool anyOpen = false;
        for (std::size_t i = 0; i < count; ++i) anyOpen = anyOpen || channels[i]->open();
        if (!anyOpen) return;
        if (!QXPollChannels(channels, count, std::chrono::seconds(1)) && !process.isRunning()) return;
    }
}

bool QXRunDiskImageTool(const std::string& path, const std::vector<std::string>& arguments, bool mergeErrors,
                        QXToolRun& run, qx::Ref<qx::Error>* error) {
    auto process = qx::Process::create(path, arguments);
    process->setStandardInput(qx::Process::Stdio::Null);
    process->setStandardOutput(qx::Process::Stdio::Pipe);
    process->setStandardError(mergeErrors ? qx::Process::Stdio::Output : qx::Process::Stdio::Pipe);
    if (!process->launch(error)) return false;
    QXToolChild child(process);
    QXToolChannel output, errors;
    output.fd = process->standardOutput()->fileDescriptor();
    errors.fd = mergeErrors ? -1 : process->standardError()->fileDescriptor();
    QXToolChannel* channels[] = {&output, &errors};
    QXReadUntilQuiet(*process, channels, 2);
    run.exitStatus = child.waitForExitStatus();
    run.output = std::move(output.text);
    run.errorOutput = std::move(errors.text);
    return true;
}

std::string QXTrimmed(const std::string& text) {
    static const char* const space = " \t\r\n\v\f";
    const auto first = text.find_first_not_of(space);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

qx::Ref<qx::String> QXDecodedToolText(const std::string& bytes) {
    const auto units = qx::String(bytes).utf16();
    return qx::String::withUTF16(units.data(), units.size());
}

qx::Ref<qx::URL> QXToolPathURL(const std::string& path) {
    struct stat st {};
    return qx::URL::fileURLWithPath(path, ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode));
}

qx::Ref<qx::URL> QXDevEntryURL(const std::string& devEntry) {
    if (devEntry.rfind("/dev", 0) == 0) return QXToolPathURL(devEntry);
    const auto name = devEntry.find_first_not_of('/');
    return QXToolPathURL(name == std::string::npos ? "/dev" : "/dev/" + devEntry.substr(name));
}
