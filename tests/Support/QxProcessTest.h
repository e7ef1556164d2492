// QxProcessTest.h - running the built qx program as a child process.
//
// The tests that judge the program from the outside all need the same few
// things: a fresh temporary directory, a shell command line whose standard
// streams go to files there, and the program's promise about failures (exit
// status 1, one line "qx: NAME: reason", nothing on standard output).
// QxProcessTest is the gtest fixture they derive from.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace qxtest {

// The whole file, or "" when it cannot be read.
inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// One shell word standing for `text` exactly, whatever it contains.
inline std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Runs a bash command line; its exit status, or -1 when it did not exit normally.
inline int shell(const std::string& command) {
    const int status = std::system(("bash -c " + shellQuote(command)).c_str());
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What a command left behind.
struct QxRun {
    int exitStatus = -1;  // -1 when the child did not exit normally
    std::string out, err;
    std::size_t errLines() const { return static_cast<std::size_t>(std::count(err.begin(), err.end(), '\n')); }
    std::string describe() const { return "exit " + std::to_string(exitStatus) + "; stderr: [" + err + "]"; }
};

class QxProcessTest : public ::testing::Test {
protected:
    // The temporary directory is named `prefix`-XXXXXX.
    explicit QxProcessTest(std::string prefix = "qx-test") : prefix_(std::move(prefix)) {}

    void SetUp() override {
        std::string tmpl = (std::filesystem::temp_directory_path() / (prefix_ + "-XXXXXX")).string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr) << std::strerror(errno);
        dir_ = tmpl;
        std::filesystem::create_directory(work());
    }
    void TearDown() override {
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }

    // This test's own directory, removed afterwards with all it holds.
    const std::filesystem::path& dir() const { return dir_; }

    // Where outputs go; holds nothing else, so a leftover temporary file shows.
    std::filesystem::path work() const { return dir_ / "work"; }
    std::vector<std::string> workEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(work())) names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    // Runs a bash command line with standard input from `stdinPath` (none
    // when empty: a pipe in the command line feeds it) and standard output
    // and error captured. The redirections apply to the command line's last
    // command.
    QxRun runShell(const std::string& command, const std::string& stdinPath = "/dev/null") const {
        const std::filesystem::path out = dir_ / "stdout", err = dir_ / "stderr";
        std::string full = command;
        if (!stdinPath.empty()) full += " <" + shellQuote(stdinPath);
        full += " >" + shellQuote(out.string()) + " 2>" + shellQuote(err.string());
        QxRun run;
        run.exitStatus = shell(full);
        run.out = readFile(out);
        run.err = readFile(err);
        return run;
    }

    // Runs qx with `args`; `before` goes ahead of it on the command line, to
    // set variables or limits, or to pipe something in (then with an empty
    // stdinPath).
    QxRun runQx(const std::vector<std::string>& args, const std::string& stdinPath = "/dev/null",
                const std::string& before = "") const {
        std::string command = before + " " + shellQuote(QX_QX_BINARY);
        for (const auto& arg : args) command += " " + shellQuote(arg);
        return runShell(command, stdinPath);
    }

    // A failure as the program promises it: status 1, one line naming the
    // file and giving a reason, nothing on standard output.
    static void expectOneLineFailure(const QxRun& run, const std::string& name) {
        EXPECT_EQ(run.exitStatus, 1) << run.describe();
        EXPECT_EQ(run.errLines(), 1u) << run.describe();
        EXPECT_EQ(run.err.rfind("qx: " + name + ": ", 0), 0u) << run.describe();
        EXPECT_GT(run.err.size(), ("qx: " + name + ": \n").size()) << "the reason is missing";
        EXPECT_TRUE(run.out.empty()) << "output on a failure: " << run.out.size() << " bytes, starting ["
                                     << run.out.substr(0, 200) << "]";
    }

private:
    std::string prefix_;
    std::filesystem::path dir_;
};

} // namespace qxtest
