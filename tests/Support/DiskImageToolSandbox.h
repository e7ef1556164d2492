// DiskImageToolSandbox.h - the Linux disk-image tool confined to one test's
// folder, and small disks to attach with it.
//
// The tool keeps its decoded images and its records in the sandbox's folder
// (QXFOUNDATION_IMAGE_CACHE, QXFOUNDATION_HDIUTIL_RUNTIME), so whatever a test
// attached can be found afterwards by the loop devices' backing files, and
// the folder going takes the cache with it. sweep() detaches what is left and
// says what it found: a test that passed leaves nothing.
#pragma once

#include "LoopDevices.h"

#include <QXFoundation/QXDiskImage.h>
#include <QXFoundation/QXDiskImageWriter.h>

#include <optional>
#include <set>

namespace qxtest {

class DiskImageToolSandbox {
public:
    // In a folder of its own, removed with the sandbox.
    DiskImageToolSandbox() : owned_(std::in_place, "qx-hdiutil"), dir_(owned_->path()) {}
    // In folder, which the caller owns.
    explicit DiskImageToolSandbox(std::filesystem::path folder) : dir_(std::move(folder)) {}
    DiskImageToolSandbox(const DiskImageToolSandbox&) = delete;
    DiskImageToolSandbox& operator=(const DiskImageToolSandbox&) = delete;

    const std::filesystem::path& dir() const { return dir_; }

    // The tool's variables: its folders in the sandbox; a thread-sanitized
    // tool exits with its decode workers still parked.
    std::vector<std::pair<std::string, std::string>> environment() const {
        const char* tsan = std::getenv("TSAN_OPTIONS");
        return {{"QXFOUNDATION_IMAGE_CACHE", dir_ / "cache"},
                {"QXFOUNDATION_HDIUTIL_RUNTIME", dir_ / "run"},
                {"TSAN_OPTIONS", std::string(tsan ? tsan : "") + ":report_thread_leaks=0"}};
    }

    // An 8 MiB ext4 disk (with gpt, two 3 MiB ext4 partitions) whose file
    // systems each hold file.txt with these contents.
    std::string ext4Image(const std::string& name, const std::string& contents, bool gpt = false) const {
        const std::string source = tree(contents), path = dir_ / name;
        std::string command = "truncate -s 8M " + path;
        if (gpt)
            command += " && printf 'label: gpt\\nstart=2048, size=6144\\nstart=8192, size=6144\\n' | sfdisk -q " + path +
                       " && mkfs.ext4 -q -F -E offset=1048576 -d " + source + " " + path + " 3M && mkfs.ext4 -q -F -E offset=4194304 -d " +
                       source + " " + path + " 3M";
        else
            command += " && mkfs.ext4 -q -F -d " + source + " " + path;
        run(command);
        return path;
    }

    // A squashfs file system holding file.txt with these contents, padded to whole sectors.
    std::string squashfsImage(const std::string& name, const std::string& contents) const {
        const std::string path = dir_ / name;
        run("mksquashfs " + tree(contents) + " " + path + " -quiet -noappend -no-progress && truncate -s %4096 " + path);
        return path;
    }

    // An ISO 9660 image labelled label holding file.txt with these contents.
    std::string isoImage(const std::string& name, const std::string& label, const std::string& contents) const {
        const std::string path = dir_ / name;
        run("xorriso -as mkisofs -quiet -V " + label + " -o " + path + " " + tree(contents) + " 2>&1");
        return path;
    }

    // An empty APFS container: 128 MiB is the least the maker accepts, sparse on disk.
    std::string apfsImage(const std::string& name) const {
        const std::string path = dir_ / name;
        run("truncate -s 128M " + path + " && mkapfs " + path + " 2>&1");
        return path;
    }

    // The first of programs not on the path, as a reason to skip; empty when all are.
    static std::string missingPrograms(const std::vector<const char*>& programs) {
        for (const char* program : programs)
            if (std::system(("command -v " + std::string(program) + " >/dev/null").c_str()) != 0)
                return std::string(program) + " is missing (scripts/setup.sh installs it)";
        return {};
    }

    // raw written again as a UDIF image of that format, with a licence if given.
    static std::string udif(const std::string& raw, QXDiskImageFormat format, const std::optional<std::string>& license = {}) {
        auto writer = QXDiskImageWriter::writerWithFormat(format);
        EXPECT_TRUE(writer->setLicenseAgreement(license));
        auto source = QXDiskImage::imageWithContentsOfURL(qx::URL::fileURLWithPath(raw));
        EXPECT_TRUE(source && writer->writeImage(*source, raw + ".dmg"));
        return raw + ".dmg";
    }

    // Loop devices on files of the sandbox (images and decoded copies).
    std::vector<std::string> loopDevices() const {
        std::vector<std::string> devices;
        for (const auto& entry : std::filesystem::directory_iterator("/sys/block")) {
            const std::string backing = readFile(entry.path() / "loop" / "backing_file");
            if (backing.rfind(dir_.string() + "/", 0) == 0) devices.push_back(entry.path().filename());
        }
        return devices;
    }

    // Everything the tool left: FUSE mounts it recorded, loop devices with
    // their mounts, and the folders of mountPoints (those the test saw). All
    // of it is removed; what was found is returned, one per line, except the
    // devices (and their FUSE mounts) the test left attached on purpose.
    std::string sweep(const std::set<std::string>& mountPoints = {}, const std::vector<std::string>& leftOnPurpose = {}) const {
        const auto onPurpose = [&leftOnPurpose](const std::string& device) {
            return std::find(leftOnPurpose.begin(), leftOnPurpose.end(), device) != leftOnPurpose.end();
        };
        std::string found;
        std::error_code ignored;
        for (const auto& record : std::filesystem::directory_iterator(dir_ / "run", ignored)) {
            // fuse-DEVICE-SEQUENCE: one "name TAB mount point" line per FUSE mount.
            const std::string name = record.path().filename();
            const bool quiet = name.rfind("fuse-", 0) == 0 && onPurpose(name.substr(5, name.rfind('-') - 5));
            std::ifstream lines(record.path());
            for (std::string line; std::getline(lines, line);) {
                const auto tab = line.find('\t');
                if (tab == std::string::npos) continue;
                const std::string point = line.substr(tab + 1);
                if (::umount2(point.c_str(), MNT_DETACH) == 0 && !quiet) found += "FUSE mount " + point + "\n";
                ::rmdir(point.c_str());
            }
        }
        // Only devices still on the sandbox's files: a number detached already may be someone else's now.
        for (const auto& device : loopDevices())
            if (onPurpose(device)) LoopDevices::detach(device);
        // A detach while a prober has the device open completes at its last close.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        std::vector<std::string> left;
        while (!(left = loopDevices()).empty() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        for (const auto& device : left) {
            found += "loop device " + device + "\n";
            LoopDevices::detach(device);
        }
        for (const auto& point : mountPoints)
            if (std::filesystem::exists(point)) {
                found += "folder " + point + "\n";
                ::rmdir(point.c_str());
            }
        return found;
    }

private:

    std::string tree(const std::string& contents) const {
        const std::filesystem::path source = dir_ / ("tree-" + std::to_string(trees_++));
        std::filesystem::create_directories(source);
        writeFile(source / "file.txt", contents);
        return source;
    }

    static void run(const std::string& command) { EXPECT_EQ(std::system((command + " >/dev/null").c_str()), 0) << command; }

    std::optional<TempDir> owned_;
    std::filesystem::path dir_;
    mutable int trees_ = 0;
};

} // namespace qxtest
