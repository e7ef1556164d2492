// QxProcessTest.h - running the built qx program as a child process, its
// standard streams going to files.
#pragma once

#include "TestSupport.h"

#include <qx/Process.h>

#include <sys/wait.h>

namespace qxtest {

// One shell word standing for `text` exactly, whatever it contains.
inline std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// This process's environment, for a child given one of its own.
inline std::map<std::string, std::string> processEnvironment() {
    std::map<std::string, std::string> environment;
    for (char** e = environ; *e; ++e)
        if (const char* equals = std::strchr(*e, '=')) environment[std::string(*e, static_cast<std::size_t>(equals - *e))] = equals + 1;
    return environment;
}

// What a command left behind; exitStatus is -1 when it did not exit normally.
struct QxRun {
    int exitStatus = -1;
    std::string out, err;
    std::size_t errLines() const { return static_cast<std::size_t>(std::count(err.begin(), err.end(), '\n')); }
    std::string describe() const { return "exit " + std::to_string(exitStatus) + "; stderr: [" + err + "]"; }
};

class QxProcessTest : public ::testing::Test {
protected:
    // Inputs and scratch files; work() holds outputs only, so a leftover shows.
    std::filesystem::path dir() const { return dir_.path(); }
    std::filesystem::path work() const { return work_.path(); }
    std::vector<std::string> workEntries() const { return work_.names(); }
    // An input file in dir() with these bytes, by its path; the usual output in work().
    std::string input(const std::string& name, const Bytes& bytes) const { return dir_.file(name, bytes); }
    std::string out() const { return (work() / "out").string(); }

    // Standard input from `stdinPath`; when empty, a pipe in the command line feeds it.
    QxRun runShell(const std::string& command, const std::string& stdinPath = "/dev/null") const {
        const std::string out = dir_ / ".stdout", err = dir_ / ".stderr";
        std::string full = command;
        if (!stdinPath.empty()) full += " <" + shellQuote(stdinPath);
        full += " >" + shellQuote(out) + " 2>" + shellQuote(err);
        const int status = std::system(("bash -c " + shellQuote(full)).c_str());
        return {status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
    }

    // `before` goes ahead of qx on the command line: variables, limits or a pipe.
    QxRun runQx(const std::vector<std::string>& args, const std::string& stdinPath = "/dev/null",
                const std::string& before = "") const {
        std::string command = before + " " + shellQuote(QX_QX_BINARY);
        for (const auto& arg : args) command += " " + shellQuote(arg);
        return runShell(command, stdinPath);
    }

    // Status 1 (2 for usage errors), one line naming the file and giving a reason, nothing on standard output.
    static void expectOneLineFailure(const QxRun& run, const std::string& name, int status = 1) {
        EXPECT_EQ(run.exitStatus, status) << run.describe();
        EXPECT_EQ(run.errLines(), 1u) << run.describe();
        EXPECT_EQ(run.err.rfind("qx: " + name + ": ", 0), 0u) << run.describe();
        EXPECT_GT(run.err.size(), ("qx: " + name + ": \n").size()) << "the reason is missing";
        EXPECT_TRUE(run.out.empty()) << "output on a failure: " << run.out.substr(0, 200);
    }

    // qx as a process whose standard error, and standard input or output, are pipes.
    // An interrupted command leaves at once, without joining threads that may be
    // blocked on input; a thread sanitizer in the child would report those.
    static qx::Ref<qx::Process> launchQx(const std::vector<std::string>& args, bool inputPipe) {
        auto environment = processEnvironment();
        environment["TSAN_OPTIONS"] += (environment["TSAN_OPTIONS"].empty() ? "" : ":") + std::string("report_thread_leaks=0");
        auto process = qx::Process::create(QX_QX_BINARY, args);
        process->setEnvironment(environment);
        process->setStandardInput(inputPipe ? qx::Process::Stdio::Pipe : qx::Process::Stdio::Null);
        process->setStandardOutput(inputPipe ? qx::Process::Stdio::Null : qx::Process::Stdio::Pipe);
        process->setStandardError(qx::Process::Stdio::Pipe);
        qx::Ref<qx::Error> error;
        EXPECT_TRUE(process->launch(&error)) << qx::describe(error.get());
        return process;
    }

    // Once output shows in work() (the signal handling set up and the command at
    // work), sends the signal: the command exits with 128 + signal, leaving nothing.
    void expectInterruptLeavesNothing(const qx::Ref<qx::Process>& process, int signal) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        bool writing = false;
        while (!writing && std::chrono::steady_clock::now() < deadline) {
            for (const auto& entry : std::filesystem::directory_iterator(work()))
                writing = writing || std::filesystem::file_size(entry.path()) > 0;
            if (!writing) std::this_thread::yield();
        }
        ASSERT_TRUE(writing) << "no output appeared";
        ASSERT_TRUE(process->sendSignal(signal));
        const std::string err(process->standardError()->readDataToEndOfFile()->view());
        ASSERT_TRUE(process->waitUntilExit(deadline + std::chrono::seconds(60)));
        EXPECT_EQ(process->terminationReason(), qx::Process::TerminationReason::Exit);
        EXPECT_EQ(process->terminationStatus(), 128 + signal) << err;
        EXPECT_EQ(workEntries(), std::vector<std::string>{}) << "left behind";
        process->standardInput()->closeFile();
    }

private:
    TempDir dir_{"qx-tool"}, work_{"qx-tool-work"};
};

} // namespace qxtest
