// PlistFixtures.h - the property-list fixtures of tests/fixtures/plist, and helpers the
// property-list tests share.
#pragma once

#include "TestSupport.h"

#include <qx/Dictionary.h>

namespace plisttest {

/// A fixture's bytes, by its name relative to tests/fixtures/plist.
qx::Ref<qx::Data> fixture(const std::string& name);

struct FixtureEntry {
    std::string file, format, status;
    std::vector<std::string> issues;  // strict_reader_issues of the index
    bool hasIssue(std::string_view text) const;
};
/// Every fixture of index.json whose format is format ("binary", "xml", "xml-utf16").
std::vector<FixtureEntry> fixtures(std::string_view format);

/// What the old-style text keeps of a value: containers with every leaf as
/// its description string.
qx::Ref<qx::Object> asText(const qx::Ref<qx::Object>& value);

/// What one XML read gives: the value, the error, and the log lines it wrote.
struct XMLRead {
    qx::Ref<qx::Object> value;
    qx::Ref<qx::Error> error;
    std::vector<std::string> log;
};
/// Reads text as an XML property list, capturing the log lines of that read alone.
XMLRead readXML(const std::string& text);

/// A dictionary of the given entries.
qx::Ref<qx::Dictionary> dict(std::initializer_list<std::pair<const char*, qx::Ref<qx::Object>>> entries);

/// Sets TZ for a scope and puts the old setting back.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<std::string> saved_;
};

} // namespace plisttest
