// LicensePrompt.cpp - asking the user to accept an image's licence agreement.
#include "LicensePrompt.h"

#include <qx/UniqueFd.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <termios.h>
#include <unistd.h>

namespace hdiutil {

namespace {

bool writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Turns the terminal's echo off while it lives, and back on after.
class EchoOff {
public:
    explicit EchoOff(int fd) : fd_(fd) {
        termios settings {};
        if (::tcgetattr(fd, &settings) != 0) return;
        saved_ = settings;
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
        if (::tcsetattr(fd, TCSANOW, &settings) != 0) saved_.reset();
    }
    ~EchoOff() {
        if (saved_) ::tcsetattr(fd_, TCSANOW, &*saved_);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    int fd_;
    std::optional<termios> saved_;
};

// One line from fd (without its end); nothing at the end of input.
std::optional<std::string> readLine(int fd) {
    std::string line;
    for (;;) {
        char c = 0;
        const ssize_t n = ::read(fd, &c, 1);
        // An interrupt (the attach's handlers do not restart reads) declines.
        if (n <= 0) return line.empty() ? std::nullopt : std::optional<std::string>(line);
        if (c == '\n' || c == '\r') return line;
        line += c;
    }
}

} // namespace

bool askToAcceptLicense(const std::string& text) {
    std::string agreement = text;
    if (agreement.empty() || agreement.back() != '\n') agreement += '\n';
    std::fflush(stdout);
    writeAll(STDOUT_FILENO, agreement);

    qx::UniqueFd terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    const int question = terminal ? terminal.get() : STDERR_FILENO;
    const int answer = terminal ? terminal.get() : STDIN_FILENO;
    std::optional<std::string> line;
    {
        const EchoOff quiet(answer);
        if (!writeAll(question, "Agree Y/N? ")) return false;
        line = readLine(answer);
    }
    // Someone at a terminal sees the answer end the question's line.
    if (terminal && ::isatty(STDOUT_FILENO)) writeAll(terminal.get(), "\n");
    return line && !line->empty() && (line->front() == 'y' || line->front() == 'Y');
}

} // namespace hdiutil
