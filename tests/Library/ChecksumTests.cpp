// ChecksumTests.cpp - QXChecksum: known values, pieces, files, the crosswise pair.

#include <QXFoundation/QXChecksum.h>

#include "TestSupport.h"

#include <qx/URL.h>

namespace {

using qxtest::randomBytes;
using qxtest::toData;

std::string hex(const qx::Ref<qx::Data>& data) {
    if (!data) return "(none)";
    std::string text;
    for (std::size_t i = 0; i < data->length(); ++i) text += "0123456789abcdef"[data->bytes()[i] >> 4], text += "0123456789abcdef"[data->bytes()[i] & 15];
    return text;
}

struct KnownValue { QXChecksumAlgorithm algorithm; const char* input; const char* output; };

// Published test vectors (empty input once per family); the 32-bit sums appear in the machine's (little-endian) byte order.
const KnownValue kKnown[] = {
    {QXChecksumAlgorithmCRC32, "", "00000000"},
    {QXChecksumAlgorithmCRC32, "123456789", "2639f4cb"},
    {QXChecksumAlgorithmAdler32, "", "01000000"},
    {QXChecksumAlgorithmAdler32, "Wikipedia", "9803e611"},
    {QXChecksumAlgorithmSHA1, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    {QXChecksumAlgorithmSHA1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {QXChecksumAlgorithmSHA224, "abc", "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
    {QXChecksumAlgorithmSHA256, "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {QXChecksumAlgorithmSHA256, "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {QXChecksumAlgorithmSHA384, "abc",
     "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7"},
    {QXChecksumAlgorithmSHA512, "abc",
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
};

TEST(Checksum, KnownValuesInOnePieceAndInMany) {
    for (const auto& k : kKnown) {
        SCOPED_TRACE(std::to_string(k.algorithm) + " of \"" + k.input + "\"");
        EXPECT_EQ(hex(QXChecksum::checksumForData(qx::Data::withString(k.input), k.algorithm)), k.output);
        auto checksum = QXChecksum::initWithAlgorithm(k.algorithm);
        for (const char* p = k.input; *p; ++p) {
            checksum->updateWithInputData(qx::Data::withBytes(p, 1));
            checksum->updateWithInputData(qx::Data::create());  // an empty piece changes nothing
            checksum->updateWithInputData(nullptr);
        }
        EXPECT_EQ(hex(checksum->checksumData()), k.output);
    }
}

TEST(Checksum, RandomPiecesGiveTheOneShotValue) {
    const auto data = toData(randomBytes(100000, 1));
    std::mt19937 rng(2);
    for (QXChecksumAlgorithm algorithm = 1; algorithm <= 9; ++algorithm) {
        SCOPED_TRACE(algorithm);
        const auto once = QXChecksum::checksumForData(data, algorithm);
        ASSERT_TRUE(once);
        auto checksum = QXChecksum::initWithAlgorithm(algorithm);
        for (std::size_t at = 0; at < data->length();) {
            const std::size_t n = std::min<std::size_t>(data->length() - at, rng() % 5000);
            checksum->updateWithInputData(data->bytes() + at, n);
            at += n;
        }
        EXPECT_EQ(hex(checksum->checksumData()), hex(once));
    }
}

TEST(Checksum, IdentifiersWithoutAnAlgorithmGiveNothing) {
    for (QXChecksumAlgorithm algorithm : {0, 10, -1, 1000}) {
        SCOPED_TRACE(algorithm);
        EXPECT_FALSE(QXChecksum::checksumForData(qx::Data::withString("abc"), algorithm));
        auto checksum = QXChecksum::initWithAlgorithm(algorithm);
        checksum->updateWithInputData(qx::Data::withString("abc"));
        EXPECT_FALSE(checksum->checksumData());
    }
}

// The pairing of identifiers 3 and 4 computes something of its own; what
// matters is that it is stable and not passed off as the digest its name suggests.
TEST(Checksum, TheCrosswisePairIsNeitherDigestButIsStable) {
    const auto abc = qx::Data::withString("abc");
    const auto three = hex(QXChecksum::checksumForData(abc, QXChecksumAlgorithmMD2));
    const auto four = hex(QXChecksum::checksumForData(abc, QXChecksumAlgorithmMD5));
    EXPECT_NE(three, "da853b0d3f88d99b30283a69e6ded6bb");  // the digests of "abc"
    EXPECT_NE(four, "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_TRUE(three != four && three.size() == 32 && four.size() == 32) << three << " " << four;
    EXPECT_NE(hex(QXChecksum::checksumForData(qx::Data::withString("abd"), QXChecksumAlgorithmMD5)), four);
}

TEST(ChecksumFile, AFileGivesTheChecksumOfItsBytes) {
    qxtest::TempDir dir;
    // Sizes around the 10,240-byte read.
    for (std::size_t size : {0u, 1u, 10239u, 10240u, 10241u, 30721u}) {
        const auto bytes = randomBytes(size, static_cast<unsigned>(size));
        const auto url = qx::URL::fileURLWithPath(dir.file("f", bytes));
        for (auto algorithm : {QXChecksumAlgorithmCRC32, QXChecksumAlgorithmSHA256, QXChecksumAlgorithmSHA512}) {
            qx::Ref<qx::Error> error;
            EXPECT_EQ(hex(QXChecksum::checksumAtURL(url, algorithm, &error)),
                      hex(QXChecksum::checksumForData(toData(bytes), algorithm))) << size;
            EXPECT_FALSE(error);
        }
    }
}

TEST(ChecksumFile, OpeningAndReadingFailuresAreErrors) {
    qxtest::TempDir dir;
    qx::Ref<qx::Error> error;
    // The opening's own error: the platform's "no such file".
    EXPECT_FALSE(QXChecksum::checksumAtURL(qx::URL::fileURLWithPath(dir / "missing"), QXChecksumAlgorithmSHA1, &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 260);
    // A directory opens but cannot be read.
    error = nullptr;
    auto directory = qx::URL::fileURLWithPath(dir.path().string());
    EXPECT_FALSE(QXChecksum::checksumAtURL(directory, QXChecksumAlgorithmSHA1, &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 256);
    EXPECT_NE(error->localizedDescription().find(std::strerror(EISDIR)), std::string::npos)
        << error->localizedDescription();
    EXPECT_FALSE(QXChecksum::checksumAtURL(directory, QXChecksumAlgorithmSHA1));  // no error asked for
}

} // namespace
