// BinaryPropertyListTests.cpp - the binary property-list reader and writer, format detection,
// the trailer and UID classes, and the reader's behaviour on damaged and hostile files.
#include <gtest/gtest.h>

#include <QXFoundation/QXBinaryPlistRecord.h>
#include <QXFoundation/QXBinaryPlistTrailer.h>
#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "PlistFixtures.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/Null.h>
#include <qx/Set.h>
#include <qx/String.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>
#include <sstream>

using namespace qx;
using Bytes = std::vector<std::uint8_t>;
using Log = std::vector<std::string>;
using PLS = QXPropertyListSerialization;
using namespace plisttest;

namespace {

// --- Helpers -----------------------------------------------------------------

Ref<Data> dataOf(const Bytes& b) { return Data::withBytes(b.data(), b.size()); }
Bytes bytesOf(const Ref<Data>& d) { return d ? d->vector() : Bytes{}; }

void appendBE(Bytes& out, std::uint64_t v, int width) {
    for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// Assembles a binary file from object encodings (references inside them are
// the caller's), with a trailer whose fields can be overridden.
struct FileLayout {
    std::vector<Bytes> objects;
    int refSize = 1;
    int offsetSize = 1;
    std::uint64_t root = 0;
};
Bytes assemble(const FileLayout& f) {
    Bytes out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint64_t> offsets;
    for (const auto& o : f.objects) {
        offsets.push_back(out.size());
        out.insert(out.end(), o.begin(), o.end());
    }
    const std::uint64_t table = out.size();
    for (auto o : offsets) appendBE(out, o, f.offsetSize);
    out.insert(out.end(), 6, 0);
    out.push_back(static_cast<std::uint8_t>(f.offsetSize));
    out.push_back(static_cast<std::uint8_t>(f.refSize));
    appendBE(out, offsets.size(), 8);
    appendBE(out, f.root, 8);
    appendBE(out, table, 8);
    return out;
}

struct ReadResult {
    Ref<Object> value;
    Ref<Error> error;
    Log log;
    bool failedWith3840() const {
        return !value && error && error->domain() == NSCocoaErrorDomain && error->code() == 3840;
    }
    // A value, nothing without an error, or nothing with the one error a read may give.
    bool clean() const { return !error || failedWith3840(); }
};
ReadResult readPlist(const Ref<Data>& data) {
    ScopedLogCapture capture;
    ReadResult r;
    r.value = PLS::binaryPropertyListWithData(data, &r.error);
    r.log = capture.lines();
    return r;
}
ReadResult readPlist(const Bytes& b) { return readPlist(dataOf(b)); }

Ref<Data> write(const Ref<Object>& plist) {
    Ref<Error> error;
    auto data = PLS::binaryDataWithPropertyList(plist, &error);
    EXPECT_TRUE(data) << (error ? error->description() : "");
    return data;
}

const std::vector<FixtureEntry>& binaryFixtures() {
    static const std::vector<FixtureEntry> entries = fixtures("binary");
    return entries;
}

// --- Fixtures -----------------------------------------------------------------------

TEST(BinaryPropertyListFixtures, GoodFilesMatchWhatPlistlibDecodedAndRoundTrip) {
    int checked = 0;
    for (const auto& e : binaryFixtures()) {
        if (e.status != "good") continue;
        SCOPED_TRACE(e.file);
        auto r = readPlist(fixture(e.file));
        // Offset-table entries only come in widths 1, 2, 4 and 8.
        if (e.hasIssue("offset-table entry width")) {
            EXPECT_TRUE(r.failedWith3840());
            EXPECT_EQ(r.log, Log{"Bad offset size"});
            continue;
        }
        // A string count written after the integer marker 0x14: that marker means
        // 16 bytes of count, whose low 8 are text, far past the end of the file.
        if (e.file == "biplist/fuzz_ascii_string_too_long.plist") {
            EXPECT_TRUE(r.failedWith3840());
            continue;
        }
        const JsonValue expected = expectedValue(e);
        ASSERT_TRUE(r.value) << (r.log.empty() ? "" : r.log.back());
        EXPECT_EQ(mismatch(r.value.get(), expected, "root"), "");
        EXPECT_TRUE(r.log.empty());
        // Through the writer and back the value is the same, and the writer's
        // own output is a fixed point.
        const auto written = write(r.value);
        auto again = readPlist(written);
        ASSERT_TRUE(again.value);
        EXPECT_EQ(mismatch(again.value.get(), expected, "written"), "");
        EXPECT_EQ(bytesOf(write(again.value)), bytesOf(written));
        ++checked;
    }
    EXPECT_GE(checked, 40);
}

TEST(BinaryPropertyListFixtures, MalformedFilesFailCleanly) {
    int refused = 0;
    for (const auto& e : binaryFixtures()) {
        if (e.status != "malformed") continue;
        SCOPED_TRACE(e.file);
        auto r = readPlist(fixture(e.file));
        EXPECT_TRUE(r.clean());
        // Whatever the hardening is for must be refused, never read.
        for (const char* issue : {">= number of objects", "reference cycle", "length runs past",
                                  "offset-table entry width", "shorter than"})
            EXPECT_TRUE(!e.hasIssue(issue) || r.failedWith3840()) << issue;
        refused += !r.value;
    }
    EXPECT_GE(refused, 60);
}

TEST(BinaryPropertyListFixtures, SomeFilesPlistlibRefusesAreReadable) {
    // A set, which this reader yields as a set.
    auto sorted = dyn_cast<Array>(readPlist(fixture("biplist/sorted.plist")).value);
    ASSERT_TRUE(sorted);
    auto set = dyn_cast<Set>((*sorted)[0]);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count(), 3u);
    EXPECT_TRUE(set->containsObject(*str("b")));
    // A date near the year 1, outside Python's range.
    auto small = dyn_cast<Dictionary>(readPlist(fixture("biplist/small_date.plist")).value);
    ASSERT_TRUE(small);
    EXPECT_EQ(small->get<Date>("MyDate")->timeIntervalSinceReferenceDate(), -63114076800.0);
}

// --- Writer ----------------------------------------------------------------------------

TEST(BinaryPropertyListWriter, WholeFilesUseTwoByteWidthsAndNumberKeysBeforeValuesInSortedOrder) {
    auto d = Dictionary::create();
    d->setObject(Number::withInt64(1), "b");
    d->setObject(str("x"), "a");
    // Dictionary 0: keys 1, 2; values 3, 4.
    const Bytes dict = assemble({{{0xD2, 0, 1, 0, 2, 0, 3, 0, 4}, {0x51, 'a'}, {0x51, 'b'}, {0x51, 'x'}, {0x10, 0x01}}, 2, 2});
    EXPECT_EQ(bytesOf(write(d)), dict);
    EXPECT_EQ(bytesOf(write(Array::create())), assemble({{{0xA0}}, 2, 2}));
    EXPECT_EQ(write(Array::create())->length(), 43u);

    auto keys = Dictionary::create();
    for (const char* k : {"item10", "Item2", "item1", "B", "a"}) keys->setObject(Number::withBool(true), k);
    auto back = dyn_cast<Dictionary>(readPlist(write(keys)).value);
    ASSERT_TRUE(back);
    std::vector<std::string> order;
    for (const auto& [k, v] : *back) order.push_back(k->description());
    EXPECT_EQ(order, (std::vector<std::string>{"a", "B", "item1", "Item2", "item10"}));  // case ignored, numbers by value
}

TEST(BinaryPropertyListWriter, LeafEncodings) {
    const auto encoded = [](const Ref<Object>& v) {
        Data out, table;
        std::uint64_t count = 0;
        EXPECT_TRUE(PLS::addPlist(v, out, table, 2, count, nullptr));
        return out.vector();
    };
    const auto falses = [](int n) {
        auto a = Array::create();
        for (int i = 0; i < n; ++i) a->addObject(Number::withBool(false));
        return a;
    };
    const std::vector<std::pair<Ref<Object>, Bytes>> cases = {
        {Number::withInt64(255), {0x10, 0xFF}},
        {Number::withInt64(256), {0x11, 0x01, 0x00}},
        {Number::withInt64(0xFFFFFFFF), {0x12, 0xFF, 0xFF, 0xFF, 0xFF}},
        {Number::withInt64(-1), {0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        {Number::withBool(true), {0x09}},
        {Number::withBool(false), {0x08}},
        {str("abc"), {0x53, 'a', 'b', 'c'}},
        {str("\xC3\xA9t\xF0\x9F\x98\x80"), {0x64, 0x00, 0xE9, 0x00, 't', 0xD8, 0x3D, 0xDE, 0x00}},
        // A single-precision number is widened and written as 8 bytes.
        {Number::withFloat(0.1f), {0x23, 0x3F, 0xB9, 0x99, 0x99, 0xA0, 0, 0, 0}},
        {Date::withTimeIntervalSinceReferenceDate(1.0), {0x33, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0}},
        {Data::withString("hi"), {0x42, 'h', 'i'}},
        {QXUIDPropertyList::initWithInt64Value(5), {0x87, 0, 0, 0, 0, 0, 0, 0, 5}},
        // Counts of 15 and more follow the marker as an integer object.
        {falses(1), {0xA1, 0, 1}},
        {falses(15), {0xAF, 0x10, 0x0F}},
        {str(std::string(15, 'x')), {0x5F, 0x10, 0x0F}},
    };
    for (const auto& [value, bytes] : cases) {
        SCOPED_TRACE(value->description());
        const Bytes all = encoded(value);
        EXPECT_EQ(Bytes(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::min(all.size(), bytes.size()))), bytes);
    }
    EXPECT_EQ(encoded(falses(14))[0], 0xAE);
}

TEST(BinaryPropertyListWriter, KindsWithoutAnEncodingTakeANumberButNoBytes) {
    // The set's offset entry points at the string written after it.
    const auto array = [](std::vector<Ref<Object>> items) { return std::make_shared<Array>(std::move(items)); };
    auto back = dyn_cast<Array>(readPlist(write(array({Set::create(), str("x")}))).value);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->description(), "(\n    x,\n    x\n)");
    // With nothing after it, the entry points into the offset table.
    auto r = readPlist(write(array({str("x"), Null::null()})));
    EXPECT_TRUE(r.failedWith3840());
    EXPECT_TRUE(std::find(r.log.begin(), r.log.end(), "property list was nil!") != r.log.end());
}

TEST(BinaryPropertyListWriter, ReferenceWidthComesFromTheValueCountAlone) {
    const auto widths = [](const Ref<Data>& d) { return std::make_pair(d->bytes()[d->length() - 26], d->bytes()[d->length() - 25]); };
    const auto two = std::make_pair(std::uint8_t{2}, std::uint8_t{2});
    auto array = Array::create();
    for (int i = 0; i < 65533; ++i) array->addObject(Number::withBool(true));
    EXPECT_EQ(PLS::countPlists(array), 65534u);
    EXPECT_EQ(widths(write(array)), two);
    array->addObject(Number::withBool(true));
    EXPECT_EQ(widths(write(array)), std::make_pair(std::uint8_t{4}, std::uint8_t{4}));
    // Keys are not counted: 40000 entries are 80001 objects in 2-byte references,
    // which are cut to their low bytes and no longer read back as written.
    auto dict = Dictionary::create();
    for (int i = 0; i < 40000; ++i) dict->setObject(Number::withBool(true), "k" + std::to_string(i));
    EXPECT_EQ(PLS::countPlists(dict), 40001u);
    auto data = write(dict);
    EXPECT_EQ(widths(data), two);
    auto trailer = QXBinaryPlistTrailer::trailerWithData(*data);
    ASSERT_TRUE(trailer);
    EXPECT_EQ(trailer->numberOfObjects(), 80001u);
    auto back = readPlist(data).value;
    EXPECT_FALSE(back && back->isEqual(*dict));
}

TEST(BinaryPropertyListWriter, RefusedValuesAndFormats) {
    auto nonStringKey = Dictionary::create();
    nonStringKey->setObject(str("v"), Number::withInt64(1));
    auto inner = Array::create();
    inner->addObject(QXUIDPropertyList::initWithData(Data::withString(std::string(17, 'u'))));
    for (const auto& [value, log] : {std::pair<Ref<Object>, std::string>{nonStringKey, "can't have a non-string key!"},
                                     {QXUIDPropertyList::initWithData(Data::create()), "invalid UID length"},
                                     {inner, "invalid UID length"}}) {
        ScopedLogCapture logs;
        Ref<Error> error;
        EXPECT_FALSE(PLS::binaryDataWithPropertyList(value, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 3840);
        EXPECT_EQ(logs.lines(), Log{log});
    }

    ScopedLogCapture logs;
    Ref<Error> error;
    EXPECT_FALSE(PLS::dataWithPropertyList(Array::create(), 7, &error));
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), 22);
    // Each format code goes to its own writer.
    EXPECT_EQ(bytesOf(PLS::dataWithPropertyList(Array::create(), QXPropertyListOpenStepFormat)),
              bytesOf(PLS::oldStylePlistDataWithItem(Array::create())));
    EXPECT_EQ(bytesOf(PLS::dataWithPropertyList(Array::create(), QXPropertyListXMLFormat_v1_0)),
              bytesOf(PLS::xmlDataWithPropertyList(Array::create())));
    EXPECT_EQ(bytesOf(PLS::dataWithPropertyList(Array::create(), 200)), bytesOf(write(Array::create())));
}

// --- Trailer ----------------------------------------------------------------------------

TEST(BinaryPropertyListTrailer, LengthTests) {
    // 26 bytes hold every field that is read: one entry at byte 9 points at
    // byte 1, which doubles as the reference width and the marker of true.
    Bytes tiny = {0x01, 0x09, 0, 0, 0, 0, 0, 0, 0, 0x01};
    tiny.insert(tiny.end(), 8, 0);
    appendBE(tiny, 9, 8);
    auto r = readPlist(tiny);
    ASSERT_TRUE(r.value);
    EXPECT_TRUE(dyn_cast<Number>(r.value)->isBoolean());
    r = readPlist(Bytes(tiny.begin() + 1, tiny.end()));
    EXPECT_TRUE(r.failedWith3840());
    EXPECT_TRUE(r.log.empty());

    // A table that does not fit; one whose end wraps around 64 bits (2^63
    // objects of 2 bytes); an offset width of 3, which with no objects passes
    // and trips the root lookup instead.
    Bytes tooFar = assemble({{{0x09}}}), wraps = tooFar;
    tooFar.back() = 0xF0;
    wraps[wraps.size() - 26] = 2;
    wraps[wraps.size() - 24] = 0x80;
    for (const auto& [file, log] : std::vector<std::pair<Bytes, std::string>>{
             {tooFar, "Data insufficient size: length is 42, but 241 needed"},
             {wraps, "Data insufficient size: length is 42, but 18446744073709551615 needed"},
             {assemble({{{0x09}}, 1, 3}), "Bad offset size"},
             {assemble({{}, 1, 3}), "Weird offset size! But hopefully it shouldn't get here"}}) {
        r = readPlist(file);
        EXPECT_TRUE(r.failedWith3840());
        EXPECT_EQ(r.log, Log{log});
    }
}

TEST(BinaryPropertyListTrailer, FieldsAndOffsets) {
    auto t = QXBinaryPlistTrailer::initWithData(*dataOf(assemble({{{0xA1, 0x01}, {0x09}}, 1, 2, 1})));
    ASSERT_TRUE(t);
    EXPECT_EQ(std::vector<std::uint64_t>({t->numberOfObjects(), t->numberOfTopLevelObject(), t->sizeOfOffsets()}),
              std::vector<std::uint64_t>({2, 1, 1}));
    EXPECT_EQ(std::vector<std::uint64_t>({t->offsetOfObjectWithNumber(0), t->offsetOfObjectWithNumber(1),
                                          t->offsetOfObjectWithNumber(2)}),
              std::vector<std::uint64_t>({8, 10, UINT64_MAX}));
}

// --- Reader -------------------------------------------------------------------------

TEST(BinaryPropertyListReader, IntegersAndReals) {
    const auto value = [](Bytes object) { return dyn_cast<Number>(readPlist(assemble({{object}})).value); };
    const std::vector<std::pair<Bytes, std::int64_t>> integers = {
        {{0x12, 0xFF, 0xFF, 0xFF, 0xFF}, 4294967295},
        {{0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, -1},
        // Of a 16-byte integer only the low 8 bytes survive.
        {{0x14, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0x01, 0x02}, 0x0102},
        // Widths of 256 bytes and more read as 0.
        {{0x18, 0x01}, 0},
    };
    for (const auto& [bytes, expected] : integers) {
        auto n = value(bytes);
        ASSERT_TRUE(n) << int(bytes[0]);
        EXPECT_EQ(n->int64Value(), expected) << int(bytes[0]);
    }
    Data truncated(Bytes{0x13, 0x01, 0x02});
    std::uint64_t at = 0;
    EXPECT_EQ(PLS::intFromData(truncated, at), 0u);

    auto single = value({0x22, 0x3D, 0xCC, 0xCC, 0xCD});
    ASSERT_TRUE(single);
    EXPECT_EQ(single->kind(), Number::Kind::Float);
    EXPECT_EQ(single->floatValue(), 0.1f);
    for (std::uint8_t marker : {0x20, 0x21, 0x24}) {
        auto r = readPlist(assemble({{{marker, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}}));
        EXPECT_TRUE(r.failedWith3840());
        EXPECT_EQ(r.log, Log{format("invalid size %d for float", 1 << (marker & 15))});
    }
    Data shortData(Bytes{0x3F, 0xF0, 0});
    std::uint64_t pos = 0;
    ScopedLogCapture logs;
    Ref<Error> error;
    EXPECT_FALSE(PLS::floatNumberFromData(shortData, pos, 8, &error));
    EXPECT_EQ(error->code(), 3840);
    EXPECT_TRUE(logs.lines().empty());
    auto date = dyn_cast<Date>(readPlist(assemble({{{0x33, 0x41, 0xCD, 0xCD, 0x65, 0x00, 0, 0, 0}}})).value);
    ASSERT_TRUE(date);
    EXPECT_EQ(date->timeIntervalSinceReferenceDate(), 1000000000.0);
}

TEST(BinaryPropertyListReader, StringsDataAndUIDs) {
    const auto value = [](Bytes object) { return readPlist(assemble({{object}})); };
    // An unpaired surrogate becomes U+FFFD.
    EXPECT_EQ(value({0x62, 0x00, 0xE9, 0xD8, 0x3D}).value->description(), "\xC3\xA9\xEF\xBF\xBD");
    // The bounds test counts UTF-16 units against bytes: 30 units pass it with
    // 33 bytes left, and the string is still refused.
    EXPECT_TRUE(value({0x6F, 0x10, 30}).failedWith3840());
    Data cut(Bytes{0x63, 0, 'a', 0});
    std::uint64_t pos = 1;
    Ref<Error> error;
    EXPECT_FALSE(PLS::dataFromData(cut, pos, 0x63, &error));
    EXPECT_EQ(error->code(), 3840);
    // Non-ASCII in an ASCII string is nothing, without an error.
    auto r = value({0x51, 0xE9});
    EXPECT_FALSE(r.value);
    EXPECT_FALSE(r.error);
    // A data count past the end.
    EXPECT_TRUE(value({0x4F, 0x10, 0x40, 0x00}).failedWith3840());
    // A 16-byte UID keeps only its low 8 bytes.
    Bytes uid = {0x8F};
    for (int i = 1; i <= 16; ++i) uid.push_back(static_cast<std::uint8_t>(i));
    auto u = dyn_cast<QXUIDPropertyList>(value(uid).value);
    ASSERT_TRUE(u);
    EXPECT_EQ(u->data()->vector(), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 9, 10, 11, 12, 13, 14, 15, 16}));
}

TEST(BinaryPropertyListReader, MarkersWithoutAValue) {
    for (std::uint8_t marker : {0x00, 0x0F}) {
        auto r = readPlist(assemble({{{marker}}}));
        EXPECT_FALSE(r.value);
        EXPECT_FALSE(r.error);
        EXPECT_TRUE(r.log.empty());
        // The general reader then has nowhere else to go.
        Ref<Error> error;
        QXPropertyListFormat format = 0;
        EXPECT_FALSE(PLS::propertyListWithData(dataOf(assemble({{{marker}}})), &format, &error));
        EXPECT_EQ(error->code(), 3840);
        EXPECT_EQ(format, 0u);
    }
    for (std::uint8_t marker : {0x01, 0x0E, 0x34, 0x70, 0x9A, 0xB0, 0xE1, 0xFF}) {
        auto r = readPlist(assemble({{{marker, 0, 0, 0, 0, 0, 0, 0, 0}}}));
        EXPECT_FALSE(r.value);
        EXPECT_FALSE(r.error);
        EXPECT_EQ(r.log, (Log{format("unknown element code 0x%x", marker),
                              format("masked is 0x%x is == to 0xd0: 0", marker & 0xF0)}));
    }
}

TEST(BinaryPropertyListReader, ContainersReportTheMissingPart) {
    // An array, a set and a dictionary whose element is the marker 0x00.
    for (const auto& [objects, log] : std::vector<std::pair<std::vector<Bytes>, Log>>{
             {{{0xA1, 0x01}, {0x00}}, {"property list was nil!"}},
             {{{0xC1, 0x01}, {0x00}}, {}},
             {{{0xD1, 0x01, 0x02}, {0x00}, {0x09}}, {"key was nil!"}},
             {{{0xD1, 0x01, 0x02}, {0x51, 'k'}, {0x00}}, {"value was nil for key k!"}}}) {
        auto r = readPlist(assemble({objects}));
        EXPECT_TRUE(r.failedWith3840()) << int(objects[0][0]);
        EXPECT_EQ(r.log, log);
    }
    // Keys need not be strings; a repeated container is a new object each time.
    auto a = dyn_cast<Array>(readPlist(assemble({{{0xA2, 0x01, 0x01}, {0xD1, 0x02, 0x03}, {0x09}, {0xA0}}})).value);
    ASSERT_TRUE(a);
    EXPECT_NE((*a)[0].get(), (*a)[1].get());
    EXPECT_TRUE(dyn_cast<Dictionary>((*a)[0])->objectForKey(*Number::withBool(true)));
}

// --- Hostile files -----------------------------------------------------------------

TEST(BinaryPropertyListHardening, ReferencesOutOfRangeCyclesAndCountsLargerThanTheData) {
    const std::vector<FileLayout> files = {
        {{{0xA1, 0x05}, {0x09}}},                                   // past the object count
        {{{0xA1, 0x00}}},                                           // an array holding itself
        {{{0xA1, 0x01}, {0xD1, 0x02, 0x00}, {0x51, 'k'}}},          // through a dictionary
        {{{0x09}}, 1, 1, 1},                                        // root past the count
        {{{0xA2, 0x01, 0x01}, {0x09}}, 0},                          // width-0 references read object 0
        {{{0xAF, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0}, {0x09}}},        // 2^62 elements
        {{{0xDF, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, {0x09}}},
        {{{0xCF, 0x11, 0x01, 0x00, 0x01}, {0x09}}},
        // References of width 0 take no bytes; the object budget stops the loop.
        {{{0xA1, 0x01}, {0xAF, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0}}, 0, 1, 1},
    };
    for (std::size_t i = 0; i < files.size(); ++i) {
        auto r = readPlist(assemble(files[i]));
        EXPECT_TRUE(r.failedWith3840()) << i;
        EXPECT_TRUE(i >= 5 || r.log.size() == 1u) << i;  // the reference cases say why, once
    }
}

TEST(BinaryPropertyListHardening, NestingDepthIsBounded) {
    const auto nested = [](unsigned depth) {
        FileLayout f{{}, 2, 4};
        for (unsigned i = 0; i + 1 < depth; ++i)
            f.objects.push_back({0xA1, static_cast<std::uint8_t>((i + 1) >> 8), static_cast<std::uint8_t>(i + 1)});
        f.objects.push_back({0xA0});
        return assemble(f);
    };
    auto deepest = readPlist(nested(QXBinaryPlistMaxNestingDepth));
    ASSERT_TRUE(deepest.value);
    EXPECT_TRUE(write(deepest.value));
    auto r = readPlist(nested(QXBinaryPlistMaxNestingDepth + 1));
    EXPECT_TRUE(r.failedWith3840());
    EXPECT_EQ(r.log, Log{"property list nests deeper than 512 levels"});
    auto tooDeep = Array::create();
    for (unsigned i = 0; i < QXBinaryPlistMaxNestingDepth; ++i) {
        auto outer = Array::create();
        outer->addObject(tooDeep);
        tooDeep = outer;
    }
    EXPECT_FALSE(PLS::binaryDataWithPropertyList(tooDeep));
}

TEST(BinaryPropertyListHardening, SharedReferencesCannotExpandExponentially) {
    // Object i is an array holding object i+1 twice; the last is a string.
    const auto chain = [](unsigned levels) {
        FileLayout f{{}, 1};
        for (unsigned i = 0; i < levels; ++i)
            f.objects.push_back({0xA2, static_cast<std::uint8_t>(i + 1), static_cast<std::uint8_t>(i + 1)});
        f.objects.push_back({0x51, 'x'});
        return assemble(f);
    };
    // Ten levels are 2^10 leaves from a small file and well within bounds.
    auto small = readPlist(chain(10));
    ASSERT_TRUE(small.value);
    const std::string text = small.value->description();
    EXPECT_EQ(std::count(text.begin(), text.end(), 'x'), 1024);
    // Sixty levels would be 2^60; decoding gives up after a bounded number of objects.
    auto r = readPlist(chain(60));
    EXPECT_TRUE(r.failedWith3840());
    EXPECT_EQ(r.log.size(), 1u);
}

TEST(BinaryPropertyListHardening, KeysWhoseHashesCollideAreBounded) {
    // Arrays hash by their count: n one-element arrays as keys would make
    // building the dictionary compare each key with every earlier one.
    const auto arrayKeys = [](unsigned n) {
        FileLayout f{{}, 2, 4};
        Bytes root = {0xDF, 0x11};
        appendBE(root, n, 2);
        for (unsigned i = 0; i < n; ++i) appendBE(root, 1 + i, 2);
        for (unsigned i = 0; i < n; ++i) appendBE(root, 1 + 2 * n, 2);  // every value: true
        f.objects.push_back(root);
        for (unsigned i = 0; i < n; ++i) {
            Bytes key = {0xA1};
            appendBE(key, 1 + n + i, 2);
            f.objects.push_back(key);
        }
        for (unsigned i = 0; i < n; ++i) f.objects.push_back({0x11, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
        f.objects.push_back({0x09});
        return assemble(f);
    };
    auto few = dyn_cast<Dictionary>(readPlist(arrayKeys(3)).value);
    ASSERT_TRUE(few);
    EXPECT_EQ(few->count(), 3u);
    auto r = readPlist(arrayKeys(5000));
    EXPECT_TRUE(r.failedWith3840());
    EXPECT_EQ(r.log, Log{"property list has too many containers or data objects as keys"});
}

TEST(BinaryPropertyListHardening, TruncationAtEveryLengthIsClean) {
    auto nested = Dictionary::create();
    auto list = Array::create();
    list->addObject(str("\xE2\x82\xAC uro"));
    list->addObject(Number::withDouble(2.5));
    list->addObject(Data::withString(std::string(20, 'd')));
    list->addObject(QXUIDPropertyList::initWithInt64Value(7));
    nested->setObject(list, "list");
    nested->setObject(Date::withTimeIntervalSinceReferenceDate(3), "when");
    for (const auto& file : {bytesOf(write(nested)), bytesOf(fixture("cpython/testdata-apple.bplist")),
                             bytesOf(fixture("node-bplist-parser/utf16.bplist"))}) {
        for (std::size_t n = 0; n < file.size(); ++n) {
            auto r = readPlist(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(n)));
            EXPECT_TRUE(r.clean());
        }
    }
}

TEST(BinaryPropertyListHardening, RandomDamageToFixturesIsClean) {
    std::mt19937 rng(20240611);
    int readable = 0;
    for (const auto& e : binaryFixtures()) {
        Bytes original = bytesOf(fixture(e.file));
        if (original.empty()) continue;
        for (int round = 0; round < 40; ++round) {
            Bytes damaged = original;
            const int hits = 1 + static_cast<int>(rng() % 4);
            for (int h = 0; h < hits; ++h) damaged[rng() % damaged.size()] = static_cast<std::uint8_t>(rng());
            auto r = readPlist(damaged);
            EXPECT_TRUE(r.clean()) << e.file;
            if (!r.value) continue;
            ++readable;
            // Whatever was read is written, or refused cleanly, and what was
            // written reads cleanly (sets and foreign keys do not survive).
            Ref<Error> error;
            if (auto again = PLS::binaryDataWithPropertyList(r.value, &error)) {
                EXPECT_TRUE(readPlist(again).clean());
            } else {
                EXPECT_EQ(error->code(), 3840);
            }
        }
    }
    EXPECT_GT(readable, 0);
}

// --- Format detection ---------------------------------------------------------------

TEST(BinaryPropertyListDetection, Sniffing) {
    const std::string tag = "<plist version=\"1.0\">", head = "<?xml version=\"1.0\"?>";
    const std::vector<std::pair<std::string, QXPropertyListFormat>> cases = {
        {"bplist", 0},
        {"bplist00", 0},  // too short to hold anything
        {"bplist00\x08", 200},
        {"<?xml", 0},
        // The XML tag must lie within the first 300 bytes.
        {head + std::string(300 - head.size() - tag.size(), ' ') + tag, 100},
        {head + std::string(301 - head.size() - tag.size(), ' ') + tag, 0},
        {"<?xml bplist00 " + std::string(40, ' '), 0},
        // Without a declaration, leading white space and line ends are skipped.
        {" \n\t\r" + tag + "<dict/></plist>", 100},
        {"\xC2\xA0" + tag + "<dict/></plist>", 100},
        // Only the first thirty bytes are looked at, and only when they are UTF-8.
        {std::string(9, ' ') + tag, 100},
        {std::string(10, ' ') + tag, 0},
        {tag + std::string(7, 'x') + "\xC3\xA9", 100},
        {tag + std::string(8, 'x') + "\xC3\xA9", 0},  // a character cut at byte 30
    };
    for (const auto& [input, expected] : cases) {
        QXPropertyListFormat f = 0;
        EXPECT_EQ(PLS::isPropertyList(Data::withString(input), &f) ? f : 0, expected) << input;
    }
}

TEST(BinaryPropertyListDetection, GeneralReader) {
    QXPropertyListFormat format = 0;
    Ref<Error> error;
    auto value = PLS::propertyListWithData(write(str("s")), &format, &error);
    EXPECT_TRUE(value && value->isEqual(*str("s")));
    EXPECT_EQ(format, 200u);
    EXPECT_FALSE(error);
    // Data no reader recognises goes to the fallback, which fails with a reason.
    ScopedLogCapture logs;
    format = 0;
    EXPECT_FALSE(PLS::propertyListWithData(Data::withString("bplist00 but damaged beyond reading"), &format, &error));
    EXPECT_EQ(error->code(), 3840);
    EXPECT_EQ(format, 0u);
    EXPECT_FALSE(PLS::propertyListWithData(nullptr, &format, nullptr));
}

// --- UID and record ------------------------------------------------------------------

TEST(BinaryPropertyListUID, ValueIdentityAndCopies) {
    EXPECT_EQ(QXUIDPropertyList::initWithData(Data::withString("\x01\x02"))->int64Value(), 0x0102);
    EXPECT_EQ(QXUIDPropertyList::initWithData(Data::withString("\x01\x02\x03"))->int64Value(), 0);
    auto uid = QXUIDPropertyList::initWithInt64Value(-2);
    EXPECT_EQ(uid->description(), "<ffffffff fffffffe>");
    auto bytes = Data::withString("\x05");
    uid->setData(bytes);
    bytes->appendByte(6);  // copied when set
    EXPECT_EQ(uid->int64Value(), 5);
    auto copy = dyn_cast<QXUIDPropertyList>(uid->copy());
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->int64Value(), 5);
    EXPECT_FALSE(copy->isEqual(*uid));  // equal only to itself

    auto list = Array::create();
    auto record = QXBinaryPlistRecord::recordWithPropertyList(list, 42);
    list->addObject(str("later"));
    EXPECT_EQ(dyn_cast<Array>(record->propertyList())->count(), 0u);
}

} // namespace
