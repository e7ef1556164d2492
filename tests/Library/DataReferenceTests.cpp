// Chunk lists, the edit walk, wrapped data, search answers, write-out and
// archiving of QXDataReference.
#include "DataReferenceTestSupport.h"

#include <qx/KeyedArchiver.h>
#include <qx/NotificationCenter.h>

#include <unicode/ucnv.h>
#include <unicode/uchar.h>

#include <gtest/gtest.h>

#include <numeric>

using namespace qxtest;

namespace {

class DataReferenceTest : public ::testing::Test {
protected:
    // A file of the given bytes, opened as a reference.
    QXDataReference::Ref open(const Bytes& bytes) {
        path_ = dir_.file("file", bytes);
        return openReference(path_);
    }
    TempDir dir_;
    std::string path_;
};

// alsoDone: what the walk does besides the edits asked for.
struct ChunkCase { const char* name; std::vector<Edit> edits; std::string chunks; std::vector<Edit> alsoDone = {}; };

TEST_F(DataReferenceTest, EditsOnAHundredByteFileMakeTheseChunks) {
    const ChunkCase cases[] = {
        {"replace inside", {{10, 5, Bytes(3, 'x')}}, "f0/0:10 m10:3 f13/15:85"},
        {"insert just after a memory chunk", {{10, 5, Bytes(3, 'x')}, {13, 0, Bytes(2, 'y')}}, "f0/0:10 m10:5 f15/15:85"},
        {"delete from the front of the only chunk", {{0, 10, {}}}, "f0/10:90"},
        {"insert at the very front", {{0, 0, Bytes(4, 'z')}}, "m0:4 f4/0:100"},
        {"append at the very end", {{100, 0, Bytes(4, 'z')}}, "f0/0:100 m100:4"},
        {"delete the tail", {{90, 10, {}}}, "f0/0:90 m90:0"},
        // A deletion in the last chunk leaves an empty memory chunk at the cut.
        {"delete inside", {{40, 20, {}}}, "f0/0:40 m40:0 f40/60:40"},
        {"edit inside a memory chunk", {{10, 5, Bytes(6, 'x')}, {12, 2, Bytes(1, 'w')}}, "f0/0:10 m10:5 f15/15:85"},
        {"a memory chunk emptied leaves the list", {{10, 5, Bytes(3, 'x')}, {10, 3, {}}}, "f0/0:10 f10/15:85"},
        {"deleting the file chunk between two memory chunks merges them", {{10, 0, Bytes(3, 'a')}, {20, 0, Bytes(2, 'b')}, {13, 7, {}}},
         "f0/0:10 m10:5 f15/17:83"},
        // The walk hands the bytes on to the next chunk at that chunk's address.
        {"an insertion before later chunks lands there again", {{50, 0, Bytes{'A', 'B'}}, {10, 0, Bytes{'c', 'd'}}},
         "f0/0:10 m10:2 f12/10:40 m52:4 f56/50:50", {{52, 0, Bytes{'c', 'd'}}}},
        // Appended to the memory chunk before, the file chunk and its followers
        // move by the inserted count even when bytes were removed as well, and
        // each replacement lands again at the memory chunk that follows.
        {"a replacement at a memory chunk's end", {{90, 0, Bytes{'e'}}, {10, 5, Bytes(3, 'x')}, {13, 2, Bytes(3, 'z')}},
         "f0/0:10 m10:6 f16/17:75 m91:7 f98/90:10", {{89, 0, Bytes{90, 91, 'z', 'z', 'z', 'x', 'x', 'x'}}}},
    };
    Bytes original(100);
    std::iota(original.begin(), original.end(), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto reference = open(original);
        auto undo = qx::UndoManager::create();
        reference->setUndoManager(undo);
        Bytes model = original;
        for (const auto& edit : c.edits) {
            undo->beginUndoGrouping();
            applyAll({edit}, *reference, model);
            undo->endUndoGrouping();
        }
        applyAll(c.alsoDone, model);
        EXPECT_EQ(chunksOf(*reference), c.chunks);
        EXPECT_EQ(contentsOf(*reference), model);
        EXPECT_TRUE(listInvariantsHold(*reference));
        while (undo->canUndo()) ASSERT_TRUE(undo->undo());
        EXPECT_EQ(chunksOf(*reference), "f0/0:100");
        EXPECT_EQ(contentsOf(*reference), original);
    }
}

TEST(FileChunkTest, DroppingALongListDoesNotRecursePerChunk) {
    auto head = QXFileChunk::chunkWithFileAddress(0, 0);
    for (auto [chunk, i] = std::pair{head, std::uint64_t{1}}; i < 200'000; ++i, chunk = chunk->nextChunk())
        chunk->setNextChunk(QXFileChunk::chunkWithFileAddress(i, i));
    head.reset();  // would overflow the stack if each chunk released the next recursively
}

struct WrappedCase { const char* name; QXDataRange range; std::string replacement, expected, afterUndo; };

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
        ASSERT_TRUE(undo->undo());
        EXPECT_EQ(toString(reference->data()), c.afterUndo);
    }
}

TEST_F(DataReferenceTest, ChangesAreAnnouncedAndDiscardShowsTheFileAgain) {
    const Bytes original = makePayload(100);
    auto reference = open(original);
    int will = 0, did = 0, wrote = 0;
    auto center = qx::NotificationCenter::defaultCenter();
    const auto a = center->addObserver(QXDataReferenceWillChangeNotification, reference, [&](const auto&) { ++will; });
    // Primitives nest (setting the head clears its back link), so the
    // announcements pair up like brackets.
    const auto b = center->addObserver(QXDataReferenceDidChangeNotification, reference, [&](const auto&) { EXPECT_LE(++did, will); });
    const auto c = center->addObserver(QXDataReferenceDidWriteOutNotification, reference, [&](const auto&) { ++wrote; });
    reference->replaceBytesInRange(QXDataRange{10, 5}, toData("abc"));
    EXPECT_TRUE(did > 0 && will == did) << will << " will-change, " << did << " did-change";
    reference->discardChanges();
    EXPECT_EQ(contentsOf(*reference), original);
    EXPECT_EQ(chunksOf(*reference), "f0/0:100");
    EXPECT_TRUE(reference->writeToFileAndReturnError());
    EXPECT_EQ(wrote, 1);
    for (auto token : {a, b, c}) center->removeObserver(token);
}

TEST(MacOSRomanUppercaseTest, AgreesWithTheCharacterSetsOwnLetters) {
    UErrorCode status = U_ZERO_ERROR, backStatus = U_ZERO_ERROR;
    UConverter* converter = ucnv_open("macintosh", &status);
    ASSERT_TRUE(U_SUCCESS(status));
    int changed = 0;
    for (unsigned byte = 0; byte < 256; ++byte) {
        const char in = static_cast<char>(byte);
        UChar unit[2], back[2] = {};
        char out[4] = {};
        status = U_ZERO_ERROR;
        ucnv_toUChars(converter, unit, 2, &in, 1, &status);
        const UChar upper = static_cast<UChar>(u_toupper(unit[0]));
        status = U_ZERO_ERROR;
        const int32_t length = ucnv_fromUChars(converter, out, sizeof out, &upper, 1, &status);
        // Unmappable characters come back as a substitute: decode to be sure.
        if (length == 1) ucnv_toUChars(converter, back, 2, out, 1, &backStatus);
        // The dotless i has the plain I as its upper case, yet stays as it is.
        const bool maps = upper != unit[0] && U_SUCCESS(status) && length == 1 && back[0] == upper && byte != 0xF5;
        EXPECT_EQ(ConvertCharToUppercaseUsingMacOSRoman(static_cast<unsigned char>(byte)), maps ? static_cast<unsigned char>(out[0]) : byte);
        changed += maps;
    }
    ucnv_close(converter);
    EXPECT_EQ(changed, 55);
}

// The documented answers, computed the slow way.
QXDataRange bruteForce(const Bytes& text, const Bytes& pattern, std::uint64_t options, QXDataRange range) {
    const std::uint64_t m = pattern.size(), first = range.location, last = range.location + range.length - m;
    if (m == 0 || m > range.length || first + range.length > text.size()) return {QXDataReferenceNotFound, 0};
    const bool fold = options & QXDataReferenceCaseInsensitiveSearch;
    const auto matches = [&](std::uint64_t s) {
        for (std::uint64_t i = 0; i < m; ++i)
            if (fold ? ConvertCharToUppercaseUsingMacOSRoman(text[s + i]) != ConvertCharToUppercaseUsingMacOSRoman(pattern[i])
                     : text[s + i] != pattern[i])
                return false;
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

// Short texts put matches and ranges at every boundary; a long one has
// matches straddle the windows and the chunks.
TEST_F(DataReferenceTest, SearchAgreesWithBruteForce) {
    std::mt19937_64 random(7);
    // A small alphabet with Mac OS Roman letters of both cases, so that
    // partial matches and case-folded ones are common.
    const Bytes alphabet = {'a', 'b', 'A', 'B', 0x8A, 0x80, 0xF5, 'I'};
    const auto randomText = [&](std::uint64_t size) {
        Bytes text(size);
        for (auto& byte : text) byte = alphabet[random() % alphabet.size()];
        return text;
    };
    Bytes text = randomText(3 * 1024 * 1024 + 77);
    auto reference = open(text);
    applyAll({{1048570, 0, Bytes{'b', 'A', 'b', 0x80}}}, *reference, text);
    for (int i = 0; i < 400; ++i) {
        const bool small = i >= 40;
        const Bytes searched = small ? randomText(random() % 12) : Bytes{};
        const Bytes& t = small ? searched : text;
        const auto target = small ? QXDataReference::dataReferenceWithData(toData(searched)) : reference;
        const std::uint64_t m = small ? random() % 10 : 1 + random() % 9;
        Bytes pattern = randomText(m);
        if (i % 3 != 0 && m <= t.size()) {
            // From the text (near a window boundary), so that it matches.
            const std::uint64_t at = small ? random() % (t.size() - m + 1) : (1 + random() % 2) * 1048576 - random() % 12;
            pattern.assign(t.begin() + static_cast<std::ptrdiff_t>(at), t.begin() + static_cast<std::ptrdiff_t>(at + m));
        }
        const std::uint64_t options = random() % 2 ? std::uint64_t{QXDataReferenceCaseInsensitiveSearch} : 0;
        const std::uint64_t location = random() % (small ? t.size() + 3 : 1000) * (random() % 2);
        const QXDataRange range{location, small ? random() % (t.size() + 3) : t.size() - location - random() % 1000};
        for (const std::uint64_t direction : {std::uint64_t{0}, std::uint64_t{QXDataReferenceBackwardsSearch}}) {
            SCOPED_TRACE("case " + std::to_string(i) + " direction " + std::to_string(direction));
            const auto expected = bruteForce(t, pattern, options | direction, range);
            EXPECT_EQ(target->fastSearch(toData(pattern), options | direction, range), expected);
            EXPECT_EQ(target->boyerMooreSearch(toData(pattern), options | direction, range), expected);
        }
    }
    // A location that is negative as a signed number finds nothing without a look.
    EXPECT_EQ(reference->fastSearch(toData("a"), 0, QXDataRange{~0ull - 3, 2}), (QXDataRange{0, 0}));
    EXPECT_EQ(reference->boyerMooreSearch(toData("a"), 0, QXDataRange{~0ull - 3, 2}), (QXDataRange{0, 0}));
}

TEST_F(DataReferenceTest, WriteOutToAnotherFileWritesEveryByte) {
    Bytes model = randomBytes(200000, 4);
    const Bytes original = model;
    auto reference = open(model);
    applyAll({{50000, 10, Bytes(7, 9)}}, *reference, model);
    for (const std::string& target : {dir_.file("other", randomBytes(300000, 5)), dir_ / "new"}) {
        // Each write-out reopens the reference on its target, which then holds the contents.
        ASSERT_TRUE(reference->writeToURL(qx::URL::fileURLWithPath(target), false));
        EXPECT_EQ(readBytes(target), model);
    }
    EXPECT_EQ(readBytes(path_), original);
}

TEST_F(DataReferenceTest, ArchivesItsFileAndForkChoiceAndAMissingForkIsEmpty) {
    auto reference = open(makePayload(10));
    reference->setIsResourceFork(true);
    qx::Ref<qx::Error> error;
    auto archive = qx::KeyedArchiver::archivedDataWithRootObject(reference, true, &error);
    ASSERT_TRUE(archive) << qx::describe(error.get());
    auto back = qx::dyn_cast<QXDataReference>(qx::KeyedUnarchiver::unarchiveObjectWithData(archive, &error));
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->isResourceFork());
    EXPECT_EQ(back->URL()->path(), path_);
    EXPECT_EQ(openReference(path_, true)->size(), 0u);
}

} // namespace
