// QXDiskImageMounter.cpp - the tool's path, image recognition, attaching,
// detaching and the tool's information.
#include <QXFoundation/QXDiskImageMounter.h>

#include "Internal/QXDiskImageToolConversation.h"
#include "Internal/QXDiskImageToolProcess.h"
#include "Internal/QXSharedMimeDatabase.h"

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Number.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#ifndef QX_HDIUTIL_INSTALLED_PATH
#define QX_HDIUTIL_INSTALLED_PATH "/usr/local/libexec/qxfoundation/hdiutil"
#endif

const char* const QXDiskImageMounterErrorDomain = "QXDiskImageMounterErrorDomain";

namespace {

constexpr const char* kSystemToolPath = "/usr/bin/hdiutil";

std::mutex toolPathMutex;
std::string chosenToolPath;  // guarded by toolPathMutex; empty: not chosen

const char* const kDiskImageTypes[] = {"dmg",     "img",     "smi",        "dsk",        "iso",  "toast",
                                       "cdr",     "dvdr",    "ndif",       "udif",       "imgpart", "dmgpart",
                                       "dc42",    "diskcopy42", "dart",    "sparseimage", "sparsebundle", "image"};

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool isDiskImageType(const std::string& extension) {
    const std::string lower = lowercased(extension);
    return std::any_of(std::begin(kDiskImageTypes), std::end(kDiskImageTypes),
                       [&](const char* type) { return lower == type; });
}

// Types, as the shared MIME database names them, of files that hold a whole
// disk or disc the tool can attach as a device: raw disks (floppies too, as
// their subclass), optical discs (and ISO-based types through theirs), the
// tool's own images, and the virtual machines' disks, under today's names and
// the VirtualBox ones older databases use. Left out on purpose: compressed
// wrappers of these (x-raw-disk-image-xz-compressed, x-compressed-iso), bare
// file-system images (squashfs), and emulators' formats that are not a block
// device's bytes (discjuggler, fds, amiga).
const char* const kDiskImageMimeTypes[] = {
    "application/x-apple-diskimage", "application/x-raw-disk-image", "application/x-cd-image",
    "application/x-qemu-disk",       "application/x-qed-disk",       "application/x-vhd-disk",
    "application/x-vhdx-disk",       "application/x-vmdk-disk",      "application/x-vdi-disk",
    "application/x-virtualbox-vhd",  "application/x-virtualbox-vhdx", "application/x-virtualbox-vmdk",
    "application/x-virtualbox-vdi"};

// A name the database cannot settle without reading the file (".vhd" is also
// VHDL source) counts when any of its candidates is an image: attaching a
// file that is not one fails cleanly, and hiding an image from the user does
// not.
bool isDiskImageByMimeType(const std::string& name) {
    if (name.empty()) return false;
    const auto database = QXSharedMimeDatabase::shared();
    for (const auto& candidate : database->typesForFileName(name))
        for (const auto& type : database->typeAndAncestors(candidate))
            for (const char* imageType : kDiskImageMimeTypes)
                if (type == database->canonicalType(imageType)) return true;
    return false;
}

// The extension of a file name as URL::pathExtension finds it.
std::string extensionOf(const std::string& name) {
    const auto dot = name.rfind('.');
    return (dot == std::string::npos || dot == 0) ? std::string() : name.substr(dot + 1);
}

} // namespace

QXDiskImageMounter::Ref QXDiskImageMounter::sharedInstance() {
    static const Ref shared = std::make_shared<QXDiskImageMounter>();
    return shared;
}

std::string QXDiskImageMounter::toolPath() {
    {
        std::lock_guard<std::mutex> lock(toolPathMutex);
        if (!chosenToolPath.empty()) return chosenToolPath;
    }
    if (const char* variable = std::getenv("QX_HDIUTIL_PATH"); variable && *variable) return variable;
    if (::access(kSystemToolPath, F_OK) == 0) return kSystemToolPath;
    return QX_HDIUTIL_INSTALLED_PATH;
}

void QXDiskImageMounter::setToolPath(std::string path) {
    std::lock_guard<std::mutex> lock(toolPathMutex);
    chosenToolPath = std::move(path);
}

qx::Ref<qx::Array> QXDiskImageMounter::diskImageTypes() const {
    auto types = qx::Array::create();
    for (const char* type : kDiskImageTypes) types->addObject(qx::str(type));
    return types;
}

bool QXDiskImageMounter::isDiskImageAtURL(const qx::Ref<qx::URL>& url) const {
    if (!url) return false;
    const std::string extension = lowercased(url->pathExtension());
    if (isDiskImageType(extension)) return true;
    const std::string name = url->lastPathComponent();
    // "archive.dmg.bin": an image saved under a download's generic name.
    if (extension == "bin" && isDiskImageType(extensionOf(name.substr(0, name.size() - 4)))) return true;
    return isDiskImageByMimeType(name);
}

// --- Attaching ----------------------------------------------------------------

qx::Ref<qx::URL> QXDiskImageMounter::attachImageAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::URL>* devEntryURL,
                                                      const LicenseHandler& licenseHandler,
                                                      const YesNoPromptHandler& yesNoPromptHandler,
                                                      qx::Ref<qx::Error>* error) const {
    qx::Ref<qx::URL> mountPoint;
    if (!attachImageAtURLWithoutMounting(url, false, &mountPoint, devEntryURL, licenseHandler, yesNoPromptHandler,
                                         error))
        return nullptr;
    return mountPoint;
}

bool QXDiskImageMounter::attachImageWithoutMountingAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::URL>* devEntryURL,
                                                         const LicenseHandler& licenseHandler,
                                                         const YesNoPromptHandler& yesNoPromptHandler,
                                                         qx::Ref<qx::Error>* error) const {
    return attachImageAtURLWithoutMounting(url, true, nullptr, devEntryURL, licenseHandler, yesNoPromptHandler, error);
}

bool QXDiskImageMounter::attachImageAtURLWithoutMounting(const qx::Ref<qx::URL>& url, bool withoutMounting,
                                                         qx::Ref<qx::URL>* mountPointURL, qx::Ref<qx::URL>* devEntryURL,
                                                         const LicenseHandler& licenseHandler,
                                                         const YesNoPromptHandler& yesNoPromptHandler,
                                                         qx::Ref<qx::Error>* error) const {
    auto info = imageInfoAtURL(url, error);
    if (!info) return false;
    auto properties = info->get<qx::Dictionary>("Properties");
    auto license = properties ? properties->get<qx::Number>("Software License Agreement") : nullptr;
    return attachImageAtURLHasLicenseAgreement(url, license && license->boolValue(), withoutMounting, mountPointURL,
                                               devEntryURL, licenseHandler, yesNoPromptHandler, error);
}

bool QXDiskImageMounter::attachImageAtURLHasLicenseAgreement(const qx::Ref<qx::URL>& url, bool hasLicenseAgreement,
                                                             bool withoutMounting, qx::Ref<qx::URL>* mountPointURL,
                                                             qx::Ref<qx::URL>* devEntryURL,
                                                             const LicenseHandler& licenseHandler,
                                                             const YesNoPromptHandler& yesNoPromptHandler,
                                                             qx::Ref<qx::Error>* error) const {
    if (mountPointURL) *mountPointURL = nullptr;
    if (devEntryURL) *devEntryURL = nullptr;
    // Schemes are compared as written: the tool knows these two spellings only.
    if (!url || (!url->isFileURL() && url->scheme() != "http" && url->scheme() != "https")) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 262, url);
        return false;
    }
    std::vector<std::string> arguments = {"attach",    "-readonly", "-nokernel",    "-plist",        "-noverify",
                                          "-nobrowse", "-noidme",   "-noautoopen", "-puppetstrings"};
    if (withoutMounting) arguments.emplace_back("-nomount");
    arguments.push_back(url->absoluteString());

    QXDiskImageToolConversation conversation(toolPath(), std::move(arguments), url, hasLicenseAgreement,
                                             licenseHandler, yesNoPromptHandler, error != nullptr);
    if (!conversation.run(error)) return false;
    auto fail = [&](qx::Ref<qx::Error> otherwise) {
        if (withoutMounting) return true;  // the lenient form: see the header
        if (error) *error = conversation.keptError() ? conversation.keptError() : std::move(otherwise);
        return false;
    };
    const auto& text = conversation.propertyList();
    if (!text || text->empty() || conversation.exitStatus() != 0)
        return fail(QXGenerateError(qx::NSCocoaErrorDomain, 256, url));

    auto plist = qx::dyn_cast<qx::Dictionary>(
        QXPropertyListSerialization::propertyListWithData(qx::Data::withString(*text), nullptr));
    auto entities = plist ? plist->get<qx::Array>("system-entities") : nullptr;
    qx::Ref<qx::URL> mountPoint;
    for (const auto& item : entities ? entities->items() : std::vector<qx::Ref<qx::Object>>{}) {
        auto entity = qx::dyn_cast<qx::Dictionary>(item);
        if (!entity) continue;
        if (auto device = entity->get<qx::String>("dev-entry"); device && devEntryURL)
            *devEntryURL = QXDevEntryURL(device->utf8());
        if (auto path = entity->get<qx::String>("mount-point")) {
            mountPoint = QXToolPathURL(path->utf8());
            break;
        }
    }
    if (!mountPoint) return fail(QXGenerateError(QXDiskImageMounterErrorDomain, 1, url));
    if (mountPointURL) *mountPointURL = mountPoint;
    return true;
}

// --- Detaching ----------------------------------------------------------------

bool QXDiskImageMounter::detachImageWithDevEntryURL(const qx::Ref<qx::URL>& devEntryURL,
                                                    qx::Ref<qx::Error>* error) const {
    if (!devEntryURL) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, EINVAL);
        return false;
    }
    QXToolRun run;
    if (!QXRunDiskImageTool(toolPath(), {"detach", devEntryURL->path()}, true, run, error)) return false;
    if (run.exitStatus == 0) return true;
    if (error) *error = errorWithStandardError(run.output);
    return false;
}

bool QXDiskImageMounter::detachImageAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error) const {
    auto devices = devEntryURLsForAttachedImageAtURL(url, error);
    if (!devices) return false;
    for (std::size_t i = 0; i < devices->count(); ++i) {
        auto device = qx::dyn_cast<qx::URL>(devices->objectAtIndex(i));
        // Detaching one device of an image detaches all of it: a later node
        // that has gone with an earlier one needs no detaching of its own.
        struct stat st {};
        if (i > 0 && device && ::stat(device->path().c_str(), &st) != 0 && errno == ENOENT) continue;
        if (!detachImageWithDevEntryURL(device, error)) return false;
    }
    return true;
}

// --- The tool's information ---------------------------------------------------------

qx::Ref<qx::Dictionary> QXDiskImageMounter::imageInfoAtURL(const qx::Ref<qx::URL>& url,
                                                           qx::Ref<qx::Error>* error) const {
    if (!url) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 262);
        return nullptr;
    }
    // An attached image is asked about through its newest device. One look
    // at the attached images answers both whether it is attached and which
    // device that is.
    qx::Ref<qx::URL> device;
    const auto& target = mountPointForAttachedImageAtURL(url, &device) && device ? device : url;
    return toolInformation(target->absoluteString(), target, error);
}

qx::Ref<qx::Dictionary> QXDiskImageMounter::globalInfoWithError(qx::Ref<qx::Error>* error) const {
    return toolInformation({}, nullptr, error);
}

qx::Ref<qx::Dictionary> QXDiskImageMounter::toolInformation(const std::string& image, const qx::Ref<qx::URL>& url,
                                                            qx::Ref<qx::Error>* error) const {
    const std::vector<std::string> arguments =
        image.empty() ? std::vector<std::string>{"info", "-plist"} : std::vector<std::string>{"imageinfo", image, "-plist"};
    QXToolRun run;
    if (!QXRunDiskImageTool(toolPath(), arguments, false, run, error)) return nullptr;
    // The tool's complaint outweighs any property list it printed first.
    if (run.errorOutput.find("hdiutil: ") != std::string::npos) {
        if (error) *error = errorWithStandardError(run.errorOutput);
        return nullptr;
    }
    qx::Ref<qx::Error> parseError;
    qx::Ref<qx::Object> plist;
    if (!run.output.empty())
        plist = QXPropertyListSerialization::propertyListWithData(qx::Data::withString(run.output), nullptr, &parseError);
    auto dictionary = qx::dyn_cast<qx::Dictionary>(plist);
    if (!dictionary && error) *error = parseError ? parseError : QXGenerateError(qx::NSCocoaErrorDomain, 256, url);
    return dictionary;
}

qx::Ref<qx::Error> QXDiskImageMounter::errorWithStandardError(const std::string& standardError) const {
    const auto at = standardError.find("hdiutil: ");
    if (at == std::string::npos)
        return QXGenerateError(QXErrorDomain, -1, nullptr, nullptr, nullptr, "%@", QXDecodedToolText(standardError));
    const std::string message = QXTrimmed(standardError.substr(at + 9));
    const bool busy = message.size() >= 13 && message.compare(message.size() - 13, 13, "Resource busy") == 0;
    return QXGenerateError(busy ? qx::NSPOSIXErrorDomain : QXErrorDomain, busy ? EBUSY : -1, nullptr, nullptr, nullptr,
                           "%@", QXDecodedToolText(message));
}
