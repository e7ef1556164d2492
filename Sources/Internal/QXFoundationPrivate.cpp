// QXFoundationPrivate.cpp - load and unload hooks, the library bundle, QXFLocalizedString.
#include "Internal/QXFoundationPrivate.h"

#include <qx/Assert.h>
#include <qx/StringsFile.h>

#include <cstdlib>
#include <mutex>

extern const qx::EmbeddedResource QXFoundationEmbeddedResources[];
extern const std::size_t QXFoundationEmbeddedResourcesCount;

namespace {

constexpr const char* kNotFound = "QXF_NOT_FOUND";

struct LibraryState {
    std::mutex mutex;
    qx::Ref<qx::Bundle> bundle;         // qxfBundle
    qx::Ref<qx::Dictionary> english;    // the bundle's English table, once read
    bool englishLoaded = false;
};

// Made on first use and never destroyed: the unload hook runs after static
// destructors, and other libraries' exit code may still look texts up.
LibraryState& state() {
    static LibraryState* const s = new LibraryState;
    return *s;
}

// The English table of bundle: "Localizable.strings" of "en", read as text of
// whatever encoding it has. Read once per bundle.
qx::Ref<qx::Dictionary> englishTable(const qx::Ref<qx::Bundle>& bundle) {
    auto& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.bundle == bundle && s.englishLoaded) return s.english;
    }
    qx::Ref<qx::Dictionary> table;
    if (auto data = bundle->resourceData("Localizable", "strings", {}, "en"))
        table = qx::dictionaryFromStringsFileData(data->view());
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.bundle == bundle) {
        s.english = table;
        s.englishLoaded = true;
    }
    return table;
}

} // namespace

void QXFoundationInitializerWithResources(const qx::EmbeddedResource* resources, std::size_t count,
                                          const char* overrideDirectory) {
    auto bundle = qx::Bundle::withEmbeddedResources(resources, count, overrideDirectory ? overrideDirectory : "");
    {
        auto& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.bundle = bundle;
        s.english = nullptr;
        s.englishLoaded = false;
    }
    if (!bundle) qx::assertionFailure("QXFoundationInitializer", "Sources/QXFoundationPrivate", 27, "qxfBundle != nil");
}

__attribute__((constructor)) void QXFoundationInitializer(void) {
    QXFoundationInitializerWithResources(QXFoundationEmbeddedResources, QXFoundationEmbeddedResourcesCount,
                                         std::getenv("QXFOUNDATION_RESOURCES"));
}

__attribute__((destructor)) void CFFoundationUninitializer(void) {
    auto& s = state();
    qx::Ref<qx::Bundle> dropped;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        dropped = std::move(s.bundle);
        s.bundle = nullptr;
        s.english = nullptr;
        s.englishLoaded = false;
    }
}

qx::Ref<qx::Bundle> QXFoundationBundle() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.bundle;
}

qx::Ref<qx::String> QXFLocalizedString(std::string_view key) {
    const auto bundle = QXFoundationBundle();
    if (!bundle) return qx::str(key);
    auto text = bundle->localizedStringForKey(key, kNotFound);
    if (text->utf8() != kNotFound) return text;
    if (auto english = englishTable(bundle))
        if (auto value = english->get<qx::String>(key)) return value;
    return qx::str(key);
}
