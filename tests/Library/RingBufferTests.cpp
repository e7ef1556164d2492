// RingBufferTests.cpp - the byte queue alone and between two real threads.
#include "TestSupport.h"

#include <QXFoundation/QXRingBuffer.h>

using qx::Ref;

namespace {

Ref<QXRingBuffer> ring(std::uint64_t capacity) {
    auto r = QXRingBuffer::initWithCapacity(capacity);
    EXPECT_TRUE(r);
    return r;
}

std::uint64_t put(QXRingBuffer& r, const std::string& s, bool wait = false) { return r.writeBytes(s.data(), s.size(), wait); }

std::string take(QXRingBuffer& r, std::uint64_t n, bool wait = false) {
    return std::string(r.readDataOfLength(n, wait)->view());
}

// The byte at stream position i of a producer/consumer run.
std::uint8_t patternByte(std::uint64_t i) { return static_cast<std::uint8_t>((i * 2654435761u) >> 13); }

} // namespace

TEST(RingBuffer, WholeCapacityIsUsableAndNonWaitingCallsStopAtTheEdges) {
    auto r = ring(4);
    EXPECT_EQ(put(*r, "abcdef"), 4u);  // takes what fits, in one pass
    EXPECT_EQ(r->spaceAvailable(), 0u);
    EXPECT_EQ(put(*r, "x"), 0u);  // full
    EXPECT_EQ(take(*r, 10), "abcd");
    EXPECT_EQ(take(*r, 10), "");  // empty
    EXPECT_EQ(r->bytesWritten(), 4u);
    EXPECT_EQ(r->bytesRead(), 4u);
    put(*r, "wxyz");
    EXPECT_EQ(take(*r, 1000, true), "wxyz");  // bounded by the capacity, or it would wait for ever
    EXPECT_EQ(r->writeData(qx::Data::withString("pq"), false), 2u);
    EXPECT_EQ(r->writeData(nullptr), 0u);
    // Clearing empties and zeroes the totals; both positions start over.
    r->clearBuffer();
    EXPECT_EQ(r->bytesRead() + r->bytesWritten() + r->bytesAvailable(), 0u);
    EXPECT_EQ(put(*r, "1234"), 4u);
    EXPECT_EQ(take(*r, 4), "1234");

    auto none = ring(0);
    EXPECT_EQ(put(*none, "a"), 0u);
    EXPECT_EQ(take(*none, 1), "");
    EXPECT_EQ(none->writeBytes("a", 0, true), 0u);  // nothing to wait for
    char c;
    EXPECT_EQ(none->readBytes(&c, 0, true), 0u);
}

TEST(RingBuffer, ImpossibleCapacityFailsWithAnError) {
    Ref<qx::Error> error;
    EXPECT_FALSE(QXRingBuffer::initWithCapacity(~std::uint64_t{0}, &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, ENOMEM);
    EXPECT_FALSE(QXRingBuffer::initWithCapacity(std::uint64_t{1} << 62));  // no out-parameter: just nothing
}

// One producer and one consumer with random call sizes, mixing waiting and
// non-waiting calls on both sides; every byte and the totals are checked.
class RingBufferTransfer : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(RingBufferTransfer, EveryByteArrivesInOrder) {
    const std::uint64_t capacity = GetParam();
    const std::uint64_t total = 100'000 + capacity * 40;
    auto r = ring(capacity);
    std::thread producer([&] {
        std::mt19937_64 random(capacity);
        std::vector<std::uint8_t> chunk;
        std::uint64_t position = 0;
        while (position < total) {
            // Waiting calls stay within the capacity (see the header).
            const bool wait = random() % 3 == 0;
            const std::uint64_t limit = wait ? capacity : 3 * capacity;
            const std::uint64_t n = std::min<std::uint64_t>(1 + random() % limit, total - position);
            chunk.resize(n);
            for (std::uint64_t i = 0; i < n; ++i) chunk[i] = patternByte(position + i);
            std::uint64_t sent;
            if (random() % 4 == 0) {
                // In place: a random part of the room, which ends at the end
                // of storage or at the oldest unread byte.
                std::uint64_t room = 0;
                std::uint8_t* at = r->reserveWrite(&room, wait);
                sent = std::min<std::uint64_t>(room ? 1 + random() % room : 0, n);
                if (at) std::memcpy(at, chunk.data(), sent);
                r->commitWrite(sent);
            } else {
                sent = r->writeBytes(chunk.data(), n, wait);
                if (wait) { EXPECT_EQ(sent, n); }
            }
            if (sent == 0) sent = r->writeBytes(chunk.data(), std::min(n, capacity), true);  // full: wait for room
            position += sent;
        }
    });
    std::mt19937_64 random(capacity * 31);
    std::vector<std::uint8_t> buffer(3 * capacity);
    std::uint64_t position = 0;
    std::uint64_t mismatches = 0;
    while (position < total) {
        const bool wait = random() % 3 == 0;
        const std::uint64_t limit = wait ? capacity : 3 * capacity;
        const std::uint64_t n = std::min<std::uint64_t>(1 + random() % limit, total - position);
        std::uint64_t got;
        if (!wait && random() % 4 == 0) {
            auto appended = qx::Data::create();
            got = r->appendBytesToData(*appended, n);
            EXPECT_EQ(appended->length(), got);
            if (got > 0) std::memcpy(buffer.data(), appended->bytes(), got);
        } else {
            got = r->readBytes(buffer.data(), n, wait);
            if (wait) { EXPECT_EQ(got, n); }
        }
        if (got == 0) got = r->readBytes(buffer.data(), std::min(n, capacity), true);  // empty: wait for data
        for (std::uint64_t i = 0; i < got; ++i) mismatches += buffer[i] != patternByte(position + i);
        position += got;
    }
    producer.join();
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(r->bytesWritten(), total);
    EXPECT_EQ(r->bytesRead(), total);
}

INSTANTIATE_TEST_SUITE_P(Capacities, RingBufferTransfer, ::testing::Values(1, 7, 4096, 65536));

TEST(RingBuffer, CloseWakesSleepersForGoodAndKeepsTheBytesReadable) {
    auto r = ring(4);
    std::uint64_t wrote = 0;
    std::thread writer([&] { wrote = put(*r, "abcdefgh", true); });
    while (r->bytesAvailable() < 4) std::this_thread::yield();  // a part-way write wakes nobody
    // Whether the writer is already asleep or about to be, it must come back
    // with what it managed to put in.
    r->close();
    writer.join();
    EXPECT_EQ(wrote, 4u);
    EXPECT_TRUE(r->isClosed());
    char out[8] = {};
    EXPECT_EQ(r->readBytes(out, sizeof out, true), 4u);  // no longer waits for the rest
    EXPECT_EQ(std::string(out, 4), "abcd");
    EXPECT_EQ(r->waitForBytesAvailable(), 0u);
    EXPECT_EQ(put(*r, "xyz", true), 3u);  // room is still used; only waiting ends

    auto open = ring(16);
    std::thread late([&] { put(*open, "ab", true); });
    EXPECT_EQ(open->waitForBytesAvailable(), 2u);  // one write moves its bytes at once
    late.join();
    EXPECT_EQ(take(*open, 16), "ab");  // waiting took nothing out
    std::thread closer([&] { open->close(); });
    EXPECT_EQ(open->waitForBytesAvailable(), 0u);
    closer.join();
}

TEST(RingBuffer, ReservedRoomEndsAtTheEndOfStorageOrTheOldestUnreadByte) {
    auto r = ring(8);
    std::uint64_t room = 0;
    // Reserves (waiting or not), checks the room given and commits text into it.
    auto reserve = [&](bool wait, std::uint64_t expectedRoom, const std::string& text) {
        std::uint8_t* at = r->reserveWrite(&room, wait);
        ASSERT_TRUE(at);
        EXPECT_EQ(room, expectedRoom);
        std::memcpy(at, text.data(), text.size());
        r->commitWrite(text.size());
    };
    std::uint8_t* at = r->reserveWrite(&room);
    EXPECT_EQ(room, 8u);
    std::memcpy(at, "abcdef", 6);
    EXPECT_EQ(r->bytesAvailable(), 0u);  // nothing readable before the commit
    r->commitWrite(6);
    EXPECT_EQ(take(*r, 4), "abcd");
    reserve(false, 2, "gh");    // up to the end of storage, not round it
    reserve(false, 4, "ijkl");  // from the start up to the oldest unread byte
    EXPECT_FALSE(r->reserveWrite(&room, false));  // full, not waiting
    EXPECT_EQ(room, 0u);
    std::thread reader([&] { EXPECT_EQ(take(*r, 3, true), "efg"); });
    at = r->reserveWrite(&room, true);  // sleeps until the read makes room
    reader.join();
    EXPECT_TRUE(at && room == 3u);
    r->close();
    EXPECT_EQ(take(*r, 8), "hijkl");
    r->commitWrite(0);
    // Closed but not full: room is still given. Emptied, the buffer starts
    // over at its beginning, so all of it is one run again.
    reserve(true, 8, "mnopqrst");
    EXPECT_FALSE(r->reserveWrite(&room, true));  // closed and full: no sleeping
    EXPECT_EQ(take(*r, 3), "mno");
    reserve(true, 3, "uvw");  // not empty: no starting over
    EXPECT_EQ(take(*r, 8), "pqrstuvw");
}
