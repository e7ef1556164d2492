// SlidingWindowTests.cpp - history kept by the window and copies by distance.
#include "TestSupport.h"

#include <QXFoundation/QXSlidingWindow.h>

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

TEST(SlidingWindow, CopiesByDistanceStopAtTheNewestByteAndAcrossTheWrap) {
    using Case = std::tuple<std::uint64_t, std::uint64_t, const char*>;  // distance, length, expected
    auto w = window(8);
    auto check = [&](const std::vector<Case>& cases) {
        for (const auto& [distance, length, expected] : cases)
            EXPECT_EQ(copy(*w, distance, length), expected) << distance << "/" << length;
    };
    put(*w, "ABCDEFGHIJ");  // a long write keeps its tail; the pointer at the very end, not yet looped
    EXPECT_EQ(w->bytesInBuffer(), 8u);
    check({{8, 8, "CDEFGHIJ"}, {3, 2, "HI"}, {3, 5, "HIJ"}, {10, 4, "CD"}, {1, 1, "J"}, {0, 4, ""}});
    put(*w, "KL");  // wraps first: storage KLEFGHIJ, pointer 2
    check({{4, 3, "IJK"}, {8, 8, "EFGHIJKL"}, {6, 2, "GH"}, {2, 2, "KL"}, {12, 6, "EF"}});
    put(*w, "MNOPQRS");  // wraps mid-write
    check({{8, 8, "LMNOPQRS"}});
    EXPECT_EQ(w->dataWithDistanceFromEnd(5, 100)->view(), "OPQRS");
    EXPECT_FALSE(w->isLocked());
    w->clearBuffer();  // forgets the history
    EXPECT_EQ(w->bytesInBuffer(), 0u);
    EXPECT_EQ(w->dataWithDistanceFromEnd(8, 3)->length(), 0u);  // the whole capacity back: empty, not locked
    EXPECT_FALSE(w->isLocked());
    put(*w, "xy");
    w->writeData(qx::Data::withString("z"));
    w->writeData(nullptr);
    check({{3, 4, "xyz"}});
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

TEST(SlidingWindow, CopyOfOnlyOlderBytesLeavesTheLockHeld) {
    for (const auto& [distance, length] : {std::pair<std::uint64_t, std::uint64_t>{5, 0}, {7, 2}, {9, 1}}) {
        auto w = window(8);
        put(*w, "12345");
        std::uint64_t count = 99;
        copy(*w, distance, length, &count);
        EXPECT_EQ(count, 0u);
        EXPECT_TRUE(w->isLocked()) << distance << "/" << length;
        EXPECT_EQ(w->bytesInBuffer(), 5u);  // reads without the lock
        // Unlocked reads and the capacity test still answer.
        EXPECT_EQ(w->dataWithDistanceFromEnd(8, 4)->length(), 0u);
    }
    auto w = window(8);
    put(*w, "12345");
    EXPECT_EQ(copy(*w, 7, 3), "1");  // partly inside the history: unlocked again
    EXPECT_FALSE(w->isLocked());
}

TEST(SlidingWindow, CapacityLimits) {
    Ref<qx::Error> error;
    EXPECT_FALSE(QXSlidingWindow::initWithCapacity(0x7FFFFFFFFFFFFFFFull, &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, EINVAL);
    // Just below the limit passes the check and fails only for want of memory.
    EXPECT_FALSE(QXSlidingWindow::initWithCapacity(0x7FFFFFFFFFFFFFFEull, &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, ENOMEM);
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
