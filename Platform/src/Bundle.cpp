// Bundle.cpp - resource lookup over a compiled-in table and an override directory.
#include <qx/Bundle.h>
#include <qx/StringsFile.h>

#include <unicode/locid.h>

#include <cstdio>
#include <sys/stat.h>

namespace qx {

namespace {

bool isDirectory(const std::string& path) {
    struct stat st;
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The whole of a regular file, or nothing.
Ref<Data> readFile(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return nullptr;
    auto data = Data::create();
    unsigned char buf[16384];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data->append(buf, n);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    return failed ? nullptr : data;
}

std::string joinPath(std::string_view a, std::string_view b) {
    if (a.empty()) return std::string(b);
    if (b.empty()) return std::string(a);
    std::string s(a);
    if (s.back() != '/') s += '/';
    s += b;
    return s;
}

} // namespace

Bundle::Bundle(std::vector<EmbeddedResource> resources, std::string overrideDirectory)
    : resources_(std::move(resources)), overrideDirectory_(std::move(overrideDirectory)) {}

Ref<Bundle> Bundle::withEmbeddedResources(const EmbeddedResource* resources, std::size_t count,
                                          std::string overrideDirectory) {
    std::vector<EmbeddedResource> table;
    for (std::size_t i = 0; resources && i < count && resources[i].path; ++i) table.push_back(resources[i]);
    if (!isDirectory(overrideDirectory)) overrideDirectory.clear();
    if (table.empty() && overrideDirectory.empty()) return nullptr;
    return std::make_shared<Bundle>(std::move(table), std::move(overrideDirectory));
}

Ref<Data> Bundle::dataAtPath(const std::string& relativePath) const {
    if (!overrideDirectory_.empty())
        if (auto data = readFile(joinPath(overrideDirectory_, relativePath))) return data;
    for (const auto& r : resources_)
        if (relativePath == r.path) return Data::withBytes(r.data, r.size);
    return nullptr;
}

Ref<Data> Bundle::resourceData(std::string_view name, std::string_view ext, std::string_view subdirectory,
                               std::string_view localization) const {
    std::string file(name);
    if (!ext.empty()) {
        file += '.';
        file += ext;
    }
    if (file.empty()) return nullptr;
    if (!localization.empty())
        return dataAtPath(joinPath(joinPath(std::string(localization) + ".lproj", subdirectory), file));
    if (auto data = dataAtPath(joinPath(subdirectory, file))) return data;
    for (const auto& loc : preferredLocalizations())
        if (auto data = dataAtPath(joinPath(joinPath(loc + ".lproj", subdirectory), file))) return data;
    return nullptr;
}

std::vector<std::string> Bundle::preferredLocalizations() {
    const icu::Locale& locale = icu::Locale::getDefault();
    const std::string language = locale.getLanguage();
    const std::string region = locale.getCountry();
    std::vector<std::string> out;
    if (!language.empty()) {
        if (!region.empty()) out.push_back(language + "_" + region);
        out.push_back(language);
    }
    out.push_back("Base");
    return out;
}

Ref<Dictionary> Bundle::stringsTable(const std::string& localization, const std::string& table) const {
    const std::string cacheKey = localization + "/" + table;
    {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        if (auto it = tables_.find(cacheKey); it != tables_.end()) return it->second;
    }
    Ref<Dictionary> entries;
    if (auto data = resourceData(table, "strings", {}, localization)) entries = dictionaryFromStringsFileData(data->view());
    std::lock_guard<std::mutex> lock(cacheMutex_);
    // A missing table is remembered too (as nothing), so misses stay cheap.
    return tables_.emplace(cacheKey, std::move(entries)).first->second;
}

Ref<String> Bundle::localizedStringForKey(std::string_view key, std::string_view value, std::string_view table) const {
    const std::string tableName = table.empty() ? std::string("Localizable") : std::string(table);
    for (const auto& loc : preferredLocalizations())
        if (auto entries = stringsTable(loc, tableName))
            if (auto s = entries->get<String>(key)) return s;
    return str(value.empty() ? key : value);
}

} // namespace qx
