// SlidingWindowTests.cpp - history kept by the window and copies by distance.
#include <QXFoundation/QXSlidingWindow.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <random>
#include <string>
#include <thread>

using qx::Ref;

namespace {

Ref<QXSlidingWindow> window(std::uint64_t capacity) {
    auto w = QXSlidingWindow::initWithCapacity(capacity);
    EXPECT_TRUE(w);
    return w;
}

void put(QXSlidingWindow& w, const std::string& s) { w.writeBytes(s.data(), s.size()); }

// Copies into a destination pre-filled with '.', so that bytes written past
// the returned count show up.
std::string copy(QXSlidingWindow& w, std::uint64_t distance, std::uint64_t length, std::uint64_t* count = nullptr) {
    std::string out(length + 4, '.');
    const auto n = w.getBytes(out.data(), distance, length);
    if (count) *count = n;
    EXPECT_EQ(out.find_first_not_of('.', n), std::string::npos) << "bytes written beyond the count";
    return out.substr(0, n);
}

} // namespace

TEST(SlidingWindow, LongWriteKeepsItsTailAndEndsExactlyAtTheEnd) {
    auto w = window(8);
    put(*w, "ABCDEFGHIJ");
    EXPECT_EQ(w->bytesInBuffer(), 8u);
    EXPECT_EQ(copy(*w, 8, 8), "CDEFGHIJ");
    EXPECT_EQ(copy(*w, 3, 2), "HI");
    EXPECT_EQ(copy(*w, 3, 5), "HIJ");    // stops at the newest byte
    EXPECT_EQ(copy(*w, 10, 4), "CD");    // two bytes older than the history are dropped
    EXPECT_EQ(copy(*w, 1, 1), "J");
    EXPECT_EQ(copy(*w, 0, 4), "");
    EXPECT_FALSE(w->isLocked());
}

TEST(SlidingWindow, CopiesAcrossTheWrap) {
    auto w = window(8);
    put(*w, "ABCDEFGHIJ");  // pointer at the very end, not yet looped
    put(*w, "KL");          // wraps first: storage KLEFGHIJ, pointer 2
    EXPECT_EQ(w->bytesInBuffer(), 8u);
    EXPECT_EQ(copy(*w, 4, 3), "IJK");
    EXPECT_EQ(copy(*w, 8, 8), "EFGHIJKL");
    EXPECT_EQ(copy(*w, 6, 2), "GH");    // wholly in the older part
    EXPECT_EQ(copy(*w, 2, 2), "KL");    // wholly in the newer part
    EXPECT_EQ(copy(*w, 12, 6), "EF");
    put(*w, "MNOPQRS");  // wraps mid-write
    EXPECT_EQ(copy(*w, 8, 8), "LMNOPQRS");
    EXPECT_EQ(w->dataWithDistanceFromEnd(5, 100)->view(), "OPQRS");
}

TEST(SlidingWindow, MatchesAModelOverRandomWrites) {
    auto w = window(37);
    std::mt19937 random(7);
    std::string all;
    for (int round = 0; round < 400; ++round) {
        std::string chunk(random() % 90, '\0');
        for (auto& c : chunk) c = static_cast<char>('a' + random() % 26);
        put(*w, chunk);
        all += chunk;
        const std::uint64_t held = std::min<std::uint64_t>(all.size(), 37);
        ASSERT_EQ(w->bytesInBuffer(), held);
        if (held == 0) continue;
        const std::uint64_t distance = 1 + random() % held;
        const std::uint64_t length = random() % 50;
        const std::string expected = all.substr(all.size() - distance, std::min(distance, length));
        ASSERT_EQ(copy(*w, distance, length), expected) << "round " << round;
    }
}

TEST(SlidingWindow, ClearBufferForgetsTheHistory) {
    auto w = window(4);
    put(*w, "abcdef");
    w->clearBuffer();
    EXPECT_EQ(w->bytesInBuffer(), 0u);
    put(*w, "xy");
    EXPECT_EQ(w->bytesInBuffer(), 2u);
    EXPECT_EQ(copy(*w, 2, 4), "xy");
    w->writeData(qx::Data::withString("z"));
    w->writeData(nullptr);
    EXPECT_EQ(copy(*w, 3, 3), "xyz");
}

TEST(SlidingWindow, CopyOfOnlyOlderBytesLeavesTheLockHeld) {
    struct Case {
        std::uint64_t distance, length;
    };
    for (const auto& c : {Case{5, 0}, Case{7, 2}, Case{9, 1}}) {
        auto w = window(8);
        put(*w, "12345");
        std::uint64_t count = 99;
        copy(*w, c.distance, c.length, &count);
        EXPECT_EQ(count, 0u);
        EXPECT_TRUE(w->isLocked()) << c.distance << "/" << c.length;
        EXPECT_EQ(w->bytesInBuffer(), 5u);  // reads without the lock
        // Unlocked reads and the capacity test still answer.
        EXPECT_EQ(w->dataWithDistanceFromEnd(8, 4)->length(), 0u);
    }
    auto w = window(8);
    put(*w, "12345");
    EXPECT_EQ(copy(*w, 7, 3), "1");  // partly inside the history: unlocked again
    EXPECT_FALSE(w->isLocked());
}

TEST(SlidingWindow, DistanceOfTheCapacityReturnsEmptyWithoutLocking) {
    auto w = window(8);
    EXPECT_EQ(w->dataWithDistanceFromEnd(8, 3)->length(), 0u);
    EXPECT_FALSE(w->isLocked());
    put(*w, "ab");
    EXPECT_EQ(w->dataWithDistanceFromEnd(2, 3)->view(), "ab");
}

TEST(SlidingWindow, CapacityLimits) {
    Ref<qx::Error> error;
    EXPECT_FALSE(QXSlidingWindow::initWithCapacity(0x7FFFFFFFFFFFFFFFull, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), qx::NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), EINVAL);
    error.reset();
    // Just below the limit passes the check and fails only for want of memory.
    EXPECT_FALSE(QXSlidingWindow::initWithCapacity(0x7FFFFFFFFFFFFFFEull, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), ENOMEM);
    auto empty = window(0);
    put(*empty, "abc");
    EXPECT_EQ(empty->bytesInBuffer(), 0u);
    EXPECT_EQ(empty->dataWithDistanceFromEnd(0, 3)->length(), 0u);
}

TEST(SlidingWindow, WriterAndReaderOnTwoThreadsSeeWholeWrites) {
    // Every write is one letter repeated over the whole capacity, so any copy
    // taken under the lock must be uniform; a torn copy mixes letters.
    auto w = window(256);
    put(*w, std::string(256, 'z'));  // a copy from an empty history would lock the window for good
    std::thread writer([&] {
        for (int i = 0; i < 4000; ++i) put(*w, std::string(256, static_cast<char>('a' + i % 26)));
    });
    int torn = 0;
    for (int i = 0; i < 4000; ++i) {
        const std::string s = copy(*w, 256, 256);
        if (!s.empty() && s.find_first_not_of(s[0]) != std::string::npos) ++torn;
    }
    writer.join();
    EXPECT_EQ(torn, 0);
}
