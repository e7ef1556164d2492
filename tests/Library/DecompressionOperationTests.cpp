// DecompressionOperationTests.cpp - one chunk decoder on its own: life cycle,
// output through its bounded buffer, failures and cancelling at every stage.

#include "TestSupport.h"

#include <QXFoundation/QXDecompressionOperation.h>
#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXRingBuffer.h>

#include "DecompressorPayloads.h"

#include <qx/OperationQueue.h>

using namespace decompressorpayloads;
using qx::Error;

namespace {

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

// An operation whose output buffer holds only this many bytes, so its
// decoding thread waits for the consumer.
Ref<QXDecompressionOperation> withSmallBuffer(QXDecompressionAlgorithm algorithm, std::uint64_t bytes) {
    return QXDecompressionOperation::initWithAlgorithm(algorithm, QXRingBuffer::initWithCapacity(bytes));
}

// Waits, without sleeping a fixed time, until the operation's buffer is full:
// its decoding thread is then asleep on it or about to be.
void waitUntilFull(QXDecompressionOperation& op, std::uint64_t capacity) {
    while (op.availableOutputDataSize() < capacity) std::this_thread::yield();
}

} // namespace

// Finished only once started, and then once its output is all taken or an
// error ended it; each change announced to observers.
TEST(DecompressionOperation, LifeCycle) {
    for (bool failFirst : {true, false}) {
        SCOPED_TRACE(failFirst);
        auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmNone);
        ASSERT_TRUE(op);
        EXPECT_TRUE(op->isAsynchronous());
        // Nothing provided yet: an empty answer at once, never a wait.
        EXPECT_EQ(op->consumeOutputDataWithMaxLength(100)->length(), 0u);
        std::vector<std::string> seen;
        for (const char* key : {"isFinished", "isExecuting"})
            op->observable()->addObserver(key, [&](qx::Observable&, const std::string& k, const qx::Observable::Change&) {
                seen.push_back(k);
            });
        if (failFirst) {
            auto error = QXGenerateError("test", 7);
            op->cancelWithError(error);
            op->cancelWithError(QXGenerateError("later", 8));
            EXPECT_EQ(op->error(), error);  // the first error is kept
            EXPECT_TRUE(op->isCancelled());
            EXPECT_FALSE(op->isFinished());  // an error alone does not finish an operation not started
            EXPECT_EQ(seen, (std::vector<std::string>{"isFinished", "isExecuting"}));
            op->start();
            EXPECT_TRUE(op->isFinished());
            EXPECT_FALSE(op->isExecuting());
            continue;
        }
        op->start();
        EXPECT_TRUE(op->isExecuting());
        seen.clear();
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
        EXPECT_EQ(qxtest::toString(out), "hello world");
        // Output taken, but done is only noticed by a consume that finds it empty
        // after the last piece; waitForOutputData returns once nothing more can come.
        EXPECT_EQ(op->waitForOutputData(), 0u);
        EXPECT_EQ(op->consumeOutputDataWithMaxLength(100)->length(), 0u);
        EXPECT_TRUE(op->isDone() && op->isFinished() && !op->isExecuting());
        EXPECT_FALSE(op->error());
        EXPECT_EQ(std::count(seen.begin(), seen.end(), "isFinished"), 1);
    }
}

TEST(DecompressionOperation, XZInPiecesOnTheSharedQueueWithASmallBuffer) {
    const Bytes plain = makePayload(600000, 1);
    auto op = withSmallBuffer(QXDecompressionAlgorithmAutomatic, 4096);  // the decoding thread waits for us
    ASSERT_TRUE(op);
    ASSERT_TRUE(QXDecompressor::operationQueue()->addOperation(op));
    qxtest::forEachPiece(xzBytes(plain), 1000, [&](const std::uint8_t* bytes, std::size_t n, bool isLast) {
        op->provideInputData(Data::withBytes(bytes, n), isLast);
    });
    EXPECT_TRUE(drain(*op) == plain);
    EXPECT_FALSE(op->error());
    op->waitUntilFinished();  // the queue started it, and it finished itself
    EXPECT_TRUE(op->isStarted());
}

TEST(DecompressionOperation, FailuresCarryTheDecodersError) {
    Bytes corrupt = xzBytes(makePayload(50000, 2));
    corrupt[corrupt.size() / 2] ^= 0x40;
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmAutomatic);
    ASSERT_TRUE(op);
    op->start();
    op->provideInputData(toData(corrupt), true);
    drain(*op);
    EXPECT_QX_ERROR(op->error(), "lzma_code", LZMA_DATA_ERROR);
    // The decoding thread finishes the operation just after storing its error.
    EXPECT_TRUE(op->waitUntilFinished(std::chrono::steady_clock::now() + std::chrono::seconds(30)));

    // Data meant to be compressed that matches no format at all is corrupt,
    // not an empty result.
    op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmAutomatic);
    op->provideInputData(Data::withString("definitely not compressed"), true);
    drain(*op);
    EXPECT_QX_ERROR(op->error(), qx::NSCocoaErrorDomain, 259);
    EXPECT_FALSE(op->isFinished());  // never started
}

TEST(DecompressionOperation, CancelWhileFeedingSkipsTheRestOfTheInput) {
    const Bytes plain = makePayload(200000, 3);
    auto op = QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithmNone);
    ASSERT_TRUE(op);
    op->start();
    op->provideInputData(Data::withBytes(plain.data(), 1000), false);
    op->cancelWithError(nullptr);
    op->provideInputData(Data::withBytes(plain.data() + 1000, plain.size() - 1000), true);
    drain(*op);
    EXPECT_QX_ERROR(op->error(), qx::NSCocoaErrorDomain, 3072);  // no error given: cancelled
    EXPECT_TRUE(op->isCancelled());        // also when the error finished it first
    EXPECT_LE(op->consumeOutputDataWithMaxLength(UINT64_MAX)->length(), 1000u);
    EXPECT_TRUE(op->isFinished());
}

TEST(DecompressionOperation, CancelWakesADecoderAsleepOnAFullBuffer) {
    const Bytes plain = makePayload(100000, 4);
    // Stored bytes are written into the buffer, xz output straight from liblzma.
    for (auto algorithm : {QXDecompressionAlgorithmNone, QXDecompressionAlgorithmAutomatic}) {
        SCOPED_TRACE(algorithm);
        auto op = withSmallBuffer(algorithm, 1024);
        ASSERT_TRUE(op);
        ASSERT_TRUE(QXDecompressor::operationQueue()->addOperation(op));
        op->provideInputData(toData(algorithm == QXDecompressionAlgorithmNone ? plain : xzBytes(plain)), true);
        waitUntilFull(*op, 1024);
        // The consumer walks away without taking anything.
        op->cancelWithError(QXGenerateError("test", 1));
        op->waitUntilFinished();
        EXPECT_QX_ERROR(op->error(), "test", 1);
        qx::WeakRef<QXDecompressionOperation> weak = op;
        op.reset();
        EXPECT_TRUE(qxtest::allExpired(std::vector{weak}));
    }
}

TEST(DecompressionOperation, ReleasingTheOperationStopsItsQueuedInput) {
    auto op = withSmallBuffer(QXDecompressionAlgorithmNone, 1024);
    ASSERT_TRUE(op);
    qxtest::forEachPiece(makePayload(100000, 5), 10000, [&](const std::uint8_t* bytes, std::size_t n, bool) {
        op->provideInputData(Data::withBytes(bytes, n), false);
    });
    waitUntilFull(*op, 1024);
    qx::WeakRef<QXDecompressionOperation> weak = op;
    // Released while a piece waits on the full buffer: cancelling wakes it
    // and the queued pieces find the operation gone.
    op->cancelWithError(nullptr);
    op.reset();
    EXPECT_TRUE(qxtest::allExpired(std::vector{weak}));
}
