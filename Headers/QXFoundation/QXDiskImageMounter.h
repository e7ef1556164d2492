// QXDiskImageMounter.h - attaching, inspecting and detaching disk images
// through the system's disk-image tool.
//
// Every operation runs the disk-image tool as a child process and reads the
// property list it prints. Attaching is a conversation on a pseudo-terminal:
// the tool's console (its standard input and error) is the terminal, its
// standard output a pipe. A licence agreement and any yes/no question the
// tool asks are put to the application's callbacks, on the calling thread,
// and answered on the terminal. Every operation waits for its child to end
// before it returns; no child is left running or unreaped, also when a
// callback throws.
//
// The tool, in this order of precedence:
//  1. the path given to setToolPath (an empty path clears it);
//  2. the environment variable QX_HDIUTIL_PATH, when set and not empty (for
//     tests and packagers);
//  3. /usr/bin/hdiutil, when that file exists;
//  4. the Linux disk-image tool installed with the library
//     (<libexecdir>/qxfoundation/hdiutil).
//
// Results and errors: functions returning a URL or a container give nothing
// on failure, booleans false; the error, when asked for, is written only on
// failure. The tool's one-line complaints ("hdiutil: attach failed - ...")
// become QXErrorDomain -1 errors whose description is the complaint, except
// "Resource busy", which is NSPOSIXErrorDomain 16.
//
// Names: the four attach forms would clash as C++ overloads, so each carries
// the keyword that tells it apart: attachImageAtURL (mount point returned),
// attachImageWithoutMountingAtURL, attachImageAtURLWithoutMounting (both
// outputs) and attachImageAtURLHasLicenseAgreement (the worker).
//
// Thread-safe: the mounter keeps no state, so calls from several threads run
// at once, each with its own child.
#pragma once

#include <QXFoundation/QXRef.h>

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/String.h>
#include <qx/URL.h>

#include <functional>
#include <string>

/// "QXDiskImageMounterErrorDomain". Its only code, 1: the image is not
/// attached, or attached without a mount point where one was needed.
extern const char* const QXDiskImageMounterErrorDomain;

class QXDiskImageMounter final : public qx::Object {
public:
    using Ref = qx::Ref<QXDiskImageMounter>;
    /// Shown the agreement text; true accepts it.
    using LicenseHandler = std::function<bool(const qx::Ref<qx::String>& agreement)>;
    /// Shown the tool's output and console texts (question marks and "Y/N"
    /// removed); true answers yes.
    using YesNoPromptHandler = std::function<bool(const qx::Ref<qx::String>& output, const qx::Ref<qx::String>& console)>;

    /// Keys of an attached-image record (currentlyAttachedImagesWithError).
    static constexpr const char* kRefKey = "QXRef";                // a QXRef to the image file
    static constexpr const char* kPartitionsKey = "Partitions";    // array of partition dictionaries
    static constexpr const char* kMountPointURLKey = "MountPointURL";  // file URL of a mount point
    static constexpr const char* kDevEntryURLKey = "DevEntryURL";      // file URL of a device node

    /// The one mounter, made on first use.
    static Ref sharedInstance();

    /// The tool's path, chosen as listed above.
    static std::string toolPath();
    /// Makes every later operation run the program at path; empty: back to
    /// the environment and the defaults.
    static void setToolPath(std::string path);

    /// Lower-case file extensions of disk images: "dmg", "img", "smi", ...
    qx::Ref<qx::Array> diskImageTypes() const;
    /// True when url's last extension, in any case, is a disk-image type, or
    /// is "bin" after one ("archive.dmg.bin"); else, where the desktop's shared
    /// MIME database is installed, when the type its globs give the name is a
    /// disk or disc image, or a subclass of one (raw, CD/DVD, the tool's own,
    /// and virtual machines' disks: qcow, qed, vhd, vhdx, vmdk, vdi). Only the
    /// name is looked at: the file is not opened, and need not exist. The
    /// database is read once per process, on the first call that needs it.
    bool isDiskImageAtURL(const qx::Ref<qx::URL>& url) const;

    // --- Attaching ----------------------------------------------------------
    // url: a file URL, or an http or https URL that the tool reads itself.
    // The device URL reported is the last device the tool named before the
    // mount point (the device of the mounted file system).

    /// Attaches and mounts; the mount point, and the device through
    /// devEntryURL when given. Nothing on failure, also for an image attached
    /// without any mount point (QXDiskImageMounterErrorDomain 1).
    qx::Ref<qx::URL> attachImageAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::URL>* devEntryURL,
                                      const LicenseHandler& licenseHandler,
                                      const YesNoPromptHandler& yesNoPromptHandler,
                                      qx::Ref<qx::Error>* error = nullptr) const;
    /// Attaches without mounting (see attachImageAtURLHasLicenseAgreement).
    bool attachImageWithoutMountingAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::URL>* devEntryURL,
                                         const LicenseHandler& licenseHandler,
                                         const YesNoPromptHandler& yesNoPromptHandler,
                                         qx::Ref<qx::Error>* error = nullptr) const;
    /// Asks the tool whether the image carries a licence agreement
    /// (imageInfoAtURL, failing with its error), then attaches.
    bool attachImageAtURLWithoutMounting(const qx::Ref<qx::URL>& url, bool withoutMounting,
                                         qx::Ref<qx::URL>* mountPointURL, qx::Ref<qx::URL>* devEntryURL,
                                         const LicenseHandler& licenseHandler,
                                         const YesNoPromptHandler& yesNoPromptHandler,
                                         qx::Ref<qx::Error>* error = nullptr) const;
    /// The worker. With hasLicenseAgreement, the first question of the
    /// conversation goes to licenseHandler, later ones to yesNoPromptHandler;
    /// a missing handler answers no. An unknown URL scheme fails with Cocoa
    /// 262; a declined question with Cocoa 3072; a tool that complains on its
    /// console with QXErrorDomain -1 and its complaint; a tool that ends
    /// without a property list or with a non-zero status with Cocoa 256.
    /// Attaching without mounting succeeds once the tool has run, even when
    /// it failed: the deliberately lenient form, whose callers learn whether
    /// anything was attached only from devEntryURL (left empty then).
    bool attachImageAtURLHasLicenseAgreement(const qx::Ref<qx::URL>& url, bool hasLicenseAgreement,
                                             bool withoutMounting, qx::Ref<qx::URL>* mountPointURL,
                                             qx::Ref<qx::URL>* devEntryURL, const LicenseHandler& licenseHandler,
                                             const YesNoPromptHandler& yesNoPromptHandler,
                                             qx::Ref<qx::Error>* error = nullptr) const;

    // --- Detaching ----------------------------------------------------------

    /// Detaches the device (a file URL of its node); see errorWithStandardError.
    bool detachImageWithDevEntryURL(const qx::Ref<qx::URL>& devEntryURL, qx::Ref<qx::Error>* error = nullptr) const;
    /// Detaches every device of the attached image, in order, stopping at the
    /// first failure.
    bool detachImageAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error = nullptr) const;

    // --- What is attached ----------------------------------------------------

    /// True when the image has at least one mounted device (errors count as no).
    bool isDiskImageAttachedAtURL(const qx::Ref<qx::URL>& url) const;
    /// Of the image's mounted devices, the one whose node changed last (the
    /// newest attachment; the first when no node's date can be read): its
    /// mount point, and its device through devEntryURL. Cocoa 4 when none,
    /// with what stopped the search (not attached, unreachable) underneath.
    qx::Ref<qx::URL> mountPointForAttachedImageAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::URL>* devEntryURL,
                                                     qx::Ref<qx::Error>* error = nullptr) const;
    /// Every mount point of the image, and the devices in the same order.
    /// A file URL must be reachable; QXDiskImageMounterErrorDomain 1 when the
    /// image has no mounted device.
    qx::Ref<qx::Array> mountPointsForAttachedImageAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Array>* devEntryURLs,
                                                        qx::Ref<qx::Error>* error = nullptr) const;
    /// The device URLs of mountPointsForAttachedImageAtURL alone.
    qx::Ref<qx::Array> devEntryURLsForAttachedImageAtURL(const qx::Ref<qx::URL>& url,
                                                         qx::Ref<qx::Error>* error = nullptr) const;
    /// One record per image the tool reports attached (keys above); only
    /// devices with a mount point are listed as partitions.
    qx::Ref<qx::Array> currentlyAttachedImagesWithError(qx::Ref<qx::Error>* error = nullptr) const;

    // --- The tool's information ------------------------------------------------

    /// The tool's description of the image ("Format", "Properties", ...). For
    /// an image attached already, the description of its newest device.
    qx::Ref<qx::Dictionary> imageInfoAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error = nullptr) const;
    /// The tool's list of attached images ("images", ...).
    qx::Ref<qx::Dictionary> globalInfoWithError(qx::Ref<qx::Error>* error = nullptr) const;
    /// The error for the tool's error output: the text after "hdiutil: "
    /// (trimmed) as QXErrorDomain -1, or NSPOSIXErrorDomain 16 when it ends
    /// with "Resource busy"; without "hdiutil: ", the whole text as the message.
    qx::Ref<qx::Error> errorWithStandardError(const std::string& standardError) const;

    std::string className() const override { return "QXDiskImageMounter"; }

    QXDiskImageMounter() = default;

private:
    qx::Ref<qx::Dictionary> toolInformation(const std::string& verb, const qx::Ref<qx::URL>& url,
                                            qx::Ref<qx::Error>* error) const;
};
