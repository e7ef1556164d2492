// Process.cpp - fork and exec with the standard streams wired, and reaping.
#include <qx/Dictionary.h>
#include <qx/Process.h>
#include <qx/String.h>
#include <qx/UniqueFd.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

extern char** environ;

namespace qx {

namespace {

// Keeps the descriptors the child is given clear of 0-2, so that wiring
// one standard stream in the child cannot clobber the source of another.
bool liftAboveStandardStreams(UniqueFd& fd) {
    if (!fd || fd.get() > 2) return true;
    int lifted = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, 3);
    if (lifted < 0) return false;
    fd.reset(lifted);
    return true;
}

void setCloseOnExec(int fd) { ::fcntl(fd, F_SETFD, ::fcntl(fd, F_GETFD) | FD_CLOEXEC); }

int openPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

} // namespace

Process::Process(std::string path, std::vector<std::string> arguments)
    : path_(std::move(path)), arguments_(std::move(arguments)) {}

Ref<Process> Process::create(std::string path, std::vector<std::string> arguments) {
    return std::make_shared<Process>(std::move(path), std::move(arguments));
}

bool Process::launch(Ref<Error>* error) {
    auto fail = [&](int code) {
        if (error) {
            auto info = Dictionary::create();
            info->setObject(String::create(path_), NSFilePathErrorKey);
            *error = Error::create(NSPOSIXErrorDomain, code, info);
        }
        return false;
    };
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (launched_) return fail(EALREADY);
    }
    if (stdin_ == Stdio::Output || stdout_ == Stdio::Output) return fail(EINVAL);

    // Everything the child needs is made before fork: after it, only
    // async-signal-safe calls are allowed there.
    std::vector<std::string> envStrings;
    if (environment_) {
        for (const auto& [k, v] : *environment_) envStrings.push_back(k + "=" + v);
    } else {
        for (char** e = environ; e && *e; ++e) envStrings.emplace_back(*e);
    }
    std::vector<char*> argv{const_cast<char*>(path_.c_str())};
    for (auto& a : arguments_) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    UniqueFd terminalPrimary, terminalSecondary, null;
    if (stdin_ == Stdio::Terminal || stdout_ == Stdio::Terminal || stderr_ == Stdio::Terminal) {
        int primary = -1, secondary = -1;
        struct winsize size = {24, 80, 0, 0};
        if (::openpty(&primary, &secondary, nullptr, nullptr, &size) != 0) return fail(errno);
        terminalPrimary.reset(primary);
        terminalSecondary.reset(secondary);
        setCloseOnExec(primary);
        setCloseOnExec(secondary);
    }
    if (stdin_ == Stdio::Null || stdout_ == Stdio::Null || stderr_ == Stdio::Null) {
        null.reset(::open("/dev/null", O_RDWR | O_CLOEXEC));
        if (!null) return fail(errno);
    }

    // For each stream: the descriptor the child gets (-1: inherit) and the
    // end this process keeps.
    UniqueFd childEnd[3], parentEnd[3];
    const Stdio modes[3] = {stdin_, stdout_, stderr_};
    for (int i = 0; i < 3; ++i) {
        if (modes[i] != Stdio::Pipe) continue;
        int p[2];
        if (::pipe2(p, O_CLOEXEC) != 0) return fail(errno);
        const bool input = i == 0;
        childEnd[i].reset(input ? p[0] : p[1]);
        parentEnd[i].reset(input ? p[1] : p[0]);
    }
    int source[3] = {-1, -1, -1};
    for (int i = 0; i < 3; ++i) {
        if (!liftAboveStandardStreams(childEnd[i])) return fail(errno);
        if (modes[i] == Stdio::Pipe) source[i] = childEnd[i].get();
    }
    if (!liftAboveStandardStreams(terminalSecondary) || !liftAboveStandardStreams(null)) return fail(errno);
    for (int i = 0; i < 3; ++i) {
        if (modes[i] == Stdio::Terminal) source[i] = terminalSecondary.get();
        if (modes[i] == Stdio::Null) source[i] = null.get();
    }

    int report[2];  // the child writes errno here when exec fails
    if (::pipe2(report, O_CLOEXEC) != 0) return fail(errno);
    UniqueFd reportRead(report[0]), reportWrite(report[1]);
    const char* directory = directory_.empty() ? nullptr : directory_.c_str();
    const bool errorFollowsOutput = stderr_ == Stdio::Output;
    const int secondary = terminalSecondary.get();

    const pid_t pid = ::fork();
    if (pid < 0) return fail(errno);
    if (pid == 0) {
        // The child: async-signal-safe calls only.
        int failure = 0;
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        struct sigaction defaultAction = {};
        defaultAction.sa_handler = SIG_DFL;
        ::sigaction(SIGPIPE, &defaultAction, nullptr);  // we may ignore it; the child should not
        if (secondary >= 0) {
            ::setsid();
            ::ioctl(secondary, TIOCSCTTY, 0);
        }
        for (int i = 0; i < 3 && !failure; ++i)
            if (source[i] >= 0 && ::dup2(source[i], i) < 0) failure = errno;
        if (!failure && errorFollowsOutput && ::dup2(1, 2) < 0) failure = errno;
        if (!failure && directory && ::chdir(directory) != 0) failure = errno;
        if (!failure) {
            ::execve(argv[0], argv.data(), envp.data());
            failure = errno;
        }
        while (::write(report[1], &failure, sizeof failure) < 0 && errno == EINTR) {
        }
        ::_exit(127);
    }

    // The parent.
    reportWrite.reset();
    for (auto& fd : childEnd) fd.reset();
    terminalSecondary.reset();
    int childFailure = 0;
    ssize_t n;
    while ((n = ::read(reportRead.get(), &childFailure, sizeof childFailure)) < 0 && errno == EINTR) {
    }
    if (n == static_cast<ssize_t>(sizeof childFailure)) {
        int status;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return fail(childFailure);
    }

    std::lock_guard<std::mutex> lock(mutex_);
    launched_ = true;
    pid_ = pid;
    pidFd_.reset(openPidFd(pid));
    if (parentEnd[0]) stdinHandle_ = FileHandle::initWithFileDescriptor(parentEnd[0].release(), true);
    if (parentEnd[1]) stdoutHandle_ = FileHandle::initWithFileDescriptor(parentEnd[1].release(), true);
    if (parentEnd[2]) stderrHandle_ = FileHandle::initWithFileDescriptor(parentEnd[2].release(), true);
    if (errorFollowsOutput && stdout_ == Stdio::Pipe) stderrHandle_ = stdoutHandle_;
    if (terminalPrimary) terminalHandle_ = FileHandle::initWithFileDescriptor(terminalPrimary.release(), true);
    return true;
}

void Process::recordExit(int status) {
    reaped_ = true;
    if (WIFEXITED(status)) {
        reason_ = TerminationReason::Exit;
        status_ = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        reason_ = TerminationReason::Signal;
        status_ = WTERMSIG(status);
    }
}

bool Process::reap(bool block) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!launched_ || reaped_) return true;
    int status;
    pid_t r;
    while ((r = ::waitpid(pid_, &status, block ? 0 : WNOHANG)) < 0 && errno == EINTR) {
    }
    if (r == pid_) {
        recordExit(status);
        return true;
    }
    if (r < 0) {
        // Reaped behind our back (a SIGCHLD handler that waits for all):
        // the status is lost, but the child is gone.
        reaped_ = true;
        return true;
    }
    return false;
}

bool Process::isRunning() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!launched_ || reaped_) return false;
    }
    return !reap(false);
}

void Process::waitUntilExit() { waitUntilExit(std::chrono::steady_clock::time_point::max()); }

bool Process::waitUntilExit(std::chrono::steady_clock::time_point deadline) {
    int pidFd;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!launched_ || reaped_) return true;
        pidFd = pidFd_.get();
    }
    const bool forever = deadline == std::chrono::steady_clock::time_point::max();
    if (pidFd < 0) {
        // No process descriptor to wait on: only an untimed wait can block.
        if (forever) return reap(true);
        return reap(false);
    }
    // The process descriptor becomes readable when the child ends, so
    // every waiter can wait on it; whoever gets the lock first reaps.
    for (;;) {
        if (reap(false)) return true;
        std::chrono::milliseconds timeout(-1);
        if (!forever) {
            timeout = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (timeout.count() <= 0) return reap(false);
        }
        struct pollfd p = {pidFd, POLLIN, 0};
        const int wait = timeout.count() < 0 ? -1 : static_cast<int>(std::min<long long>(timeout.count(), 0x7fffffff));
        if (::poll(&p, 1, wait) < 0 && errno != EINTR) return reap(forever);
    }
}

Process::TerminationReason Process::terminationReason() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reason_;
}

int Process::terminationStatus() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return status_;
}

bool Process::sendSignal(int signal) {
    // Under the lock, so the pid cannot be reaped (and reused) meanwhile.
    std::lock_guard<std::mutex> lock(mutex_);
    if (!launched_ || reaped_) return false;
    return ::kill(pid_, signal) == 0;
}

bool Process::terminate() { return sendSignal(SIGTERM); }

Process::~Process() {
    if (launched_ && !reaped_ && !reap(false)) {
        // Still running: someone must wait for it, or it stays a zombie.
        std::thread([pid = pid_] {
            int status;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    }
}

} // namespace qx
