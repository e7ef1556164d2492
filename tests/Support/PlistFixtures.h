// PlistFixtures.h - the property-list fixtures of tests/fixtures/plist and
// comparison of decoded values with the values python3's plistlib decoded.
#pragma once

#include "JsonValue.h"

#include <qx/Data.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace plisttest {

std::string readFile(const std::string& path);
/// A fixture's bytes, by its name relative to tests/fixtures/plist.
qx::Ref<qx::Data> fixture(const std::string& name);

struct FixtureEntry {
    std::string file, format, status, expected;
    std::vector<std::string> issues;  // strict_reader_issues of the index
    bool hasIssue(std::string_view text) const;
};
/// Every fixture of index.json whose format is format ("binary", "xml", "xml-utf16").
std::vector<FixtureEntry> fixtures(std::string_view format);
/// The expected value of a good fixture.
JsonValue expectedValue(const FixtureEntry& entry);

/// Bytes of base64 text (characters outside the alphabet skipped).
std::vector<std::uint8_t> base64(const std::string& s);
/// "YYYY-MM-DDTHH:MM:SS[.ffffff]Z" as seconds since 2001-01-01 UTC.
double secondsSince2001(const std::string& iso);
/// Empty when actual is the value plistlib decoded; else where they differ.
/// Integers wider than 64 bits compare by their low 8 bytes, 4-byte reals as
/// single precision.
std::string mismatch(const qx::Object* actual, const JsonValue& expected, const std::string& path);

} // namespace plisttest
