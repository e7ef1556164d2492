// Bundle.h - a library's resources: a compiled-in table plus an override directory.
//
// Resources are addressed by name, extension, subdirectory and localisation as
// paths relative to the resource root ("en.lproj/Localizable.strings"). A file
// of the same relative path in the override directory wins over the compiled-in
// copy, so that texts can be corrected or translated without a rebuild.
//
// Localised strings come from "<language>.lproj/<table>.strings" of the
// preferred language (ICU's default locale, read at each lookup so that a
// change of locale takes effect at once), then from "Base.lproj". There is
// deliberately no fall-back to a development language here: callers that want
// one say so by asking for that localisation's table themselves.
//
// Thread-safe: a bundle is immutable apart from its cache of parsed tables.
#pragma once

#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/EmbeddedResource.h>
#include <qx/String.h>

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

class Bundle final : public Object {
public:
    /// A bundle over count entries of resources (a table may also end at an
    /// entry with a null path) and an optional override directory. Nothing when
    /// there is neither a resource nor a readable override directory.
    static Ref<Bundle> withEmbeddedResources(const EmbeddedResource* resources, std::size_t count,
                                             std::string overrideDirectory = {});

    const std::string& overrideDirectory() const { return overrideDirectory_; }

    /// The bytes of a resource, or nothing. An empty ext takes name as the
    /// whole file name. With a localisation only "<loc>.lproj/<subdir>/" is
    /// searched; without one, "<subdir>/" first, then the preferred
    /// localisations.
    Ref<Data> resourceData(std::string_view name, std::string_view ext, std::string_view subdirectory = {},
                           std::string_view localization = {}) const;

    /// The string for key in table (empty: "Localizable") of the preferred
    /// localisations; value when no table has the key (the key itself when
    /// value is empty, as the platform does).
    Ref<String> localizedStringForKey(std::string_view key, std::string_view value,
                                      std::string_view table = {}) const;

    /// The localisations searched, most preferred first: "ll_RR" (when the
    /// locale has a region), "ll", then "Base".
    static std::vector<std::string> preferredLocalizations();

    std::string className() const override { return "Bundle"; }

    Bundle(std::vector<EmbeddedResource> resources, std::string overrideDirectory);

private:
    Ref<Dictionary> stringsTable(const std::string& localization, const std::string& table) const;
    Ref<Data> dataAtPath(const std::string& relativePath) const;

    std::vector<EmbeddedResource> resources_;
    std::string overrideDirectory_;
    mutable std::mutex cacheMutex_;
    mutable std::map<std::string, Ref<Dictionary>> tables_;  // "<loc>/<table>" -> entries
};

} // namespace qx
