// ObjectModelTests.cpp - the platform's value objects and formatting.

#include "TestSupport.h"

#include <qx/Dictionary.h>
#include <qx/Format.h>
#include <qx/Number.h>
#include <qx/URL.h>

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
    EXPECT_TRUE(Number::withInt8(3)->isEqual(*Number::withDouble(3.0)));
    EXPECT_EQ(Number::withInt8(3)->hash(), Number::withDouble(3.0)->hash());
    EXPECT_TRUE(Number::withBool(true)->isEqual(*Number::withInt32(1)));
    // All ones as unsigned is not -1.
    EXPECT_FALSE(Number::withUInt64(std::numeric_limits<std::uint64_t>::max())->isEqual(*Number::withInt64(-1)));
    EXPECT_LT(Number::withInt64(-1)->compare(*Number::withUInt64(1ull << 63)), 0);
    EXPECT_FALSE(Number::withDouble(0.5)->isEqual(*Number::withInt64(0)));
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

TEST(ObjectModelURL, PathsAreEscapedAndUnescaped) {
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
    EXPECT_EQ(URL::URLWithString("http://127.0.0.1:8080/files/a%20b.gz?x=1")->path(), "/files/a b.gz");
    EXPECT_EQ(URL::URLWithString("not a url"), nullptr);
}
