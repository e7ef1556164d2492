// Process.h - a child process with pipes or a pseudo-terminal for its standard streams.
//
// Configure, then launch() once. Each standard stream of the child may be
// inherited from this process, connected to /dev/null, to a pipe, or to a
// pseudo-terminal; standard error may also share standard output's pipe or
// terminal. All streams set to Terminal use one terminal, which becomes the
// child's controlling terminal (the child leads a new session); this
// process keeps the terminal's primary side to read what the child shows and
// to type to it, with the terminal's echo and line editing as set up by the
// system.
//
// The parent's ends are FileHandles owned by the process object; close them
// early (closeFile) to send the child an end of input. A process that is
// dropped while its child runs does not kill it; the child is reaped when it
// exits. Not safe for concurrent configuration; waiting, isRunning and
// sendSignal may be called from any thread.
#pragma once

#include <qx/Error.h>
#include <qx/FileHandle.h>
#include <qx/UniqueFd.h>

#include <sys/types.h>

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qx {

class Process final : public Object {
public:
    enum class Stdio {
        Inherit,   // the same descriptor as this process
        Null,      // /dev/null
        Pipe,      // a pipe, whose other end this process keeps
        Terminal,  // the pseudo-terminal
        Output,    // standard error only: wherever standard output goes
    };
    enum class TerminationReason { None, Exit, Signal };

    /// A process for the program at path (no search of PATH), not started.
    /// arguments exclude the program name; argv[0] is path.
    static Ref<Process> create(std::string path, std::vector<std::string> arguments = {});

    /// The child's whole environment; without this call it inherits ours.
    void setEnvironment(std::map<std::string, std::string> environment) { environment_ = std::move(environment); }
    void setCurrentDirectory(std::string directory) { directory_ = std::move(directory); }
    void setStandardInput(Stdio mode) { stdin_ = mode; }
    void setStandardOutput(Stdio mode) { stdout_ = mode; }
    void setStandardError(Stdio mode) { stderr_ = mode; }

    /// Starts the child. False (error: POSIX, with the program's path) when
    /// it was launched before, a pipe or terminal cannot be made, or the
    /// program cannot be executed; nothing is left running then.
    bool launch(Ref<Error>* error = nullptr);

    pid_t processIdentifier() const { return pid_; }
    /// This process's ends: the write end for a Pipe input, the read end
    /// for Pipe output and error (one handle when error shares output's
    /// pipe), the terminal's primary side for Terminal. Null otherwise.
    Ref<FileHandle> standardInput() const { return stdinHandle_; }
    Ref<FileHandle> standardOutput() const { return stdoutHandle_; }
    Ref<FileHandle> standardError() const { return stderrHandle_; }
    Ref<FileHandle> terminal() const { return terminalHandle_; }

    bool isRunning();
    /// Blocks until the child has ended (at once when never launched).
    void waitUntilExit();
    /// As above, giving up at the deadline; true when the child has ended.
    bool waitUntilExit(std::chrono::steady_clock::time_point deadline);

    TerminationReason terminationReason() const;
    /// The exit status, or the signal number for a signal; 0 before the end.
    int terminationStatus() const;
    /// Sends signal to a running child; false when it is not running.
    bool sendSignal(int signal);
    bool terminate();

    std::string className() const override { return "Process"; }

    Process(std::string path, std::vector<std::string> arguments);
    ~Process() override;

private:
    // With mutex_ held: records how waitpid status ended the child.
    void recordExit(int status);
    bool reap(bool block);

    std::string path_;
    std::vector<std::string> arguments_;
    std::optional<std::map<std::string, std::string>> environment_;
    std::string directory_;
    Stdio stdin_ = Stdio::Inherit, stdout_ = Stdio::Inherit, stderr_ = Stdio::Inherit;

    Ref<FileHandle> stdinHandle_, stdoutHandle_, stderrHandle_, terminalHandle_;
    pid_t pid_ = -1;
    UniqueFd pidFd_;  // readable once the child has ended; -1 without kernel support
    mutable std::mutex mutex_;
    bool launched_ = false;
    bool reaped_ = false;
    TerminationReason reason_ = TerminationReason::None;
    int status_ = 0;
};

} // namespace qx
