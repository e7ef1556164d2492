// ToolArguments.cpp - the tool's command lines.
#include "ToolArguments.h"

#include <algorithm>
#include <iterator>

namespace hdiutil {

namespace {

struct VerbSpec {
    const char* name;
    Verb verb;
    bool needsOperand;
    std::vector<std::string> flags;
};

const std::vector<VerbSpec>& verbs() {
    static const std::vector<VerbSpec> table = {
        {"attach", Verb::Attach, true,
         {"-readonly", "-nokernel", "-kernel", "-plist", "-noverify", "-nobrowse", "-noidme", "-noautoopen", "-puppetstrings",
          "-nomount", "-quiet"}},
        {"detach", Verb::Detach, true, {"-force", "-quiet"}},
        {"eject", Verb::Detach, true, {"-force", "-quiet"}},
        {"info", Verb::Info, false, {"-plist"}},
        {"imageinfo", Verb::ImageInfo, true, {"-plist"}},
        {"help", Verb::Help, false, {}},
    };
    return table;
}

} // namespace

bool parseArguments(const std::vector<std::string>& words, ToolArguments& arguments, std::string& reason) {
    arguments = {};
    if (words.empty()) return true;
    arguments.verbName = words.front();
    const auto spec = std::find_if(verbs().begin(), verbs().end(), [&](const VerbSpec& v) { return words.front() == v.name; });
    if (spec == verbs().end()) {
        reason = "unknown verb \"" + words.front() + "\"";
        return false;
    }
    arguments.verb = spec->verb;
    for (auto word = std::next(words.begin()); word != words.end(); ++word) {
        if (word->size() > 1 && word->front() == '-') {
            if (std::find(spec->flags.begin(), spec->flags.end(), *word) == spec->flags.end()) {
                reason = "unknown option " + *word;
                return false;
            }
            arguments.plist = arguments.plist || *word == "-plist";
            arguments.puppetStrings = arguments.puppetStrings || *word == "-puppetstrings";
            arguments.noMount = arguments.noMount || *word == "-nomount";
            arguments.force = arguments.force || *word == "-force";
        } else if (spec->needsOperand && arguments.operand.empty() && !word->empty()) {
            arguments.operand = *word;
        } else {
            reason = "unexpected argument \"" + *word + "\"";
            return false;
        }
    }
    if (spec->needsOperand && arguments.operand.empty()) {
        reason = std::string(spec->verb == Verb::Detach ? "a device" : "an image") + " is required";
        return false;
    }
    return true;
}

std::string usageText() {
    return "Usage: hdiutil VERB [options]\n"
           "\n"
           "  attach [-plist] [-nomount] [-puppetstrings] [-readonly] [-nokernel] [-noverify]\n"
           "         [-nobrowse] [-noidme] [-noautoopen] IMAGE\n"
           "      Attaches IMAGE (a path, a file:// URL, or an http or https URL read by\n"
           "      ranges) as a read-only loop device and mounts each file system the\n"
           "      kernel can mount, read-only, under /run/media/USER (FAT, ISO 9660 and\n"
           "      APFS through fusefat, fuseiso and fsapfsmount where the kernel cannot and\n"
           "      they are installed). Raw images\n"
           "      (.iso, .img, .cdr) are attached as they are. UDIF images (.dmg) and\n"
           "      remote images are decoded once into a sparse file in a cache folder\n"
           "      (/var/cache/qxfoundation/images as root, else\n"
           "      $XDG_CACHE_HOME/qxfoundation/images; QXFOUNDATION_IMAGE_CACHE\n"
           "      overrides) and that file is attached; it is used again while the image\n"
           "      is unchanged, and dropped once the image has changed and nothing reads it.\n"
           "      After each attach through it the cache is trimmed to 4 GiB of disk space\n"
           "      (QXFOUNDATION_IMAGE_CACHE_LIMIT, in bytes, overrides): least recently used\n"
           "      files go first; files a loop device reads, or used in the last minute,\n"
           "      stay. Leftovers of decodes cut off over 15 minutes ago are removed too.\n"
           "      An image with a licence agreement shows it and asks \"Agree Y/N?\" first.\n"
           "      -plist prints the attached devices as a property list; -nomount attaches\n"
           "      without mounting; -puppetstrings prints PERCENT:<value> progress lines\n"
           "      (not with -plist, whose output is the property list alone).\n"
           "  detach [-force] DEVICE\n"
           "      Unmounts every file system of the image holding DEVICE (/dev/loop3,\n"
           "      loop3, or one of its partitions) and detaches it. A file system in use\n"
           "      leaves everything attached and exits 16 (-force unmounts it anyway).\n"
           "  info [-plist]\n"
           "      Lists the attached images: the image behind every loop device (the\n"
           "      original image for decoded cache files) and its devices.\n"
           "  imageinfo [-plist] IMAGE\n"
           "      Prints an image's format, sizes, checksum and partitions; IMAGE may also\n"
           "      be a device attached from an image.\n"
           "  help\n"
           "      Prints this text.\n"
           "\n"
           "Failures are one line, \"hdiutil: VERB failed - REASON\", on standard error.\n";
}

} // namespace hdiutil
