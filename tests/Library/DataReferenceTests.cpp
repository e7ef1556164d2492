// Chunk lists, the edit walk, wrapped data, search answers, write-out and
// resource forks of QXDataReference.
#include "DataReferenceTestSupport.h"

#include <qx/KeyedArchiver.h>
#include <qx/NotificationCenter.h>

#include <unicode/ucnv.h>
#include <unicode/uchar.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace qxtest;

namespace {

class DataReferenceTest : public ::testing::Test {
protected:
    // A file of the given bytes, opened as a reference.
    QXDataReference::Ref open(const Bytes& bytes, const std::string& name = "file") {
        path_ = dir_.file(name, bytes);
        return openReference(path_);
    }
    TempDir dir_;
    std::string path_;
};

struct ChunkCase {
    const char* name;
    std::vector<Edit> edits;
    std::vector<ChunkView> chunks;
};

TEST_F(DataReferenceTest, EditsOnAHundredByteFileMakeTheseChunks) {
    const ChunkCase cases[] = {
        {"replace inside", {{10, 5, Bytes(3, 'x')}}, {fileChunk(0, 0, 10), memoryChunk(10, 3), fileChunk(13, 15, 85)}},
        {"insert at the front of a file chunk after a memory chunk",
         {{10, 5, Bytes(3, 'x')}, {13, 0, Bytes(2, 'y')}},
         {fileChunk(0, 0, 10), memoryChunk(10, 5), fileChunk(15, 15, 85)}},
        {"delete from the front of the only chunk", {{0, 10, {}}}, {fileChunk(0, 10, 90)}},
        {"insert at the very front", {{0, 0, Bytes(4, 'z')}}, {memoryChunk(0, 4), fileChunk(4, 0, 100)}},
        {"append at the very end", {{100, 0, Bytes(4, 'z')}}, {fileChunk(0, 0, 100), memoryChunk(100, 4)}},
        {"delete the tail", {{90, 10, {}}}, {fileChunk(0, 0, 90), memoryChunk(90, 0)}},
        // A deletion in the last chunk leaves an empty memory chunk at the cut.
        {"delete inside", {{40, 20, {}}}, {fileChunk(0, 0, 40), memoryChunk(40, 0), fileChunk(40, 60, 40)}},
        {"edit inside a memory chunk", {{10, 5, Bytes(6, 'x')}, {12, 2, Bytes(1, 'w')}},
         {fileChunk(0, 0, 10), memoryChunk(10, 5), fileChunk(15, 15, 85)}},
        {"a memory chunk emptied leaves the list", {{10, 5, Bytes(3, 'x')}, {10, 3, {}}}, {fileChunk(0, 0, 10), fileChunk(10, 15, 85)}},
    };
    const Bytes original = makePayload(100);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto reference = open(original);
        Bytes model = original;
        for (const auto& edit : c.edits) {
            edit.applyTo(*reference);
            edit.applyTo(model);
        }
        EXPECT_EQ(chunksOf(*reference), c.chunks);
        EXPECT_EQ(contentsOf(*reference), model);
        EXPECT_TRUE(listInvariantsHold(*reference));
    }
}

// The walk hands the edit on to the next chunk at that chunk's address, so
// an insertion before later chunks lands there a second time.
TEST_F(DataReferenceTest, InsertionBeforeLaterChunksIsRepeatedAtTheNextChunk) {
    const Bytes original = makePayload(100);
    auto reference = open(original);
    reference->replaceBytesInRange(QXDataRange{50, 0}, toData(Bytes{'A', 'B'}));
    reference->replaceBytesInRange(QXDataRange{10, 0}, toData(Bytes{'c', 'd'}));

    Bytes expected(original.begin(), original.begin() + 10);
    const std::vector<Bytes> pieces = {Bytes{'c', 'd'}, Bytes(original.begin() + 10, original.begin() + 50), Bytes{'c', 'd', 'A', 'B'},
                                       Bytes(original.begin() + 50, original.end())};
    for (const Bytes& piece : pieces)
        expected.insert(expected.end(), piece.begin(), piece.end());
    EXPECT_EQ(reference->size(), 106u);
    EXPECT_EQ(contentsOf(*reference), expected);
    EXPECT_TRUE(listInvariantsHold(*reference));
}

// Appending to the preceding memory chunk shifts the file chunk and its
// followers by the inserted count even when bytes were removed as well.
TEST_F(DataReferenceTest, ReplacementAppendedToAMemoryChunkShiftsFollowersByTheInsertedCount) {
    auto reference = open(makePayload(100));
    reference->replaceBytesInRange(QXDataRange{90, 0}, toData(Bytes{'e'}));
    reference->replaceBytesInRange(QXDataRange{10, 5}, toData(Bytes(3, 'x')));
    // file(0..10) memory(10, 3) file(13, fa 15) memory(88, 1) file(89, fa 90)
    reference->replaceBytesInRange(QXDataRange{13, 2}, toData(Bytes(3, 'z')));
    const auto chunks = chunksOf(*reference);
    ASSERT_GE(chunks.size(), 3u);
    EXPECT_EQ(chunks[1], memoryChunk(10, 6));
    EXPECT_EQ(chunks[2].address, 16u);      // 13 + 3, not 13 + 3 - 2
    EXPECT_EQ(chunks[2].fileAddress, 17u);  // the 2 removed bytes skipped in the file
}

TEST(FileChunkTest, LinkingTwoMemoryChunksMergesThemIntoTheSecond) {
    auto head = QXFileChunk::chunkWithFileAddress(0, 0);
    auto first = QXFileChunk::chunkWithData(toData("ab"), 10);
    auto second = QXFileChunk::chunkWithData(toData("cd"), 12);
    auto tail = QXFileChunk::chunkWithFileAddress(20, 14);
    second->setNextChunk(tail);
    head->setNextChunk(first);
    EXPECT_TRUE(first->setNextChunk(second));
    EXPECT_EQ(head->nextChunk(), second);
    EXPECT_EQ(second->previousChunk(), head);
    EXPECT_EQ(toString(second->data()), "abcd");
    EXPECT_EQ(second->address(), 10u);
    EXPECT_EQ(tail->address(), 14u);
    // A file chunk after a memory chunk only links.
    EXPECT_FALSE(second->setNextChunk(QXFileChunk::chunkWithFileAddress(0, 14)));
}

TEST(FileChunkTest, FixingAddressesMovesFollowersByKind) {
    auto memory = QXFileChunk::chunkWithData(toData("abc"), 0);
    auto file = QXFileChunk::chunkWithFileAddress(0, 5);
    auto last = QXFileChunk::chunkWithFileAddress(50, 40);
    memory->setNextChunk(file);
    file->setNextChunk(last);
    memory->setAddress(7, true);
    EXPECT_EQ(file->address(), 10u);  // after a memory chunk: its end
    EXPECT_EQ(last->address(), 45u);  // after a file chunk: the same shift
    memory->setAddress(0, false);
    EXPECT_EQ(file->address(), 10u);
}

TEST(FileChunkTest, DroppingALongListDoesNotRecursePerChunk) {
    auto head = QXFileChunk::chunkWithFileAddress(0, 0);
    auto chunk = head;
    for (std::uint64_t i = 1; i < 200'000; ++i) {
        auto next = QXFileChunk::chunkWithFileAddress(i, i);
        chunk->setNextChunk(next);
        chunk = next;
    }
    chunk.reset();
    head.reset();  // would overflow the stack if each chunk released the next recursively
}

TEST_F(DataReferenceTest, MergesAreUndoneExactly) {
    const Bytes original = makePayload(100);
    auto reference = open(original);
    auto undo = qx::UndoManager::create();
    reference->setUndoManager(undo);
    // Two memory chunks with a file chunk between; deleting the file chunk links them.
    const std::vector<Edit> edits = {{10, 0, Bytes(3, 'a')}, {20, 0, Bytes(2, 'b')}};
    for (const auto& edit : edits) {
        undo->beginUndoGrouping();
        edit.applyTo(*reference);
        undo->endUndoGrouping();
    }
    const Bytes before = contentsOf(*reference);
    undo->beginUndoGrouping();
    reference->replaceBytesInRange(QXDataRange{13, 7}, toData(Bytes{}));
    undo->endUndoGrouping();
    EXPECT_TRUE(listInvariantsHold(*reference));
    EXPECT_EQ(chunksOf(*reference).size(), 3u) << "the two memory chunks merge";
    ASSERT_TRUE(undo->undo());
    EXPECT_EQ(contentsOf(*reference), before);
    EXPECT_TRUE(listInvariantsHold(*reference));
}

struct WrappedCase {
    const char* name;
    QXDataRange range;
    std::string replacement, expected, afterUndo;
};

TEST(DataReferenceWrappedTest, EditsReplaceInPlaceWithTheLocationClipped) {
    const WrappedCase cases[] = {
        {"inside", {2, 3}, "XY", "01XY56789", "0123456789"},
        // The undo puts back the bytes of the range asked for, at the moved location.
        {"past the end moves the location to length - location", {8, 5}, "XY", "01XY789", "0189789"},
        {"beyond the end appends", {12, 0}, "XY", "0123456789XY", "0123456789"},
        {"pure deletion", {0, 10}, "", "", "0123456789"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto reference = QXDataReference::dataReferenceWithData(toData("0123456789"));
        auto undo = qx::UndoManager::create();
        reference->setUndoManager(undo);
        reference->replaceBytesInRange(c.range, toData(c.replacement));
        EXPECT_EQ(toString(reference->data()), c.expected);
        EXPECT_EQ(reference->size(), c.expected.size());
        ASSERT_TRUE(undo->undo());
        EXPECT_EQ(toString(reference->data()), c.afterUndo);
    }
}

TEST_F(DataReferenceTest, EveryChangeIsAnnouncedBeforeAndAfter) {
    auto reference = open(makePayload(100));
    int will = 0, did = 0, wrote = 0;
    auto center = qx::NotificationCenter::defaultCenter();
    const auto a = center->addObserver(QXDataReferenceWillChangeNotification, reference, [&](const auto&) { ++will; });
    // Primitives nest (setting the head clears its back link), so the
    // announcements pair up like brackets.
    const auto b = center->addObserver(QXDataReferenceDidChangeNotification, reference, [&](const auto&) {
        ++did;
        EXPECT_LE(did, will);
    });
    const auto c = center->addObserver(QXDataReferenceDidWriteOutNotification, reference, [&](const auto&) { ++wrote; });
    reference->replaceBytesInRange(QXDataRange{10, 5}, toData("abc"));
    EXPECT_GT(did, 0);
    EXPECT_EQ(will, did);
    EXPECT_TRUE(reference->writeToFileAndReturnError());
    EXPECT_EQ(wrote, 1);
    for (auto token : {a, b, c}) center->removeObserver(token);
}

TEST_F(DataReferenceTest, DiscardChangesShowsTheFileAgain) {
    const Bytes original = makePayload(100);
    auto reference = open(original);
    reference->replaceBytesInRange(QXDataRange{10, 5}, toData("abc"));
    reference->discardChanges();
    EXPECT_EQ(contentsOf(*reference), original);
    EXPECT_EQ(chunksOf(*reference), std::vector<ChunkView>{fileChunk(0, 0, 100)});
}

// ---- Searching ----

TEST(MacOSRomanUppercaseTest, AgreesWithTheCharacterSetsOwnLetters) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open("macintosh", &status);
    ASSERT_TRUE(U_SUCCESS(status));
    int changed = 0;
    for (unsigned byte = 0; byte < 256; ++byte) {
        const char in = static_cast<char>(byte);
        UChar unit[2];
        status = U_ZERO_ERROR;
        ucnv_toUChars(converter, unit, 2, &in, 1, &status);
        const UChar upper = static_cast<UChar>(u_toupper(unit[0]));
        char out[4] = {};
        status = U_ZERO_ERROR;
        const int32_t length = ucnv_fromUChars(converter, out, sizeof out, &upper, 1, &status);
        // Unmappable characters come back as a substitute: decode to be sure.
        UChar back[2] = {};
        UErrorCode backStatus = U_ZERO_ERROR;
        if (length == 1) ucnv_toUChars(converter, back, 2, out, 1, &backStatus);
        // The dotless i has the plain I as its upper case, yet stays as it is.
        const bool maps = upper != unit[0] && U_SUCCESS(status) && length == 1 && back[0] == upper && byte != 0xF5;
        const unsigned expected = maps ? static_cast<unsigned char>(out[0]) : byte;
        EXPECT_EQ(ConvertCharToUppercaseUsingMacOSRoman(static_cast<unsigned char>(byte)), expected) << "byte " << byte;
        changed += maps;
    }
    ucnv_close(converter);
    EXPECT_EQ(changed, 55);
}

struct SearchCase {
    const char* name;
    std::string text, pattern;
    std::uint64_t options;
    QXDataRange range, expected;
};

TEST(DataReferenceSearchTest, AnswersOfTheScanAndItsEarlyExits) {
    constexpr auto NF = QXDataReferenceNotFound;
    constexpr std::uint64_t CI = QXDataReferenceCaseInsensitiveSearch, BW = QXDataReferenceBackwardsSearch;
    const SearchCase cases[] = {
        {"found forwards", "xxabcxxabc", "abc", 0, {0, 10}, {2, 3}},
        {"found backwards: the last one", "xxabcxxabc", "abc", BW, {0, 10}, {7, 3}},
        {"ignoring case", "xxABCxx", "abc", CI, {0, 7}, {2, 3}},
        {"ignoring case, accented", "x\x8A\x9Ax", "\x80\x85", CI, {0, 4}, {1, 2}},
        {"case matters by default", "xxABCxx", "abc", 0, {0, 7}, {0, 0}},
        {"scanned without a match", "abcdefgh", "xyz", 0, {0, 8}, {0, 0}},
        {"backwards never tries the candidate at the location", "abc", "abc", BW, {0, 3}, {0, 0}},
        {"backwards finds one starting just after the location", "xabc", "abc", BW, {0, 4}, {1, 3}},
        {"pattern longer than the range", "abcdef", "abcd", 0, {0, 3}, {NF, 0}},
        {"empty range", "abcdef", "a", 0, {2, 0}, {NF, 0}},
        {"empty pattern", "abcdef", "", 0, {0, 6}, {NF, 0}},
        {"range past the end", "abcdef", "a", 0, {2, 5}, {NF, 0}},
        {"negative location", "abcdef", "a", 0, {~0ull - 3, 2}, {0, 0}},
        {"one byte at the range's last byte", "abcdef", "f", 0, {0, 6}, {5, 1}},
        {"match ending exactly at the range's end is found", "abcdef", "ef", 0, {2, 4}, {4, 2}},
        {"match past the range's end is not", "abcdef", "ef", 0, {0, 5}, {0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto reference = QXDataReference::dataReferenceWithData(toData(c.text));
        EXPECT_EQ(reference->fastSearch(toData(c.pattern), c.options, c.range), c.expected);
        EXPECT_EQ(reference->boyerMooreSearch(toData(c.pattern), c.options, c.range), c.expected);
    }
}

// The documented answers, computed the slow way.
QXDataRange bruteForce(const Bytes& text, const Bytes& pattern, std::uint64_t options, QXDataRange range) {
    const bool fold = options & QXDataReferenceCaseInsensitiveSearch;
    const auto same = [fold](std::uint8_t a, std::uint8_t b) {
        return fold ? ConvertCharToUppercaseUsingMacOSRoman(a) == ConvertCharToUppercaseUsingMacOSRoman(b) : a == b;
    };
    const std::uint64_t m = pattern.size(), first = range.location, last = range.location + range.length - m;
    const auto matches = [&](std::uint64_t s) {
        for (std::uint64_t i = 0; i < m; ++i)
            if (!same(text[s + i], pattern[i])) return false;
        return true;
    };
    if (options & QXDataReferenceBackwardsSearch) {
        for (std::uint64_t s = last; s > first; --s)
            if (matches(s)) return {s, m};
    } else {
        for (std::uint64_t s = first; s <= last; ++s)
            if (matches(s)) return {s, m};
    }
    return {0, 0};
}

TEST_F(DataReferenceTest, SearchAgreesWithBruteForceAcrossWindows) {
    std::mt19937_64 random(7);
    // A small alphabet with Mac OS Roman letters of both cases, so that
    // partial matches and case-folded ones are common.
    const Bytes alphabet = {'a', 'b', 'A', 'B', 0x8A, 0x80, 0xF5, 'I'};
    Bytes text(3 * 1024 * 1024 + 77);
    for (auto& byte : text) byte = alphabet[random() % alphabet.size()];
    auto reference = open(text);
    // Two chunks of different kinds so reads cross them.
    reference->replaceBytesInRange(QXDataRange{1048570, 0}, toData(Bytes{'b', 'A', 'b', 0x80}));
    text.insert(text.begin() + 1048570, {'b', 'A', 'b', 0x80});

    for (int i = 0; i < 40; ++i) {
        const std::uint64_t m = 1 + random() % 9;
        Bytes pattern;
        if (i % 3 == 0) {
            for (std::uint64_t k = 0; k < m; ++k) pattern.push_back(alphabet[random() % alphabet.size()]);
        } else {
            // From the text near a window boundary, so that matches straddle one.
            const std::uint64_t at = (1 + random() % 2) * 1048576 - random() % 12;
            pattern.assign(text.begin() + static_cast<std::ptrdiff_t>(at), text.begin() + static_cast<std::ptrdiff_t>(at + m));
        }
        const std::uint64_t options = random() % 2 ? std::uint64_t{QXDataReferenceCaseInsensitiveSearch} : 0;
        const std::uint64_t location = random() % 2 ? 0 : random() % 1000;
        const QXDataRange range{location, text.size() - location - random() % 1000};
        for (const std::uint64_t direction : {std::uint64_t{0}, std::uint64_t{QXDataReferenceBackwardsSearch}}) {
            SCOPED_TRACE("case " + std::to_string(i) + " direction " + std::to_string(direction));
            const auto expected = bruteForce(text, pattern, options | direction, range);
            EXPECT_EQ(reference->fastSearch(toData(pattern), options | direction, range), expected);
            EXPECT_EQ(reference->boyerMooreSearch(toData(pattern), options | direction, range), expected);
        }
    }
}

// ---- Writing out ----

struct WriteOutCase {
    const char* name;
    std::vector<Edit> edits;
};

TEST_F(DataReferenceTest, WriteOutRewritesTheSameFileWhicheverWayTheTailMoved) {
    const std::uint64_t size = 3 * 1024 * 1024 + 5;
    const WriteOutCase cases[] = {
        {"tail moved towards the end (staged)", {{size / 2, 0, Bytes{1}}}},
        {"tail moved towards the start (in place)", {{size / 2, 1, {}}}},
        // In rising order, so that each edit meets the last chunk and is exact.
        {"both", {{100, 0, Bytes(10, 1)}, {size / 2, 3000, {}}, {size - 3000, 0, Bytes(5000, 2)}}},
        {"front deleted", {{0, 1000, {}}}},
        {"everything deleted", {{0, size, {}}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes original = randomBytes(size, 3);
        auto reference = open(original);
        struct stat before {};
        ::stat(path_.c_str(), &before);
        Bytes model = original;
        for (const auto& edit : c.edits) {
            edit.applyTo(*reference);
            edit.applyTo(model);
        }
        qx::Ref<qx::Error> error;
        ASSERT_TRUE(reference->writeToFileAndReturnError(&error)) << qx::describe(error.get());
        EXPECT_EQ(readBytes(path_), model);
        struct stat after {};
        ::stat(path_.c_str(), &after);
        EXPECT_EQ(after.st_ino, before.st_ino) << "rewritten, not replaced";
        EXPECT_EQ(dir_.names(), std::vector<std::string>{"file"}) << "no temporary left behind";
        EXPECT_EQ(contentsOf(*reference), model) << "reopened after the write-out";
    }
}

TEST_F(DataReferenceTest, WriteOutToAnotherFileWritesEveryByte) {
    const Bytes original = randomBytes(200000, 4);
    auto reference = open(original);
    Bytes model = original;
    const Edit edit{50000, 10, Bytes(7, 9)};
    edit.applyTo(*reference);
    edit.applyTo(model);
    const std::string other = dir_.file("other", randomBytes(300000, 5));
    for (const std::string& target : {other, dir_ / "new"}) {
        // Each write-out reopens the reference on its target, which then holds the contents.
        ASSERT_TRUE(reference->writeToURL(qx::URL::fileURLWithPath(target), false));
        EXPECT_EQ(readBytes(target), model);
    }
    EXPECT_EQ(readBytes(path_), original);
}

TEST_F(DataReferenceTest, ArchivesItsFileAndForkChoice) {
    auto reference = open(makePayload(10));
    reference->setIsResourceFork(true);
    qx::Ref<qx::Error> error;
    auto archive = qx::KeyedArchiver::archivedDataWithRootObject(reference, true, &error);
    ASSERT_TRUE(archive) << qx::describe(error.get());
    auto back = qx::dyn_cast<QXDataReference>(qx::KeyedUnarchiver::unarchiveObjectWithData(archive, &error));
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->isResourceFork());
    EXPECT_EQ(back->URL()->path(), path_);
}

// ---- Resource forks ----

TEST_F(DataReferenceTest, ResourceForkIsReadEditedAndWrittenBackAlone) {
    const Bytes dataFork = makePayload(500), fork = randomBytes(3000, 6);
    path_ = dir_.file("forked", dataFork);
    if (!setFork(path_, fork)) GTEST_SKIP() << "no user extended attributes here";
    auto reference = openReference(path_, true);
    EXPECT_EQ(reference->size(), fork.size());
    EXPECT_EQ(contentsOf(*reference), fork);

    Bytes model = fork;
    for (const Edit& edit : {Edit{0, 10, Bytes(3, 2)}, Edit{100, 0, Bytes(50, 1)}, Edit{2000, 300, {}}}) {
        edit.applyTo(*reference);
        edit.applyTo(model);
    }
    qx::Ref<qx::Error> error;
    ASSERT_TRUE(reference->writeToFileAndReturnError(&error)) << qx::describe(error.get());
    EXPECT_EQ(forkOf(path_), model);
    EXPECT_EQ(readBytes(path_), dataFork);
    EXPECT_FALSE(reference->isResourceFork()) << "a write-out reopens the data fork";
}

TEST_F(DataReferenceTest, MissingForkIsEmpty) {
    auto reference = openReference(dir_.file("plain", makePayload(10)), true);
    EXPECT_EQ(reference->size(), 0u);
}

} // namespace
