// AttachCommand.cpp - `hdiutil attach`.
//
// The order matters for what is left behind on failure: the licence is asked
// before anything is decoded or attached; decoding happens before a loop
// device exists; and an attach that mounts nothing (when mounting was asked
// for) detaches its loop device again before it fails.
#include "AttachCommand.h"

#include "FuseMounts.h"
#include "ImageCache.h"
#include "ImageLocation.h"
#include "ImageRecords.h"
#include "LicensePrompt.h"
#include "PlistOutput.h"
#include "SystemEntities.h"
#include "ToolFailure.h"

#include <QXFoundation/QXDiskImage.h>

#include <qx/BlockDeviceProvider.h>
#include <qx/Dictionary.h>
#include <qx/UniqueFd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace hdiutil {

namespace {

constexpr const char* kVerb = "attach";

std::atomic<int> gSignal{0};

extern "C" void noteAttachSignal(int signal) { gSignal.store(signal); }

// An interrupt during decoding stops it cleanly (the cache keeps no partial
// file); once a loop device exists the attach is finished instead.
void installSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = noteAttachSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGHUP, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

// PERCENT lines on standard output, only when it carries no property list.
class PuppetProgress {
public:
    explicit PuppetProgress(bool enabled) : enabled_(enabled) {}
    void indeterminate() { print(-1.0); }
    bool update(std::uint64_t done, std::uint64_t total) {
        if (total > 0) {
            const double percent = static_cast<double>(done) * 100.0 / static_cast<double>(total);
            if (percent >= last_ + 1.0 || done == total) print(percent);
        }
        return gSignal.load() == 0;
    }

private:
    void print(double percent) {
        last_ = percent;
        if (enabled_) {
            std::printf("PERCENT:%.6f\n", percent);
            std::fflush(stdout);
        }
    }
    bool enabled_;
    double last_ = -1.0;
};

// Mounts each unmounted file system of the image read-only at the service's
// default place, or through a FUSE helper where the kernel refuses it; one
// that neither can mount stays unmounted. The count of mounted ones (those
// mounted already included).
std::size_t mountFileSystems(qx::BlockDeviceProvider& provider, const std::vector<qx::BlockDeviceDescription>& devices) {
    std::size_t mounted = 0;
    for (const auto& d : devices) {
        if (!d.filesystem) continue;
        if (!d.filesystem->mountPoints.empty() || provider.mount(d.name, "", "ro").succeeded() ||
            !mountWithHelper(d, devices.front()).empty())
            ++mounted;
    }
    return mounted;
}

} // namespace

int runAttach(const ToolArguments& arguments) {
    installSignalHandlers();
    std::string reason;
    const auto location = locateImage(arguments.operand, reason);
    if (!location) return fail(kVerb, reason);
    qx::Ref<qx::Error> error;
    const auto image = QXDiskImage::imageWithContentsOfURL(location->url, &error);
    if (!image) return fail(kVerb, reasonFromError(error));
    if (image->size() < 512) return fail(kVerb, "image not recognized");

    if (image->hasLicenseAgreement()) {
        const auto text = image->licenseAgreement();
        if (!askToAcceptLicense(text ? *text : std::string())) return failWithLine("attach canceled");
    }

    PuppetProgress progress(arguments.puppetStrings && !arguments.plist);
    progress.indeterminate();
    std::string backing = location->path;
    const bool decoded = location->isRemote() || image->isUDIF();
    if (decoded) {
        backing = ImageCache::decodedFile(
            *image, *location, [&progress](std::uint64_t done, std::uint64_t total) { return progress.update(done, total); },
            reason);
        if (const int signal = gSignal.load()) return 128 + signal;
        if (backing.empty()) return fail(kVerb, reason);
        // Without the record, listings name the cache file: worth no failure.
        if (rememberImage(backing, location->name()) == 0) dropStaleDecodings(location->name(), backing);
    }

    const auto provider = qx::BlockDeviceProvider::systemProvider();
    qx::UniqueFd fd(::open(backing.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return fail(kVerb, std::strerror(errno));
    qx::LoopSetupOptions options;
    options.readOnly = true;
    const auto loop = provider->loopSetup(fd.get(), options);
    if (!loop.succeeded()) return fail(kVerb, loop.message.empty() ? loop.errorName : loop.message);
    fd.reset();
    const std::string disk = loop.result;

    auto devices = imageDevices(disk);
    if (!arguments.noMount) {
        if (mountFileSystems(*provider, devices) == 0) {
            provider->loopDelete(disk);
            return fail(kVerb, "no mountable file systems");
        }
        devices = imageDevices(disk);
    }
    const auto entities = systemEntities(devices, image->partitions());
    if (arguments.plist) {
        auto root = qx::Dictionary::create();
        root->setObject(entities, "system-entities");
        if (!printPropertyList(root, reason)) return fail(kVerb, reason);
    } else if (!printText(entitiesText(entities), reason)) {
        return fail(kVerb, reason);
    }
    return 0;
}

} // namespace hdiutil
