// QXChecksum.h - one checksum or digest over data that arrives in pieces.
//
// The decompression drivers feed a QXChecksum with the bytes as they pass, so
// that a payload's checksum is known as soon as its last piece is through.
// CRC-32 and Adler-32 come from zlib, the digests from nettle.
//
// Output: for CRC-32 and Adler-32 the four bytes of the 32-bit value in the
// machine's byte order (26 39 F4 CB for CRC-32 of "123456789" on x86-64), not
// the big-endian order of the zlib and gzip formats; for the digests the
// digest's bytes.
//
// Identifiers 3 and 4 pair their routines crosswise, and this is kept on
// purpose because stored checksums depend on it: 3 starts an MD5 state and
// then runs MD2's update and finish over it; 4 starts an MD2 state and runs
// MD5's update and finish over it. Neither result is MD2 or MD5. The context
// storage is large enough for either routine and zeroed before it starts, so
// the pairing never touches memory outside it.
//
// Not safe for concurrent use; one object per thread or serial queue.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/Object.h>
#include <qx/URL.h>

#include <cstddef>
#include <cstdint>
#include <memory>

using QXChecksumAlgorithm = std::int64_t;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmNone = 0;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmCRC32 = 1;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmAdler32 = 2;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmMD2 = 3;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmMD5 = 4;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmSHA1 = 5;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmSHA224 = 6;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmSHA256 = 7;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmSHA384 = 8;
inline constexpr QXChecksumAlgorithm QXChecksumAlgorithmSHA512 = 9;

class QXChecksum : public qx::Object {
public:
    /// A checksum for algorithm 1 to 9, started; any other identifier gives
    /// an object that ignores its input and yields nothing.
    static qx::Ref<QXChecksum> initWithAlgorithm(QXChecksumAlgorithm algorithm);

    /// Checksum of data in one piece; nothing for identifiers outside 1 to 9.
    static qx::Ref<qx::Data> checksumForData(const qx::Ref<qx::Data>& data, QXChecksumAlgorithm algorithm);

    /// Checksum of a whole file, read 10,240 bytes at a time. Nothing with the
    /// opening's error when the file can't be opened; nothing and
    /// NSCocoaErrorDomain 256 (with the URL and the fault's text) when a read
    /// fails.
    static qx::Ref<qx::Data> checksumAtURL(const qx::Ref<qx::URL>& url, QXChecksumAlgorithm algorithm,
                                           qx::Ref<qx::Error>* error = nullptr);

    ~QXChecksum() override;

    QXChecksumAlgorithm algorithm() const { return algorithm_; }

    /// Adds the bytes (nothing adds nothing).
    void updateWithInputData(const qx::Ref<qx::Data>& data);
    /// Adds length bytes at bytes, without wrapping them in a Data.
    void updateWithInputData(const void* bytes, std::uint64_t length);

    /// Finishes and returns the output (see the file comment), or nothing for
    /// identifiers outside 1 to 9. A digest is finished in place: call this
    /// once, after the last update.
    qx::Ref<qx::Data> checksumData();

    std::string className() const override { return "QXChecksum"; }

protected:
    explicit QXChecksum(QXChecksumAlgorithm algorithm);

private:
    union DigestContext;

    QXChecksumAlgorithm algorithm_;
    std::unique_ptr<DigestContext> context_;  // identifiers 3 to 9
    std::uint64_t value_ = 0;                 // identifiers 1 and 2: the running 32-bit value
};
