// QXSharedMimeDatabase.cpp - reading the database's compiled files and
// matching names against its globs.
#include "QXSharedMimeDatabase.h"

#include <qx/UniqueFd.h>

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <mutex>

namespace {

// One reading of the environment's folders; a reset starts a new one, so
// call_once keeps its job (one load, every other caller waiting for it)
// without a flag that would have to be re-armed.
struct Generation {
    std::once_flag once;
    std::shared_ptr<const QXSharedMimeDatabase> database;
};
std::mutex generationMutex;
std::shared_ptr<Generation> currentGeneration;  // guarded by generationMutex

constexpr std::size_t kMaxAncestors = 256;

char foldASCII(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string folded(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), foldASCII);
    return out;
}

bool hasWildcard(std::string_view pattern) { return pattern.find_first_of("*?[") != std::string_view::npos; }

// "media/subtype": one slash, something on each side, nothing that would
// split a line of these files differently.
bool isTypeName(std::string_view type) {
    const auto slash = type.find('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 1 == type.size()) return false;
    if (type.find('/', slash + 1) != std::string_view::npos) return false;
    return std::none_of(type.begin(), type.end(), [](char c) {
        return c == ':' || static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) == 0x7f;
    });
}

std::vector<std::string_view> split(std::string_view line, char separator) {
    std::vector<std::string_view> fields;
    for (std::size_t start = 0;;) {
        const auto end = line.find(separator, start);
        fields.push_back(line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return fields;
        start = end + 1;
    }
}

// Calls take with each line of a regular file that is neither empty, a
// comment, nor over the line cap, until take has accepted the entry cap. A
// line cut off by the size cap is dropped rather than read as a shorter one.
void forEachLine(const std::string& path, const std::function<bool(std::string_view)>& take) {
    qx::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    std::string text(std::min<std::size_t>(static_cast<std::size_t>(st.st_size), QXSharedMimeDatabase::kMaxFileBytes),
                     '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t n = ::read(fd.get(), text.data() + filled, text.size() - filled);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        filled += static_cast<std::size_t>(n);
    }
    text.resize(filled);
    const bool whole = filled == static_cast<std::size_t>(st.st_size);
    std::size_t accepted = 0;
    for (std::size_t start = 0; start < text.size() && accepted < QXSharedMimeDatabase::kMaxEntriesPerFile;) {
        const auto end = text.find('\n', start);
        if (end == std::string::npos && !whole) return;
        std::string_view line(text.data() + start, (end == std::string::npos ? text.size() : end) - start);
        start = end == std::string::npos ? text.size() : end + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty() || line.front() == '#' || line.size() > QXSharedMimeDatabase::kMaxLineBytes) continue;
        if (take(line)) ++accepted;
    }
}

// A weight as the files write it: a decimal from 0 to 100.
bool parseWeight(std::string_view text, int& weight) {
    if (text.empty() || text.size() > 3) return false;
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value > 100) return false;
    weight = value;
    return true;
}

// Two names separated by one space, as aliases and subclasses write them.
bool parsePair(std::string_view line, std::string_view& first, std::string_view& second) {
    const auto fields = split(line, ' ');
    if (fields.size() != 2 || !isTypeName(fields[0]) || !isTypeName(fields[1])) return false;
    first = fields[0];
    second = fields[1];
    return true;
}

std::string absoluteOrEmpty(const char* path) { return (path && *path == '/') ? std::string(path) : std::string(); }

} // namespace

std::shared_ptr<const QXSharedMimeDatabase> QXSharedMimeDatabase::shared() {
    std::shared_ptr<Generation> generation;
    {
        std::lock_guard<std::mutex> lock(generationMutex);
        if (!currentGeneration) currentGeneration = std::make_shared<Generation>();
        generation = currentGeneration;
    }
    std::call_once(generation->once, [&] { generation->database = loadFolders(searchFolders()); });
    return generation->database;
}

void QXSharedMimeDatabase::resetShared() {
    std::lock_guard<std::mutex> lock(generationMutex);
    currentGeneration.reset();
}

std::vector<std::string> QXSharedMimeDatabase::searchFolders() {
    std::vector<std::string> bases;
    std::string home = absoluteOrEmpty(std::getenv("XDG_DATA_HOME"));
    if (home.empty()) {
        if (const std::string user = absoluteOrEmpty(std::getenv("HOME")); !user.empty()) home = user + "/.local/share";
    }
    if (!home.empty()) bases.push_back(home);
    const char* dirs = std::getenv("XDG_DATA_DIRS");
    for (std::string_view entry : split((dirs && *dirs) ? dirs : "/usr/local/share:/usr/share", ':'))
        if (!entry.empty() && entry.front() == '/') bases.emplace_back(entry);

    std::vector<std::string> folders;
    for (auto& base : bases) {
        while (base.size() > 1 && base.back() == '/') base.pop_back();
        std::string folder = base + "/mime";
        // A folder named twice would have its own __NOGLOBS__ hide its own globs the second time.
        if (std::find(folders.begin(), folders.end(), folder) == folders.end()) folders.push_back(std::move(folder));
    }
    return folders;
}

std::shared_ptr<const QXSharedMimeDatabase> QXSharedMimeDatabase::loadFolders(const std::vector<std::string>& folders) {
    auto database = std::make_shared<QXSharedMimeDatabase>();
    // Aliases first: every glob and parent is kept under its canonical name.
    for (const auto& folder : folders) database->readAliases(folder);
    for (const auto& folder : folders) database->readSubclasses(folder);
    std::set<std::string> hidden;
    for (const auto& folder : folders) {
        std::set<std::string> hiddenHere;
        database->readGlobs(folder, hiddenHere, hidden);
        hidden.insert(hiddenHere.begin(), hiddenHere.end());
    }
    return database;
}

void QXSharedMimeDatabase::readAliases(const std::string& folder) {
    forEachLine(folder + "/aliases", [&](std::string_view line) {
        std::string_view alias, target;
        if (!parsePair(line, alias, target) || alias == target) return false;
        aliases_.emplace(alias, target);  // an earlier folder's word stands
        return true;
    });
}

void QXSharedMimeDatabase::readSubclasses(const std::string& folder) {
    forEachLine(folder + "/subclasses", [&](std::string_view line) {
        std::string_view type, parent;
        if (!parsePair(line, type, parent)) return false;
        auto& parents = parents_[canonicalType(type)];
        std::string canonicalParent = canonicalType(parent);
        if (std::find(parents.begin(), parents.end(), canonicalParent) == parents.end())
            parents.push_back(std::move(canonicalParent));
        return true;
    });
}

void QXSharedMimeDatabase::readGlobs(const std::string& folder, std::set<std::string>& hiddenTypes,
                                     const std::set<std::string>& hiddenBefore) {
    forEachLine(folder + "/globs2", [&](std::string_view line) {
        const auto fields = split(line, ':');
        int weight = 0;
        if (fields.size() < 3 || !parseWeight(fields[0], weight) || !isTypeName(fields[1]) || fields[2].empty())
            return false;
        std::string type = canonicalType(fields[1]);
        if (hiddenBefore.count(type)) return false;
        if (fields[2] == "__NOGLOBS__") {
            hiddenTypes.insert(std::move(type));
            return true;
        }
        bool caseSensitive = false;
        if (fields.size() > 3)
            for (std::string_view flag : split(fields[3], ','))
                caseSensitive = caseSensitive || flag == "cs";
        const std::string_view pattern = fields[2];
        Glob glob{caseSensitive ? std::string(pattern) : folded(pattern), std::move(type), weight, caseSensitive};
        if (!hasWildcard(pattern))
            literals_.push_back(std::move(glob));
        else if (pattern.front() == '*' && !hasWildcard(pattern.substr(1)))
            suffixes_.push_back(std::move(glob));
        else
            globs_.push_back(std::move(glob));
        return true;
    });
}

std::string QXSharedMimeDatabase::canonicalType(std::string_view type) const {
    // One step only, as the files mean it; a chain or a loop planted in them ends here.
    const auto it = aliases_.find(type);
    return it == aliases_.end() ? std::string(type) : it->second;
}

std::vector<std::string> QXSharedMimeDatabase::typesForFileName(std::string_view name) const {
    const std::string lowerName = folded(name);
    auto best = [&](const std::vector<Glob>& kind, const std::function<bool(const Glob&, std::string_view)>& matches) {
        std::vector<std::string> types;
        int bestWeight = -1;
        std::size_t bestLength = 0;
        for (const auto& glob : kind) {
            if (!matches(glob, glob.caseSensitive ? name : std::string_view(lowerName))) continue;
            const std::size_t length = glob.pattern.size();
            if (glob.weight < bestWeight || (glob.weight == bestWeight && length < bestLength)) continue;
            if (glob.weight > bestWeight || length > bestLength) types.clear();
            bestWeight = glob.weight;
            bestLength = length;
            if (std::find(types.begin(), types.end(), glob.type) == types.end()) types.push_back(glob.type);
        }
        return types;
    };
    if (auto types = best(literals_, [](const Glob& g, std::string_view n) { return n == g.pattern; }); !types.empty())
        return types;
    if (auto types = best(suffixes_, [](const Glob& g, std::string_view n) {
            const std::string_view suffix = std::string_view(g.pattern).substr(1);
            return n.size() >= suffix.size() && n.substr(n.size() - suffix.size()) == suffix;
        });
        !types.empty())
        return types;
    const std::string nameText(name);
    return best(globs_, [&](const Glob& g, std::string_view) {
        return ::fnmatch(g.pattern.c_str(), nameText.c_str(), g.caseSensitive ? 0 : FNM_CASEFOLD) == 0;
    });
}

std::vector<std::string> QXSharedMimeDatabase::typeAndAncestors(std::string_view type) const {
    std::vector<std::string> found{canonicalType(type)};
    // Breadth first, each type once: the files may say A is a B and B is an A.
    for (std::size_t next = 0; next < found.size() && found.size() < kMaxAncestors; ++next) {
        const auto it = parents_.find(found[next]);
        if (it == parents_.end()) continue;
        for (const auto& parent : it->second)
            if (std::find(found.begin(), found.end(), parent) == found.end() && found.size() < kMaxAncestors)
                found.push_back(parent);
    }
    return found;
}
