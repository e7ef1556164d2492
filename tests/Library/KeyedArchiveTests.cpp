// KeyedArchiveTests.cpp - keyed and sequential archives: round trips of plain
// graphs and of property-list trees, the archive's layout as python3's
// plistlib reads it, and damaged archives that must fail cleanly.
#include <gtest/gtest.h>

#include <QXFoundation/QXPropertyList.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "PropertyListTrees.h"
#include "TestSupport.h"

#include <qx/KeyedArchiver.h>
#include <qx/Null.h>

#include <cstdio>

using namespace qx;
using PL = QXPropertyList;

namespace {

Ref<Dictionary> sampleGraph() {
    auto shared = str("shared");
    auto d = Dictionary::create();
    d->setObject(str("tree"), "name");
    d->setObject(std::make_shared<Array>(Array{Number::withInt64(1), Number::withBool(true), shared, shared}), "items");
    auto nested = Dictionary::create();
    nested->setObject(str("v"), "k");
    d->setObject(nested, "nested");
    return d;
}


} // namespace

TEST(KeyedArchive, PlainGraphsRoundTripInBothFormats) {
    auto date = Date::withTimeIntervalSinceReferenceDate(123456.5);
    auto graph = sampleGraph();
    graph->setObject(std::make_shared<Array>(Array{date, Data::withString("bytes"), Null::null(), Number::withDouble(2.5)}),
                     "more");
    for (bool binary : {true, false}) {
        Ref<Error> error;
        auto data = KeyedArchiver::archivedDataWithRootObject(graph, binary, &error);
        ASSERT_TRUE(data) << describe(error.get());
        auto back = KeyedUnarchiver::unarchiveObjectWithData(data, &error);
        EXPECT_TRUE(qx::isEqual(back, graph)) << describe(back.get());
        auto sequential = SequentialArchiver::archivedDataWithRootObject(graph, binary, &error);
        ASSERT_TRUE(sequential);
        back = SequentialArchiver::unarchiveObjectWithData(sequential);
        EXPECT_TRUE(qx::isEqual(back, graph)) << describe(back.get());
    }
}

TEST(KeyedArchive, ReadByPlistlib) {
    if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0) GTEST_SKIP() << "no python3";
    qxtest::TempDir dir;
    const std::string script = QX_SOURCE_DIR "/tests/Support/keyed-archive-read.py";
    for (bool binary : {true, false}) {
        auto data = KeyedArchiver::archivedDataWithRootObject(sampleGraph(), binary);
        ASSERT_TRUE(data);
        const std::string path = dir.file("archive.plist", qxtest::toString(data));
        // The shared string is stored once and referred to twice.
        ASSERT_EQ(std::system(("python3 " + script + " " + path + " > " + (dir / "out")).c_str()), 0);
        EXPECT_EQ(qxtest::readFile(dir / "out"),
                  "{\"items\": [1, true, \"shared\", \"shared\"], \"name\": \"tree\", \"nested\": {\"k\": \"v\"}} 1\n");
    }
}

TEST(KeyedArchive, PropertyListTreesRoundTrip) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        auto tree = PL::propertyListWithUnwrappedValue(plisttree::randomTree(seed));
        tree->setKey(str("root key is not archived"));
        for (bool keyed : {true, false}) {
            auto data = keyed ? KeyedArchiver::archivedDataWithRootObject(tree, seed % 2 == 0)
                              : SequentialArchiver::archivedDataWithRootObject(tree, seed % 2 == 0);
            ASSERT_TRUE(data) << seed;
            auto back = dyn_cast<PL>(keyed ? KeyedUnarchiver::unarchiveObjectWithData(data)
                                           : SequentialArchiver::unarchiveObjectWithData(data));
            ASSERT_TRUE(back) << seed;
            EXPECT_TRUE(qx::isEqual(back->unwrappedPropertyList(), tree->unwrappedPropertyList())) << seed;
            EXPECT_EQ(back->typeCode(), tree->typeCode());
            EXPECT_FALSE(back->privateKey());
        }
    }
    // The fields as archived: the type code, the children, and keys under a dictionary only.
    auto tree = PL::propertyListWithUnwrappedValue(sampleGraph());
    auto archive = KeyedArchiver::archiveWithRootObject(tree);
    auto objects = archive->get<Array>("$objects");
    auto root = dyn_cast<Dictionary>((*objects)[1]);
    ASSERT_TRUE(root);
    EXPECT_EQ(root->get<Number>("TypeCode")->int64Value(), QXPropertyListDictionaryType);
    EXPECT_EQ(dyn_cast<QXUIDPropertyList>(root->objectForKey("Key"))->int64Value(), 0);
    auto classEntry = dyn_cast<Dictionary>((*objects)[dyn_cast<QXUIDPropertyList>(root->objectForKey("$class"))->int64Value()]);
    EXPECT_EQ(describe(classEntry->objectForKey("$classname").get()), "QXPropertyList");
}

TEST(KeyedArchive, DamagedArchivesFailCleanly) {
    auto uid = [](std::int64_t n) { return QXUIDPropertyList::initWithInt64Value(n); };
    auto good = [] { return KeyedArchiver::archiveWithRootObject(sampleGraph()); };
    std::vector<std::pair<std::string, Ref<Dictionary>>> cases;
    auto edit = [&](const std::string& name, const std::function<void(Dictionary&)>& change) {
        auto a = good();
        change(*a);
        cases.emplace_back(name, a);
    };
    edit("version", [](Dictionary& a) { a.setObject(Number::withInt64(99999), "$version"); });
    edit("no objects", [](Dictionary& a) { a.removeObjectForKey("$objects"); });
    edit("root out of range", [&](Dictionary& a) { a.get<Dictionary>("$top")->setObject(uid(1000), "root"); });
    edit("root not a UID", [](Dictionary& a) { a.get<Dictionary>("$top")->setObject(str("x"), "root"); });
    edit("class not a dictionary", [&](Dictionary& a) {
        auto objects = a.get<Array>("$objects");
        auto entry = std::make_shared<Dictionary>(*dyn_cast<Dictionary>((*objects)[1]));
        entry->setObject(uid(2), "$class");  // entry 2 is a string
        objects->replaceObjectAtIndex(1, entry);
    });
    for (const auto& [name, archive] : cases) {
        Ref<Error> error;
        EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithArchive(archive, &error)) << name;
        EXPECT_TRUE(qxtest::isError(error, NSCocoaErrorDomain, 4864)) << name;
    }
    // Arrays nested far deeper than the limit, the innermost holding the
    // outermost: decoding stops at the limit instead of exhausting the stack.
    const std::int64_t levels = 50000;
    auto objects = Array::create();
    objects->addObject(str("$null"));
    auto classEntry = Dictionary::create();
    classEntry->setObject(str("NSArray"), "$classname");
    for (std::int64_t i = 1; i <= levels; ++i) {
        auto entry = Dictionary::create();
        entry->setObject(std::make_shared<Array>(Array{uid(i == levels ? 1 : i + 1)}), "NS.objects");
        entry->setObject(uid(levels + 1), "$class");
        objects->addObject(entry);
    }
    objects->addObject(classEntry);
    auto archive = good();
    archive->setObject(objects, "$objects");
    archive->get<Dictionary>("$top")->setObject(uid(1), "root");
    auto array = dyn_cast<Array>(KeyedUnarchiver::unarchiveObjectWithArchive(archive));
    unsigned depth = 0;
    for (; array && !array->empty(); ++depth) array = dyn_cast<Array>((*array)[0]);
    EXPECT_EQ(depth, kArchiveMaxDepth - 1);
}
