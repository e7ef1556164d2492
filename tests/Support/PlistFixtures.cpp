// PlistFixtures.cpp - the property-list fixtures and shared helpers.
#include "PlistFixtures.h"

#include "TestSupport.h"

#include <nlohmann/json.hpp>

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/String.h>

#include <ctime>

using namespace qx;

namespace plisttest {

using qxtest::readFile;

Ref<Data> fixture(const std::string& name) { return Data::withString(readFile(QX_PLIST_TESTDATA_DIR "/" + name)); }

XMLRead readXML(const std::string& text) {
    ScopedLogCapture capture;
    XMLRead read;
    read.value = QXPropertyListSerialization::XMLPropertyListWithData(Data::withString(text), &read.error);
    read.log = capture.lines();
    return read;
}

Ref<Dictionary> dict(std::initializer_list<std::pair<const char*, Ref<Object>>> entries) {
    auto d = Dictionary::create();
    for (const auto& [k, v] : entries) d->setObject(v, k);
    return d;
}

Ref<Object> asText(const Ref<Object>& value) {
    if (auto d = dyn_cast<Dictionary>(value)) {
        auto out = Dictionary::create();
        for (const auto& [k, v] : *d) out->setObject(asText(v), k);
        return out;
    }
    if (auto a = dyn_cast<Array>(value)) {
        auto out = Array::create();
        for (const auto& v : *a) out->addObject(asText(v));
        return out;
    }
    return dyn_cast<String>(value) ? value : str(value->description());
}

ScopedTimeZone::ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) saved_ = old;
    ::setenv("TZ", zone, 1);
    ::tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
    if (saved_) ::setenv("TZ", saved_->c_str(), 1);
    else ::unsetenv("TZ");
    ::tzset();
}

bool FixtureEntry::hasIssue(std::string_view text) const {
    return std::any_of(issues.begin(), issues.end(), [&](const auto& i) { return i.find(text) != std::string::npos; });
}

std::vector<FixtureEntry> fixtures(std::string_view format) {
    std::vector<FixtureEntry> out;
    const auto index = nlohmann::json::parse(readFile(QX_PLIST_TESTDATA_DIR "/index.json"), nullptr, false);
    if (!index.contains("files")) return out;
    for (const auto& f : index["files"]) {
        if (f.value("format", "") != format) continue;
        out.push_back({f.value("file", ""), f.value("format", ""), f.value("status", ""),
                       f.value("strict_reader_issues", std::vector<std::string>{})});
    }
    return out;
}

} // namespace plisttest
