// Child processes over real pipes and pseudo-terminals: exit statuses and
// signals, end of input, merged streams, environment, terminal echo and
// a question answered on the terminal.
#include <qx/Poll.h>
#include <qx/Process.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

using namespace qx;
using namespace std::chrono_literals;

namespace {

std::string text(const Ref<Data>& data) {
    return data ? std::string(reinterpret_cast<const char*>(data->bytes()), data->length()) : std::string();
}

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

} // namespace

TEST(Process, ExitStatusesSignalsAndTermination) {
    auto exits = shell("exit 3");
    ASSERT_TRUE(exits->launch());
    exits->waitUntilExit();
    EXPECT_EQ(exits->terminationReason(), Process::TerminationReason::Exit);
    EXPECT_EQ(exits->terminationStatus(), 3);
    EXPECT_FALSE(exits->isRunning());
    EXPECT_FALSE(exits->terminate());

    auto killsItself = shell("kill -KILL $$");
    ASSERT_TRUE(killsItself->launch());
    killsItself->waitUntilExit();
    EXPECT_EQ(killsItself->terminationReason(), Process::TerminationReason::Signal);
    EXPECT_EQ(killsItself->terminationStatus(), SIGKILL);

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

TEST(Process, PipesCarryEverythingAndClosingInputEndsTheChild) {
    auto cat = Process::create("/bin/cat");
    cat->setStandardInput(Process::Stdio::Pipe);
    cat->setStandardOutput(Process::Stdio::Pipe);
    ASSERT_TRUE(cat->launch());
    // More than a pipe holds, written while the output is read, so neither
    // side can stall the other.
    std::string payload;
    for (int i = 0; payload.size() < 300000; ++i) payload += "line " + std::to_string(i) + "\n";
    std::thread writer([&] {
        cat->standardInput()->writeBytes(payload.data(), payload.size());
        cat->standardInput()->closeFile();
    });
    const std::string echoed = text(cat->standardOutput()->readDataToEndOfFile());
    writer.join();
    cat->waitUntilExit();
    EXPECT_EQ(echoed, payload);
    EXPECT_EQ(cat->terminationStatus(), 0);
    EXPECT_EQ(cat->standardError(), nullptr);
    EXPECT_EQ(cat->terminal(), nullptr);
}

TEST(Process, StreamsMergeOrSplitAndTheEnvironmentIsTheOneGiven) {
    auto merged = shell("echo out; echo err >&2; echo out2");
    merged->setStandardOutput(Process::Stdio::Pipe);
    merged->setStandardError(Process::Stdio::Output);
    ASSERT_TRUE(merged->launch());
    EXPECT_EQ(merged->standardError(), merged->standardOutput());
    EXPECT_EQ(text(merged->standardOutput()->readDataToEndOfFile()), "out\nerr\nout2\n");
    merged->waitUntilExit();

    auto split = shell("echo out; echo err >&2; read line; echo \"[$line]\"");
    split->setStandardInput(Process::Stdio::Null);
    split->setStandardOutput(Process::Stdio::Pipe);
    split->setStandardError(Process::Stdio::Pipe);
    ASSERT_TRUE(split->launch());
    EXPECT_EQ(text(split->standardOutput()->readDataToEndOfFile()), "out\n[]\n");
    EXPECT_EQ(text(split->standardError()->readDataToEndOfFile()), "err\n");
    split->waitUntilExit();

    auto env = shell("echo \"$GREETING:$HOME:$(pwd)\"");
    env->setEnvironment({{"GREETING", "hello there"}, {"PATH", "/usr/bin:/bin"}});
    env->setCurrentDirectory("/");
    env->setStandardOutput(Process::Stdio::Pipe);
    ASSERT_TRUE(env->launch());
    EXPECT_EQ(text(env->standardOutput()->readDataToEndOfFile()), "hello there::/\n");
    env->waitUntilExit();
}

TEST(Process, LaunchFailuresLeaveNothingRunning) {
    Ref<Error> error;
    auto missing = Process::create("/nonexistent/tool");
    missing->setStandardOutput(Process::Stdio::Pipe);
    EXPECT_FALSE(missing->launch(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_FALSE(missing->isRunning());
    EXPECT_EQ(missing->standardOutput(), nullptr);

    error = nullptr;
    auto badDirectory = Process::create("/bin/true");
    badDirectory->setCurrentDirectory("/nonexistent/directory");
    EXPECT_FALSE(badDirectory->launch(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), ENOENT);

    error = nullptr;
    auto once = Process::create("/bin/true");
    ASSERT_TRUE(once->launch());
    EXPECT_FALSE(once->launch(&error));
    EXPECT_EQ(error->code(), EALREADY);
    once->waitUntilExit();
    EXPECT_EQ(once->terminationStatus(), 0);
}

TEST(Process, TheTerminalEchoesAndIsTheChildsControllingTerminal) {
    auto cat = Process::create("/bin/cat");
    cat->setStandardInput(Process::Stdio::Terminal);
    cat->setStandardOutput(Process::Stdio::Terminal);
    cat->setStandardError(Process::Stdio::Terminal);
    ASSERT_TRUE(cat->launch());
    ASSERT_NE(cat->terminal(), nullptr);
    cat->terminal()->writeBytes("hello\n", 6);
    // Once as the terminal's echo of what was typed, once as cat's output.
    const std::string seen = readTerminalUntil(cat->terminal(), "hello\r\nhello\r\n");
    EXPECT_EQ(seen, "hello\r\nhello\r\n");
    cat->terminal()->writeBytes("\x04", 1);  // end of input at the start of a line
    cat->waitUntilExit();
    EXPECT_EQ(cat->terminationStatus(), 0);

    auto tty = shell("tty; exec 3</dev/tty && echo controlling");
    tty->setStandardInput(Process::Stdio::Terminal);
    tty->setStandardOutput(Process::Stdio::Pipe);
    ASSERT_TRUE(tty->launch());
    const std::string out = text(tty->standardOutput()->readDataToEndOfFile());
    tty->waitUntilExit();
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
    EXPECT_EQ(text(asks->standardOutput()->readDataToEndOfFile()), "answer=y\n");
    asks->waitUntilExit();
    EXPECT_EQ(asks->terminationStatus(), 0);
}

TEST(PollDescriptor, ReadyForDataAndEndTimedOutOtherwiseFailedForBadDescriptors) {
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    EXPECT_EQ(pollDescriptor(p[0], 0ms), PollResult::TimedOut);
    EXPECT_EQ(pollDescriptor(p[0], 5ms), PollResult::TimedOut);
    ASSERT_EQ(::write(p[1], "x", 1), 1);
    EXPECT_EQ(pollDescriptor(p[0], -1ms), PollResult::Ready);
    char c;
    ASSERT_EQ(::read(p[0], &c, 1), 1);
    ::close(p[1]);
    EXPECT_EQ(pollDescriptor(p[0], 1000ms), PollResult::Ready);  // the end is readable
    ::close(p[0]);
    EXPECT_EQ(pollDescriptor(p[0], 0ms), PollResult::Failed);
    EXPECT_EQ(pollDescriptor(-1, 0ms), PollResult::Failed);
}
