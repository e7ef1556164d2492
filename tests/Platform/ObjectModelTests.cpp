// ObjectModelTests.cpp - the platform's value objects and formatting.
#include <gtest/gtest.h>

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/Format.h>
#include <qx/Null.h>
#include <qx/Number.h>
#include <qx/Set.h>
#include <qx/URL.h>
#include <qx/UUID.h>

#include <cerrno>
#include <cstring>
#include <limits>

using namespace qx;

TEST(ObjectModelFormat, ObjectsAndPrintfConversionsMix) {
    auto s = str("abc");
    EXPECT_EQ(format("%@ (%d) %s %5.2f %% %lu", s, -43, "x", 3.14159, 7ul), "abc (-43) x  3.14 % 7");
    EXPECT_EQ(format("[%@]", Ref<Object>()), "[(null)]");
    EXPECT_EQ(format("%*d|%-3s|%.*s", 4, 7, "a", 2, "hello"), "   7|a  |he");
    EXPECT_EQ(format("%llu %lld %x %zu", 18446744073709551615ull, -9223372036854775807ll - 1, 255u, std::size_t{9}),
              "18446744073709551615 -9223372036854775808 ff 9");
    EXPECT_EQ(format("trailing %"), "trailing %");
    // Long output is not truncated.
    const std::string big(1000, 'x');
    EXPECT_EQ(format("%s|%@", big, str(big)), big + "|" + big);
}

TEST(ObjectModelNumber, EqualityComparesValuesAcrossKindsButBooleansStayBooleans) {
    EXPECT_TRUE(Number::withBool(true)->isBoolean());
    EXPECT_FALSE(Number::withInt64(1)->isBoolean());
    EXPECT_EQ(Number::withUInt64(std::numeric_limits<std::uint64_t>::max())->description(), "18446744073709551615");
    EXPECT_EQ(Number::withInt64(-5)->description(), "-5");
    EXPECT_TRUE(Number::withInt8(3)->isEqual(*Number::withDouble(3.0)));
    EXPECT_EQ(Number::withInt8(3)->hash(), Number::withDouble(3.0)->hash());
    EXPECT_TRUE(Number::withBool(true)->isEqual(*Number::withInt32(1)));
    // All ones as unsigned is not -1.
    EXPECT_FALSE(Number::withUInt64(std::numeric_limits<std::uint64_t>::max())->isEqual(*Number::withInt64(-1)));
    EXPECT_LT(Number::withInt64(-1)->compare(*Number::withUInt64(1ull << 63)), 0);
    EXPECT_FALSE(Number::withDouble(0.5)->isEqual(*Number::withInt64(0)));
}

TEST(ObjectModelString, UTF16ViewsCountCodeUnits) {
    auto s = str("a\xC3\xA9\xF0\x9F\x98\x80");  // a, e-acute, an emoji outside the BMP
    EXPECT_EQ(s->length(), 4u);
    EXPECT_EQ(s->utf16().size(), 4u);
    EXPECT_FALSE(s->isASCII());
    const unsigned char be[] = {0x00, 0x61, 0x00, 0xE9, 0xD8, 0x3D, 0xDE, 0x00};
    EXPECT_EQ(String::withUTF16BigEndian(be, 4)->utf8(), s->utf8());
    const char16_t lone[] = {0xD800, u'x'};
    EXPECT_EQ(String::withUTF16(lone, 2)->utf8(), "\xEF\xBF\xBDx");
}

TEST(ObjectModelString, StandardCompareIgnoresCaseAndReadsNumbersThenBreaksTies) {
    for (const auto& [a, b] : std::vector<std::pair<const char*, const char*>>{
             {"item2", "item10"}, {"apple", "Banana"}, {"Apple", "banana"}, {"A", "a"}}) {
        EXPECT_LT(str(a)->localizedStandardCompare(*str(b)), 0) << a << " " << b;
        EXPECT_GT(str(b)->localizedStandardCompare(*str(a)), 0) << b << " " << a;
    }
    EXPECT_EQ(str("same")->localizedStandardCompare(*str("same")), 0);
}

TEST(ObjectModelContainers, DictionaryKeepsInsertionOrderAndIndex) {
    auto d = Dictionary::create();
    for (int i = 0; i < 50; ++i) d->setObject(Number::withInt32(i), "k" + std::to_string(i));
    d->setObject(str("replaced"), "k3");
    d->removeObjectForKey("k0");
    d->removeObjectForKey("k10");
    ASSERT_EQ(d->count(), 48u);
    // Lookups after removals still find every key, and order is preserved.
    int expected = 1;
    for (const auto& [k, v] : *d) {
        if (expected == 10) ++expected;
        EXPECT_EQ(dyn_cast<String>(k)->utf8(), "k" + std::to_string(expected));
        ASSERT_TRUE(d->objectForKey(*k));
        ++expected;
    }
    EXPECT_EQ(d->get<String>("k3")->utf8(), "replaced");
    EXPECT_FALSE(d->objectForKey("k0"));
    d->setObject(nullptr, "k1");
    EXPECT_FALSE(d->objectForKey("k1"));
}

TEST(ObjectModelContainers, NonStringKeysAndCopiedMutableKeys) {
    auto d = Dictionary::create();
    d->setObject(str("one"), Number::withInt64(1));
    EXPECT_EQ(d->get<String>("1"), nullptr);
    EXPECT_EQ(dyn_cast<String>(d->objectForKey(*Number::withDouble(1.0)))->utf8(), "one");
    auto key = Data::withString("k");
    d->setObject(str("v"), key);
    key->appendByte('!');  // mutating the caller's key must not corrupt the table
    EXPECT_TRUE(d->objectForKey(*Data::withString("k")));
}

TEST(ObjectModelContainers, DeepEqualityAndShallowCopies) {
    auto inner = Array::create();
    inner->addObject(str("x"));
    auto a = std::make_shared<Array>(std::vector<Ref<Object>>{inner, Number::withInt64(2), Null::null()});
    auto b = dyn_cast<Array>(a->copy());
    EXPECT_NE(a, b);
    EXPECT_TRUE(a->isEqual(*b));
    inner->addObject(str("y"));  // shared by the shallow copy
    EXPECT_TRUE(a->isEqual(*b));
    b->removeObjectAtIndex(1);
    EXPECT_FALSE(a->isEqual(*b));

    auto s1 = Set::create(), s2 = Set::create();
    for (const char* v : {"a", "b", "a"}) s1->addObject(str(v));
    for (const char* v : {"b", "a"}) s2->addObject(str(v));
    EXPECT_EQ(s1->count(), 2u);
    EXPECT_TRUE(s1->isEqual(*s2));
}

TEST(ObjectModelContainers, DescriptionsNestInTextForm) {
    auto d = Dictionary::create();
    d->setObject(std::make_shared<Array>(std::vector<Ref<Object>>{str("a b"), Number::withInt64(1)}), "list");
    EXPECT_EQ(d->description(), "{\n    list = (\n        \"a b\",\n        1\n    );\n}");
    EXPECT_EQ(Data::withString("\x01\x02\x03\x04\x05")->description(), "<01020304 05>");
    EXPECT_EQ(Date::withTimeIntervalSinceReferenceDate(0)->description(), "2001-01-01 00:00:00 +0000");
}

TEST(ObjectModelURL, FileAndHTTPURLs) {
    const std::string path = "/tmp/a dir/na\xC3\xAFve%.txt";
    auto u = URL::fileURLWithPath(path);
    ASSERT_TRUE(u);
    EXPECT_TRUE(u->isFileURL());
    EXPECT_EQ(u->path(), path);
    EXPECT_EQ(u->lastPathComponent(), "na\xC3\xAFve%.txt");
    EXPECT_EQ(u->pathExtension(), "txt");
    EXPECT_EQ(u->absoluteString().find(' '), std::string::npos);
    EXPECT_EQ(u->URLByAppendingPathComponent("x")->path(), path + "/x");
    EXPECT_EQ(URL::fileURLWithPath(""), nullptr);

    auto h = URL::URLWithString("http://127.0.0.1:8080/files/a%20b.gz?x=1");
    ASSERT_TRUE(h);
    EXPECT_FALSE(h->isFileURL());
    EXPECT_EQ(h->scheme() + "|" + h->host() + "|" + std::to_string(h->port()) + "|" + h->path(),
              "http|127.0.0.1|8080|/files/a b.gz");
    EXPECT_TRUE(h->isEqual(*URL::URLWithString("http://127.0.0.1:8080/files/a%20b.gz?x=1")));
    EXPECT_EQ(URL::URLWithString("not a url"), nullptr);
}

TEST(ObjectModelUUID, StringFormRoundTrips) {
    auto u = UUID::create();
    const std::string s = u->UUIDString();
    ASSERT_EQ(s.size(), 36u);
    EXPECT_EQ(s[14], '4');
    EXPECT_TRUE(UUID::withString(s)->isEqual(*u));
    EXPECT_FALSE(UUID::create()->isEqual(*u));
    EXPECT_TRUE(UUID::withString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f"));
    for (const char* bad : {"e621e1f8-c36c-495a-93fc-0c247a3e6e5", "g621e1f8-c36c-495a-93fc-0c247a3e6e5f"})
        EXPECT_EQ(UUID::withString(bad), nullptr) << bad;
}

TEST(ObjectModelError, DescriptionFallsBackToPlatformTexts) {
    EXPECT_EQ(Error::create(NSPOSIXErrorDomain, ENOENT)->localizedDescription(), std::strerror(ENOENT));
    EXPECT_EQ(Error::create(NSPOSIXErrorDomain, ENOENT)->localizedFailureReason()->utf8(), std::strerror(ENOENT));
    EXPECT_EQ(Error::create(NSCocoaErrorDomain, 3072)->localizedDescription(), "The operation was cancelled.");
    EXPECT_EQ(Error::create("Nowhere", 7)->localizedDescription(),
              "The operation couldn’t be completed. (Nowhere error 7.)");
    EXPECT_EQ(Error::create("Nowhere", 7)->localizedFailureReason(), nullptr);
    EXPECT_EQ(Error::platformFailureReason(NSPOSIXErrorDomain, 100000), nullptr);
    auto info = Dictionary::create();
    info->setObject(str("mine"), NSLocalizedDescriptionKey);
    EXPECT_EQ(Error::create(NSPOSIXErrorDomain, ENOENT, info)->localizedDescription(), "mine");
}
