// DecompressionOperationTests.cpp - one chunk decoder on its own: life cycle,
// output through its bounded buffer, failures and cancelling at every stage.
#include <gtest/gtest.h>

#include <QXFoundation/QXDecompressionOperation.h>
#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXError.h>

#include "DecompressorPayloads.h"
#include "Internal/QXDecompressorTesting.h"

#include <qx/OperationQueue.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

using qx::Data;
using qx::Error;
using qx::Ref;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes payload(std::size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes out(size);
    // Runs of repeated bytes, so that xz has something to do but the data is
    // not trivial.
    for (std::size_t i = 0; i < size;) {
        const std::uint8_t value = static_cast<std::uint8_t>(rng());
        for (std::size_t run = 1 + rng() % 40; run > 0 && i < size; --run) out[i++] = value;
    }
    return out;
}

Ref<Data> toData(const Bytes& b, std::size_t from = 0, std::size_t count = SIZE_MAX) {
    count = std::min(count, b.size() - from);
    return Data::withBytes(b.data() + from, count);
}

// Takes output until the operation has ended, sleeping in between.
Bytes drain(QXDecompressionOperation& op) {
    Bytes out;
    while (!op.hasEnded()) {
        op.waitForOutputData();
        auto piece = op.consumeOutputDataWithMaxLength(UINT64_MAX);
        out.insert(out.end(), piece->bytes(), piece->bytes() + piece->length());
    }
    return out;
}

// Sets a small ring buffer for the operations made while it lives.
class SmallBuffers {
public:
    explicit SmallBuffers(std::uint64_t bytes) { QXSetChunkBufferSizeForTesting(bytes); }
    ~SmallBuffers() { QXSetChunkBufferSizeForTesting(0); }
};

// Waits, without sleeping a fixed time, until the operation's buffer is full:
// its decoding thread is then asleep on it or about to be.
void waitUntilFull(QXDecompressionOperation& op, std::uint64_t capacity) {
    while (op.availableOutputDataSize() < capacity) std::this_thread::yield();
}

// A thread asleep on a full buffer keeps its operation alive; once woken it
// lets go. True when the operation went away before the deadline.
bool releasedInTime(qx::WeakRef<QXDecompressionOperation> weak) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!weak.expired()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace

TEST(DecompressionOperation, BufferSizeSharesOutFiveHundredMiBOverTheOperations) {
    const std::uint64_t processors = std::max(1u, std::thread::hardware_concurrency());
    EXPECT_EQ(QXDecompressionOperation::bufferSizePerOperation(), 524288000ULL / processors / 2);
    EXPECT_LE(QXDecompressionOperation::bufferSizePerOperation() * QXDecompressor::maxOperationCount(), 524288000ULL);
}

TEST(DecompressionOperation, FinishedOnlyAfterStartAndAnnouncedToObservers) {
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmNone);
    ASSERT_TRUE(op);
    EXPECT_TRUE(op->isAsynchronous());
    std::vector<std::string> seen;
    op->observable()->addObserver("isFinished", [&](qx::Observable&, const std::string& key, const qx::Observable::Change&) {
        seen.push_back(key);
    });
    op->observable()->addObserver("isExecuting", [&](qx::Observable&, const std::string& key, const qx::Observable::Change&) {
        seen.push_back(key);
    });

    auto error = QXGenerateError("test", 7);
    op->cancelWithError(error);
    EXPECT_EQ(op->error(), error);
    EXPECT_TRUE(op->isCancelled());
    EXPECT_FALSE(op->isFinished());  // an error alone does not finish an operation not started
    EXPECT_FALSE(op->isExecuting());
    EXPECT_EQ(seen, (std::vector<std::string>{"isFinished", "isExecuting"}));

    op->cancelWithError(QXGenerateError("later", 8));
    EXPECT_EQ(op->error(), error);  // the first error is kept
    op->start();
    EXPECT_TRUE(op->isFinished());
    EXPECT_FALSE(op->isExecuting());
}

TEST(DecompressionOperation, StartedOperationFinishesWhenItsOutputIsAllTaken) {
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmNone);
    ASSERT_TRUE(op);
    // Nothing provided yet: an empty answer at once, never a wait.
    EXPECT_EQ(op->consumeOutputDataWithMaxLength(100)->length(), 0u);
    EXPECT_EQ(op->availableOutputDataSize(), 0u);
    op->start();
    EXPECT_TRUE(op->isExecuting());
    std::vector<std::string> seen;
    op->observable()->addObserver("isFinished", [&](qx::Observable&, const std::string& key, const qx::Observable::Change&) {
        seen.push_back(key);
    });

    op->provideInputData(Data::withString("hello "), false);
    op->provideInputData(Data::withString("world"), true);
    op->provideInputData(Data::withString("ignored"), true);  // after the last piece
    Bytes out;
    while (out.size() < 11) {
        op->waitForOutputData();
        auto piece = op->consumeOutputDataWithMaxLength(3);  // never more than asked
        EXPECT_LE(piece->length(), 3u);
        out.insert(out.end(), piece->bytes(), piece->bytes() + piece->length());
    }
    EXPECT_EQ(std::string(out.begin(), out.end()), "hello world");
    // Output taken, but done is only noticed by a consume that finds it empty
    // after the last piece; waitForOutputData returns once nothing more can come.
    EXPECT_EQ(op->waitForOutputData(), 0u);
    EXPECT_EQ(op->consumeOutputDataWithMaxLength(100)->length(), 0u);
    EXPECT_TRUE(op->isDone());
    EXPECT_TRUE(op->isFinished());
    EXPECT_FALSE(op->error());
    EXPECT_EQ(seen, std::vector<std::string>{"isFinished"});
}

TEST(DecompressionOperation, XZInPiecesOnTheSharedQueueWithASmallBuffer) {
    SmallBuffers small(4096);  // far less than the output: the decoding thread waits for us
    const Bytes plain = payload(600000, 1);
    const Bytes packed = decompressorpayloads::xzBytes(plain);
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmAutomatic);
    ASSERT_TRUE(op);
    ASSERT_TRUE(QXDecompressor::operationQueue()->addOperation(op));
    for (std::size_t at = 0; at < packed.size(); at += 1000)
        op->provideInputData(toData(packed, at, 1000), at + 1000 >= packed.size());
    EXPECT_EQ(drain(*op), plain);
    EXPECT_FALSE(op->error());
    op->waitUntilFinished();  // the queue started it, and it finished itself
    EXPECT_TRUE(op->isStarted());
}

TEST(DecompressionOperation, FailuresCarryTheDecodersError) {
    const Bytes plain = payload(50000, 2);
    Bytes corrupt = decompressorpayloads::xzBytes(plain);
    corrupt[corrupt.size() / 2] ^= 0x40;
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmAutomatic);
    ASSERT_TRUE(op);
    op->start();
    op->provideInputData(toData(corrupt), true);
    drain(*op);
    ASSERT_TRUE(op->error());
    EXPECT_EQ(op->error()->domain(), "lzma_code");
    // The decoding thread finishes the operation just after storing its error.
    EXPECT_TRUE(op->waitUntilFinished(std::chrono::steady_clock::now() + std::chrono::seconds(30)));

    // Data meant to be compressed that matches no format at all is corrupt,
    // not an empty result.
    op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmAutomatic);
    op->provideInputData(Data::withString("definitely not compressed"), true);
    drain(*op);
    ASSERT_TRUE(op->error());
    EXPECT_EQ(op->error()->domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(op->error()->code(), 259);
    EXPECT_FALSE(op->isFinished());  // never started
}

TEST(DecompressionOperation, CancelWhileFeedingSkipsTheRestOfTheInput) {
    const Bytes plain = payload(200000, 3);
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmNone);
    ASSERT_TRUE(op);
    op->start();
    op->provideInputData(toData(plain, 0, 1000), false);
    op->cancelWithError(nullptr);
    op->provideInputData(toData(plain, 1000), true);
    drain(*op);
    ASSERT_TRUE(op->error());
    EXPECT_EQ(op->error()->code(), 3072);  // no error given: cancelled
    EXPECT_TRUE(op->isCancelled());        // also when the error finished it first
    EXPECT_LE(op->consumeOutputDataWithMaxLength(UINT64_MAX)->length(), 1000u);
    EXPECT_TRUE(op->isFinished());
}

TEST(DecompressionOperation, CancelWakesADecoderAsleepOnAFullBuffer) {
    SmallBuffers small(1024);
    const Bytes plain = payload(100000, 4);
    for (auto algorithm : {QXDecompressionAlgorithmNone, QXDecompressionAlgorithmAutomatic}) {
        SCOPED_TRACE(algorithm);
        auto op = QXDecompressionOperation::initWithAlgorithm(algorithm);
        ASSERT_TRUE(op);
        ASSERT_TRUE(QXDecompressor::operationQueue()->addOperation(op));
        const Bytes input = algorithm == QXDecompressionAlgorithmNone ? plain : decompressorpayloads::xzBytes(plain);
        op->provideInputData(toData(input), true);
        waitUntilFull(*op, 1024);
        // The consumer walks away without taking anything.
        op->cancelWithError(QXGenerateError("test", 1));
        op->waitUntilFinished();
        EXPECT_EQ(op->error()->domain(), "test");
        qx::WeakRef<QXDecompressionOperation> weak = op;
        op.reset();
        EXPECT_TRUE(releasedInTime(weak));
    }
}

TEST(DecompressionOperation, ReleasingTheOperationStopsItsQueuedInput) {
    SmallBuffers small(1024);
    const Bytes plain = payload(100000, 5);
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmNone);
    ASSERT_TRUE(op);
    for (std::size_t at = 0; at < plain.size(); at += 10000) op->provideInputData(toData(plain, at, 10000), false);
    waitUntilFull(*op, 1024);
    qx::WeakRef<QXDecompressionOperation> weak = op;
    // Released while a piece waits on the full buffer: cancelling wakes it
    // and the queued pieces find the operation gone.
    op->cancelWithError(nullptr);
    op.reset();
    EXPECT_TRUE(releasedInTime(weak));
}
