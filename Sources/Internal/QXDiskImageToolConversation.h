// QXDiskImageToolConversation.h - one attach: the tool on a pseudo-terminal,
// its questions put to the application, its property list taken.
//
// The child's standard input and error are the terminal (its console), its
// standard output a pipe. Each pass waits up to a second for either to have
// data, then looks at what has arrived, in this order:
//  - output beginning with "<?xml": the property list; the conversation ends
//    and the rest of the output is read into it;
//  - "Y/N" in any case in either text: a question. With a licence agreement
//    not yet accepted in this conversation, the licence callback is shown
//    the output; else the yes/no callback the output and the console. Yes
//    types "y", no (or no callback) types "n" and ends the conversation
//    with Cocoa 3072. Both texts are emptied after each answer;
//  - a console beginning with "hdiutil:": the tool failed; the rest of its
//    line becomes a QXErrorDomain -1 error;
//  - a tool gone quiet for good (both ends closed, or exited): the end.
// Whatever ended it, the child is then waited for, its output and console
// read meanwhile so that it never blocks on a full pipe.
#pragma once

#include <QXFoundation/QXDiskImageMounter.h>

#include <optional>
#include <string>
#include <vector>

class QXDiskImageToolConversation {
public:
    QXDiskImageToolConversation(std::string toolPath, std::vector<std::string> arguments, qx::Ref<qx::URL> imageURL,
                                bool hasLicenseAgreement, QXDiskImageMounter::LicenseHandler licenseHandler,
                                QXDiskImageMounter::YesNoPromptHandler yesNoPromptHandler, bool keepsErrors);

    /// Runs the conversation to the child's end. False only when the
    /// terminal, the pipe or the child could not be made (POSIX error).
    bool run(qx::Ref<qx::Error>* error);

    /// The property-list text, when the output had one.
    const std::optional<std::string>& propertyList() const { return _propertyList; }
    /// The child's exit status; -1 when a signal ended it.
    int exitStatus() const { return _exitStatus; }
    /// Why the conversation failed (a declined question, the tool's
    /// complaint); nothing otherwise, and always nothing without keepsErrors
    /// for the tool's complaint.
    const qx::Ref<qx::Error>& keptError() const { return _keptError; }

private:
    struct Texts;
    // Each returns true when the conversation goes on.
    bool answerQuestion(Texts& texts, int terminal);
    void noteToolFailure(Texts& texts);

    const std::string _toolPath;
    const std::vector<std::string> _arguments;
    const qx::Ref<qx::URL> _imageURL;
    const bool _hasLicenseAgreement;
    const QXDiskImageMounter::LicenseHandler _licenseHandler;
    const QXDiskImageMounter::YesNoPromptHandler _yesNoPromptHandler;
    const bool _keepsErrors;

    bool _licenseAccepted = false;
    std::optional<std::string> _propertyList;
    int _exitStatus = -1;
    qx::Ref<qx::Error> _keptError;
};
