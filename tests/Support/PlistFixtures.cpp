// PlistFixtures.cpp - the property-list fixtures and their expected values.
#include "PlistFixtures.h"

#include "TestSupport.h"

#include <QXFoundation/QXUIDPropertyList.h>

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

using namespace qx;

namespace plisttest {

using qxtest::readFile;

Ref<Data> fixture(const std::string& name) { return Data::withString(readFile(QX_PLIST_TESTDATA_DIR "/" + name)); }

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
    auto index = JsonValue::parse(readFile(QX_PLIST_TESTDATA_DIR "/index.json"));
    if (!index) return out;
    for (const auto& f : index->member("files")->items) {
        if (f.member("format")->text != format) continue;
        FixtureEntry e{f.member("file")->text, f.member("format")->text, f.member("status")->text, "", {}};
        if (auto x = f.member("expected")) e.expected = x->text;
        if (auto issues = f.member("strict_reader_issues"))
            for (const auto& i : issues->items) e.issues.push_back(i.text);
        out.push_back(std::move(e));
    }
    return out;
}

JsonValue expectedValue(const FixtureEntry& entry) {
    auto v = JsonValue::parse(readFile(QX_PLIST_TESTDATA_DIR "/" + entry.expected));
    return v ? *v : JsonValue{};
}

std::vector<std::uint8_t> base64(const std::string& s) {
    static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<std::uint8_t> out;
    std::uint32_t acc = 0;
    int bits = 0;
    for (char c : s) {
        const auto v = alphabet.find(c);
        if (v == std::string::npos) continue;  // padding and line ends
        acc = (acc << 6) | static_cast<std::uint32_t>(v);
        if ((bits += 6) >= 8) out.push_back(static_cast<std::uint8_t>(acc >> (bits -= 8)));
    }
    return out;
}

double secondsSince2001(const std::string& iso) {
    std::tm t{};
    double s = 0;
    std::sscanf(iso.c_str(), "%d-%d-%dT%d:%d:%lfZ", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min, &s);
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    return static_cast<double>(::timegm(&t)) + s - Date::kTimeIntervalSince1970;
}

std::string mismatch(const Object* actual, const JsonValue& expected, const std::string& path) {
    const auto fail = [&](const std::string& what) { return path + ": " + what + ", got " + describe(actual); };
    const auto ok = [&](bool good, const std::string& what) { return good ? "" : fail(what); };
    using K = JsonValue::Kind;
    auto n = dynamic_cast<const Number*>(actual);
    if (expected.kind == K::Object && expected.members.size() == 1) {
        const auto& [tag, v] = expected.members[0];
        if (tag == "$data") {
            auto d = dynamic_cast<const Data*>(actual);
            return ok(d && d->vector() == base64(v.text), "data");
        }
        if (tag == "$date") {
            auto d = dynamic_cast<const Date*>(actual);
            return ok(d && std::abs(d->timeIntervalSinceReferenceDate() - secondsSince2001(v.text)) < 1e-6, v.text);
        }
        if (tag == "$real") {
            const double x = n && n->isReal() ? n->doubleValue() : 0;
            return ok(n && n->isReal() && (v.text == "nan" ? std::isnan(x) : x == (v.text == "inf" ? INFINITY : -INFINITY)),
                      v.text);
        }
        if (auto u = dynamic_cast<const QXUIDPropertyList*>(actual); u && tag == "CF$UID")
            return ok(static_cast<std::uint64_t>(u->int64Value()) == v.low64(), "UID " + v.text);
    }
    switch (expected.kind) {
    case K::Null: return fail("null");
    case K::Bool: return ok(n && n->isBoolean() && n->boolValue() == expected.boolean, "boolean");
    case K::Number:
        if (!n || n->isBoolean()) return fail("number " + expected.text);
        // Integers wider than 64 bits keep their low 8 bytes.
        if (expected.isInteger()) return ok(!n->isReal() && n->uint64Value() == expected.low64(), expected.text);
        // A 4-byte real stays single precision.
        if (n->kind() == Number::Kind::Float) return ok(n->floatValue() == static_cast<float>(expected.real()), expected.text);
        return ok(n->isReal() && n->doubleValue() == expected.real(), expected.text);
    case K::String: {
        auto s = dynamic_cast<const String*>(actual);
        return ok(s && s->utf8() == expected.text, "\"" + expected.text + "\"");
    }
    case K::Array: {
        auto a = dynamic_cast<const Array*>(actual);
        if (!a || a->count() != expected.items.size()) return fail("array of " + std::to_string(expected.items.size()));
        for (std::size_t i = 0; i < a->count(); ++i)
            if (auto m = mismatch((*a)[i].get(), expected.items[i], path + "[" + std::to_string(i) + "]"); !m.empty())
                return m;
        return "";
    }
    case K::Object: {
        auto d = dynamic_cast<const Dictionary*>(actual);
        if (!d || d->count() != expected.members.size()) return fail("dictionary");
        for (const auto& [k, v] : expected.members)
            if (auto m = mismatch(d->objectForKey(k).get(), v, path + "." + k); !m.empty()) return m;
        return "";
    }
    }
    return fail("?");
}

} // namespace plisttest
