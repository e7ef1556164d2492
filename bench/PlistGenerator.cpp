// PlistGenerator.cpp - a large, varied property list for benchmarks.
#include "PlistGenerator.h"

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <array>
#include <limits>
#include <string>
#include <string_view>

namespace qxbench {

namespace {

// SplitMix64: tiny, fast, and fully specified, so every platform agrees.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    /// Uniform in [0, bound) for the small bounds used here (bias below 2^-40).
    std::uint64_t below(std::uint64_t bound) { return next() % bound; }
    bool chance(unsigned percent) { return below(100) < percent; }
    double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

private:
    std::uint64_t state_;
};

constexpr std::string_view kSyllables[] = {"ka", "lo", "mi", "ren", "sa", "to", "vu", "xen", "qua", "dri",
                                           "el", "fo", "gan", "hi", "jo", "nu", "pe", "ti", "zor", "ba"};

// UTF-8 fragments: Latin-1 accents, Greek, Cyrillic, CJK, Hangul, and emoji
// outside the BMP (UTF-16 surrogate pairs in the binary form).
constexpr std::string_view kNonASCII[] = {"\xC3\xA9",         "\xC3\xBC",         "\xC3\x9F",     "\xC3\xB1",
                                          "\xCE\xA9",         "\xD0\x96\xD0\xB8", "\xE4\xB8\xAD", "\xE6\x97\xA5\xE6\x9C\xAC",
                                          "\xED\x95\x9C",     "\xF0\x9F\x98\x80", "\xF0\x9F\x9A\x80", "\xE2\x82\xAC"};

std::string asciiText(Random& r, std::size_t minLength, std::size_t maxLength) {
    const std::size_t length = minLength + r.below(maxLength - minLength + 1);
    std::string s;
    while (s.size() < length) s += kSyllables[r.below(std::size(kSyllables))];
    s.resize(length);
    if (r.chance(20)) s += "-" + std::to_string(r.below(10000));
    return s;
}

std::string nonASCIIText(Random& r) {
    std::string s = asciiText(r, 2, 12);
    const std::size_t pieces = 1 + r.below(4);
    for (std::size_t i = 0; i < pieces; ++i) {
        s += kNonASCII[r.below(std::size(kNonASCII))];
        if (r.chance(50)) s += asciiText(r, 1, 6);
    }
    return s;
}

qx::Ref<qx::Number> integerOfWidth(Random& r, unsigned bytes) {
    switch (bytes) {
    case 1: return qx::Number::withUInt8(static_cast<std::uint8_t>(r.next()));
    case 2: return qx::Number::withInt32(static_cast<std::int32_t>(0x100 + r.below(0x10000 - 0x100)));
    case 4: return qx::Number::withInt64(static_cast<std::int64_t>(0x10000 + r.below(0x100000000ull - 0x10000)));
    default: {
        // 8 bytes: past 32 bits, negative, or one of the extremes.
        switch (r.below(8)) {
        case 0: return qx::Number::withInt64(std::numeric_limits<std::int64_t>::max());
        case 1: return qx::Number::withInt64(std::numeric_limits<std::int64_t>::min());
        case 2: return qx::Number::withInt8(static_cast<std::int8_t>(-1 - static_cast<int>(r.below(128))));
        case 3: return qx::Number::withInt32(-static_cast<std::int32_t>(r.below(0x7FFFFFFF)) - 1);
        case 4: return qx::Number::withInt64(-static_cast<std::int64_t>(r.next() >> 2) - 1);
        default: return qx::Number::withInt64(static_cast<std::int64_t>(0x100000000ull + (r.next() >> 3)));
        }
    }
    }
}

qx::Ref<qx::Data> blob(Random& r) {
    // Mostly short (inline count), sometimes past 14 bytes (extended count).
    const std::size_t length = r.chance(70) ? r.below(15) : 15 + r.below(50);
    std::vector<std::uint8_t> bytes(length);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(r.next());
    return std::make_shared<qx::Data>(std::move(bytes));
}

qx::Ref<qx::Date> date(Random& r) {
    // 1970 to about 2100, with fractions of a second: inside every reader's range.
    return qx::Date::withTimeIntervalSinceReferenceDate(-978307200.0 + r.unit() * 4.1e9);
}

// Builds values and keeps the count of objects the writer will emit.
class Builder {
public:
    explicit Builder(std::uint64_t seed) : r_(seed) {}

    std::uint64_t objects() const { return objects_; }

    void set(qx::Dictionary& d, std::string_view key, qx::Ref<qx::Object> value) {
        d.setObject(std::move(value), key);
        objects_ += 2;  // key and value; a nested container counted its own contents
    }
    void add(qx::Array& a, qx::Ref<qx::Object> value) {
        a.addObject(std::move(value));
        objects_ += 1;
    }

    qx::Ref<qx::Object> record(std::uint64_t index) {
        auto d = qx::Dictionary::create();
        set(*d, "id", qx::Number::withInt64(static_cast<std::int64_t>(index)));
        set(*d, "name", qx::str(asciiText(r_, 3, 40)));
        set(*d, "title", qx::str(nonASCIIText(r_)));
        set(*d, "small", integerOfWidth(r_, 1));
        set(*d, "medium", integerOfWidth(r_, 2));
        set(*d, "large", integerOfWidth(r_, 4));
        set(*d, "huge", integerOfWidth(r_, 8));
        set(*d, "negative", qx::Number::withInt64(-1 - static_cast<std::int64_t>(r_.below(1000000))));
        set(*d, "ratio", qx::Number::withDouble((r_.unit() - 0.5) * 1e6));
        set(*d, "single", qx::Number::withFloat(static_cast<float>(r_.unit() * 100.0)));
        set(*d, "enabled", qx::Number::withBool(r_.chance(50)));
        set(*d, "modified", date(r_));
        set(*d, "blob", blob(r_));
        set(*d, "tags", tags());
        set(*d, "scores", scores());
        set(*d, "meta", meta());
        return d;
    }

private:
    qx::Ref<qx::Object> tags() {
        auto a = qx::Array::create();
        const std::size_t n = r_.chance(10) ? 15 + r_.below(10) : r_.below(6);
        for (std::size_t i = 0; i < n; ++i)
            add(*a, qx::str(r_.chance(25) ? nonASCIIText(r_) : asciiText(r_, 2, 16)));
        return a;
    }
    qx::Ref<qx::Object> scores() {
        auto a = qx::Array::create();
        const std::size_t n = 1 + r_.below(8);
        for (std::size_t i = 0; i < n; ++i) {
            if (r_.chance(50)) add(*a, integerOfWidth(r_, 1u << r_.below(4)));
            else add(*a, qx::Number::withDouble(r_.unit() * 1000.0));
        }
        return a;
    }
    qx::Ref<qx::Object> meta() {
        auto d = qx::Dictionary::create();
        set(*d, "owner", qx::str(r_.chance(30) ? nonASCIIText(r_) : asciiText(r_, 4, 12)));
        set(*d, "revision", integerOfWidth(r_, 1u << r_.below(4)));
        set(*d, "checked", qx::Number::withBool(r_.chance(50)));
        set(*d, "created", date(r_));
        return d;
    }

    Random r_;
    std::uint64_t objects_ = 0;
};

} // namespace

GeneratedPlist generatePlist(std::uint64_t seed, std::uint64_t minimumObjects) {
    Builder builder(seed);
    auto records = qx::Array::create();
    // Root dictionary (1), its "records" key and array (2), and the two
    // descriptive entries (4).
    const std::uint64_t fixedObjects = 7;
    for (std::uint64_t i = 0; builder.objects() + fixedObjects < minimumObjects; ++i)
        builder.add(*records, builder.record(i));

    auto root = qx::Dictionary::create();
    root->setObject(qx::str("qx benchmark property list"), "generator");
    root->setObject(qx::Number::withInt64(static_cast<std::int64_t>(seed)), "seed");
    root->setObject(records, "records");
    return {root, builder.objects() + fixedObjects};
}

} // namespace qxbench
