// QXDiskImageToolConversation.cpp - the attach conversation on a pseudo-terminal.
#include "Internal/QXDiskImageToolConversation.h"

#include "Internal/QXDiskImageToolProcess.h"
#include "Internal/QXFoundationPrivate.h"

#include <QXFoundation/QXError.h>

#include <termios.h>
#include <unistd.h>

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

namespace {

constexpr auto kPollInterval = std::chrono::seconds(1);

bool startsWith(const std::string& text, std::string_view prefix) { return text.rfind(prefix, 0) == 0; }

bool asksYesOrNo(const std::string& text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower.find("y/n") != std::string::npos;
}

// Removes the answer hints the callbacks need not show, in this order so
// that "(Y/N)" goes whole before its "Y/N" could leave "()" behind.
std::string withoutAnswerHints(std::string text) {
    for (const std::string hint : {"(Y/N)", "(y/n)", "Y/N", "y/n"}) {
        for (auto at = text.find(hint); at != std::string::npos; at = text.find(hint, at)) text.erase(at, hint.size());
    }
    return text;
}

std::string withCapitalInitial(const std::string& text) {
    int32_t end = 0;
    UChar32 first = 0;
    const auto length = static_cast<int32_t>(std::min<std::size_t>(text.size(), INT32_MAX));
    U8_NEXT(reinterpret_cast<const uint8_t*>(text.data()), end, length, first);
    if (first < 0 || !u_islower(first)) return text;
    char upper[U8_MAX_LENGTH];
    int32_t upperLength = 0;
    UBool failed = false;
    U8_APPEND(reinterpret_cast<uint8_t*>(upper), upperLength, U8_MAX_LENGTH, u_toupper(first), failed);
    if (failed) return text;
    return std::string(upper, static_cast<std::size_t>(upperLength)) + text.substr(static_cast<std::size_t>(end));
}

// Answers typed on the terminal must not come back as console text: an
// echoed "y" would stand before the tool's next words, where a failure
// ("hdiutil: ...") is looked for at the very start.
void stopEcho(int terminal) {
    struct termios modes {};
    if (::tcgetattr(terminal, &modes) != 0) return;
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    ::tcsetattr(terminal, TCSANOW, &modes);
}

// A child that has gone cannot take the answer; its end shows in the next pass.
void type(int terminal, const char* answer) {
    const std::string line = std::string(answer) + "\n";
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(terminal, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

struct QXDiskImageToolConversation::Texts {
    QXToolChannel output, console;
    void clear() {
        output.text.clear();
        console.text.clear();
    }
};

QXDiskImageToolConversation::QXDiskImageToolConversation(std::string toolPath, std::vector<std::string> arguments,
                                                         qx::Ref<qx::URL> imageURL, bool hasLicenseAgreement,
                                                         QXDiskImageMounter::LicenseHandler licenseHandler,
                                                         QXDiskImageMounter::YesNoPromptHandler yesNoPromptHandler,
                                                         bool keepsErrors)
    : _toolPath(std::move(toolPath)), _arguments(std::move(arguments)), _imageURL(std::move(imageURL)),
      _hasLicenseAgreement(hasLicenseAgreement), _licenseHandler(std::move(licenseHandler)),
      _yesNoPromptHandler(std::move(yesNoPromptHandler)), _keepsErrors(keepsErrors) {}

bool QXDiskImageToolConversation::run(qx::Ref<qx::Error>* error) {
    auto process = qx::Process::create(_toolPath, _arguments);
    process->setStandardInput(qx::Process::Stdio::Terminal);
    process->setStandardOutput(qx::Process::Stdio::Pipe);
    process->setStandardError(qx::Process::Stdio::Terminal);
    if (!process->launch(error)) return false;
    QXToolChild child(process);
    const int terminal = process->terminal()->fileDescriptor();
    stopEcho(terminal);

    Texts texts;
    texts.output.fd = process->standardOutput()->fileDescriptor();
    texts.console.fd = terminal;
    QXToolChannel* const channels[] = {&texts.console, &texts.output};
    // How the conversation ended decides what of the output is kept.
    enum class End { Talking, PropertyList, Stopped, WentQuiet } end = End::Talking;
    while (end == End::Talking) {
        const bool arrived = QXPollChannels(channels, 2, kPollInterval);
        if (startsWith(texts.output.text, "<?xml")) {
            end = End::PropertyList;
        } else if (asksYesOrNo(texts.output.text) || asksYesOrNo(texts.console.text)) {
            if (!answerQuestion(texts, terminal)) end = End::Stopped;
        } else if (startsWith(texts.console.text, "hdiutil:")) {
            noteToolFailure(texts);
            end = End::Stopped;
        } else if ((!texts.output.open() && !texts.console.open()) || (!arrived && !process->isRunning())) {
            end = End::WentQuiet;
        }
    }

    // The property list is whatever the output holds from its "<?xml" on.
    // After a refusal or a failure the output so far is dropped, and only a
    // property list the tool still prints counts; a tool that went quiet
    // keeps all it said, where a property list after other output is found.
    const bool takesPropertyList = end == End::PropertyList;
    if (end == End::Stopped) texts.output.text.clear();
    texts.console.text.clear();
    QXReadUntilQuiet(*process, channels, 2);
    _exitStatus = child.waitForExitStatus();
    if (takesPropertyList) {
        _propertyList = std::move(texts.output.text);
    } else if (const auto start = texts.output.text.find("<?xml"); start != std::string::npos) {
        _propertyList = texts.output.text.substr(start);
    }
    return true;
}

bool QXDiskImageToolConversation::answerQuestion(Texts& texts, int terminal) {
    // The tool writes its output before it asks on the console: whatever of
    // it is still in the pipe belongs to this question.
    texts.output.readAvailable();
    const auto output = QXDecodedToolText(withoutAnswerHints(QXTrimmed(texts.output.text)));
    const auto console = QXDecodedToolText(withoutAnswerHints(QXTrimmed(texts.console.text)));
    bool yes;
    if (_hasLicenseAgreement && !_licenseAccepted) {
        yes = _licenseHandler && _licenseHandler(output);
        _licenseAccepted = yes;
    } else {
        yes = _yesNoPromptHandler && _yesNoPromptHandler(output, console);
    }
    type(terminal, yes ? "y" : "n");
    texts.clear();
    if (!yes) _keptError = QXGenerateError(qx::NSCocoaErrorDomain, 3072);
    return yes;
}

void QXDiskImageToolConversation::noteToolFailure(Texts& texts) {
    if (!_keepsErrors) return;
    // The rest of the line may still be on its way.
    QXToolChannel* const console[] = {&texts.console};
    QXPollChannels(console, 1, kPollInterval);
    // Measured without the terminal's line end: "hdiutil:\r\n" says nothing.
    const auto units = QXDecodedToolText(QXTrimmed(texts.console.text))->utf16();
    std::string message;
    if (units.size() < 10) {
        message = qx::format(QXFLocalizedString("Unknown Error %@")->utf8().c_str(),
                             qx::str(_imageURL->lastPathComponent()));
    } else {
        // From the tenth character on: after "hdiutil: ".
        message = withCapitalInitial(qx::String::withUTF16(units.data() + 9, units.size() - 9)->utf8());
    }
    _keptError = QXGenerateError(QXErrorDomain, -1, nullptr, nullptr, nullptr, "%@", qx::str(message));
}
