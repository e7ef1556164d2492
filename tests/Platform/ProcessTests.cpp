// Descriptors: file handles over real files and pipes, polling, and child processes over
// pipes and pseudo-terminals (exit statuses and signals, merged streams, environment, the
// controlling terminal and a question answered on it).
#include "TestSupport.h"

#include <qx/FileHandle.h>
#include <qx/Poll.h>
#include <qx/Process.h>

#include <signal.h>

using namespace qx;
using namespace std::chrono_literals;
using qxtest::toString;

namespace {

// Reads the terminal until want has appeared; a stuck child shows as a
// missing text, not as a hung test.
std::string readTerminalUntil(const Ref<FileHandle>& terminal, const std::string& want) {
    std::string seen;
    while (seen.find(want) == std::string::npos) {
        if (pollDescriptor(terminal->fileDescriptor(), 20s) != PollResult::Ready) break;
        char buffer[256];
        const ssize_t n = ::read(terminal->fileDescriptor(), buffer, sizeof buffer);
        if (n <= 0) break;  // EIO once the child has gone
        seen.append(buffer, static_cast<std::size_t>(n));
    }
    return seen;
}

Ref<Process> shell(const std::string& script) { return Process::create("/bin/sh", {"-c", script}); }

int finish(const Ref<Process>& p) {
    EXPECT_TRUE(p->launch());
    p->waitUntilExit();
    return p->terminationStatus();
}

std::string output(const Ref<Process>& p) {
    p->setStandardOutput(Process::Stdio::Pipe);
    EXPECT_TRUE(p->launch());
    const std::string out = toString(p->standardOutput()->readDataToEndOfFile());
    p->waitUntilExit();
    return out;
}

} // namespace

TEST(Process, ExitStatusesSignalsAndTermination) {
    auto exits = shell("exit 3");
    EXPECT_EQ(finish(exits), 3);
    EXPECT_EQ(exits->terminationReason(), Process::TerminationReason::Exit);
    EXPECT_FALSE(exits->isRunning());
    EXPECT_FALSE(exits->terminate());

    // Blocks reading its input until terminated; several waiters at once.
    auto waits = Process::create("/bin/cat");
    waits->setStandardInput(Process::Stdio::Pipe);
    ASSERT_TRUE(waits->launch());
    EXPECT_TRUE(waits->isRunning());
    EXPECT_FALSE(waits->waitUntilExit(std::chrono::steady_clock::now()));
    std::thread otherWaiter([&] { waits->waitUntilExit(); });
    EXPECT_TRUE(waits->terminate());
    EXPECT_TRUE(waits->waitUntilExit(std::chrono::steady_clock::now() + 60s));
    otherWaiter.join();
    EXPECT_EQ(waits->terminationReason(), Process::TerminationReason::Signal);
    EXPECT_EQ(waits->terminationStatus(), SIGTERM);
}

TEST(Process, StreamsMergeAndTheEnvironmentIsTheOneGiven) {
    auto merged = shell("echo out; echo err >&2; echo out2");
    merged->setStandardError(Process::Stdio::Output);
    EXPECT_EQ(output(merged), "out\nerr\nout2\n");
    EXPECT_EQ(merged->standardError(), merged->standardOutput());

    auto env = shell("echo \"$GREETING:$HOME:$(pwd)\"");
    env->setEnvironment({{"GREETING", "hello there"}, {"PATH", "/usr/bin:/bin"}});
    env->setCurrentDirectory("/");
    EXPECT_EQ(output(env), "hello there::/\n");
}

TEST(Process, LaunchFailuresLeaveNothingRunning) {
    auto missing = Process::create("/nonexistent/tool");
    missing->setStandardOutput(Process::Stdio::Pipe);
    auto badDirectory = Process::create("/bin/true");
    badDirectory->setCurrentDirectory("/nonexistent/directory");
    for (const auto& p : {missing, badDirectory}) {
        Ref<Error> error;
        EXPECT_FALSE(p->launch(&error));
        EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, ENOENT);
        EXPECT_FALSE(p->isRunning());
    }
    EXPECT_EQ(missing->standardOutput(), nullptr);

    Ref<Error> error;
    auto once = Process::create("/bin/true");
    EXPECT_EQ(finish(once), 0);
    EXPECT_FALSE(once->launch(&error));
    EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, EALREADY);
}

TEST(Process, TheTerminalIsTheChildsControllingTerminal) {
    auto tty = shell("tty; exec 3</dev/tty && echo controlling");
    tty->setStandardInput(Process::Stdio::Terminal);
    const std::string out = output(tty);
    EXPECT_EQ(out.rfind("/dev/pts/", 0), 0u) << out;
    EXPECT_NE(out.find("controlling"), std::string::npos) << out;
}

TEST(Process, AQuestionOnTheTerminalIsAnsweredThereWhileOutputGoesToAPipe) {
    auto asks = shell("printf 'Proceed? (Y/N) ' >&2; read answer; echo \"answer=$answer\"; exit 0");
    asks->setStandardInput(Process::Stdio::Terminal);
    asks->setStandardError(Process::Stdio::Terminal);
    asks->setStandardOutput(Process::Stdio::Pipe);
    ASSERT_TRUE(asks->launch());
    EXPECT_EQ(readTerminalUntil(asks->terminal(), "(Y/N) "), "Proceed? (Y/N) ");
    EXPECT_EQ(pollDescriptor(asks->standardOutput()->fileDescriptor(), 0ms), PollResult::TimedOut);
    asks->terminal()->writeBytes("y\n", 2);
    EXPECT_EQ(toString(asks->standardOutput()->readDataToEndOfFile()), "answer=y\n");
    asks->waitUntilExit();
    EXPECT_EQ(asks->terminationStatus(), 0);
}

TEST(PollDescriptor, ReadyForDataAndEndTimedOutOtherwiseFailedForBadDescriptors) {
    qxtest::Pipe pipe;
    EXPECT_EQ(pollDescriptor(pipe.reader(), 0ms), PollResult::TimedOut);
    pipe.write("x");
    EXPECT_EQ(pollDescriptor(pipe.reader(), -1ms), PollResult::Ready);
    char c;
    ASSERT_EQ(::read(pipe.reader(), &c, 1), 1);
    pipe.closeWriter();
    EXPECT_EQ(pollDescriptor(pipe.reader(), 1000ms), PollResult::Ready);  // the end is readable
    const int closed = pipe.reader();
    pipe.closeReader();
    EXPECT_EQ(pollDescriptor(closed, 0ms), PollResult::Failed);
    EXPECT_EQ(pollDescriptor(-1, 0ms), PollResult::Failed);
}

TEST(FileHandle, ReadsWritesAndPositionsAFile) {
    qxtest::TempDir dir;
    auto h = FileHandle::fileHandleForUpdatingAtPath(dir.file("a", "0123456789"));
    ASSERT_TRUE(h);
    EXPECT_EQ(toString(h->readDataOfLength(4)), "0123");
    EXPECT_EQ(h->offsetInFile(), 4u);
    EXPECT_EQ(toString(h->availableData()), "456789");  // the rest of a regular file
    EXPECT_EQ(toString(h->readDataOfLength(5)), "");    // at the end
    h->seekToFileOffset(8);
    h->writeData(*Data::withString("ABCD"));
    EXPECT_EQ(h->seekToEndOfFile(), 12u);
    h->truncateFileAtOffset(3);
    EXPECT_EQ(h->offsetInFile(), 3u);
    h->synchronizeFile();
    h->seekToFileOffset(0);
    EXPECT_EQ(toString(h->readDataToEndOfFile()), "012");
    h->closeFile();
    EXPECT_EQ(h->fileDescriptor(), -1);
    h->closeFile();  // twice is harmless
}

TEST(FileHandle, FailuresThrowTheNamedExceptionWithTheSystemText) {
    qxtest::TempDir dir;
    const auto path = dir.file("ro", "data");
    qxtest::Pipe pipe, readerGone;
    readerGone.closeReader();  // writing must throw, not end the process
    const std::vector<std::pair<std::function<void()>, const char*>> cases = {
        {[&] { auto h = FileHandle::fileHandleForReadingAtPath(path); h->closeFile(); h->readDataOfLength(1); }, "readDataOfLength:]: Bad file descriptor"},
        {[&] { FileHandle::fileHandleForReadingAtPath(path)->writeData(*Data::withString("x")); }, "writeData:]: Bad file descriptor"},
        {[&] { FileHandle::initWithFileDescriptor(1 << 20)->availableData(); }, "availableData]: Bad file descriptor"},
        {[&] { FileHandle::initWithFileDescriptor(pipe.reader(), false)->offsetInFile(); }, "offsetInFile]: Illegal seek"},
        {[&] { FileHandle::initWithFileDescriptor(pipe.writer(), false)->truncateFileAtOffset(0); }, "truncateFileAtOffset:]: Invalid argument"},
        {[&] { FileHandle::initWithFileDescriptor(readerGone.writer(), false)->writeData(*Data::withString("lost")); }, "writeData:]: Broken pipe"},
    };
    for (const auto& [run, reason] : cases) {
        SCOPED_TRACE(reason);
        try {
            run();
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), Exception::FileHandleOperationException);
            EXPECT_NE(e.description().find(reason), std::string::npos) << e.description();
        }
    }
}
