// QXChecksum.cpp - one checksum or digest over data that arrives in pieces.
#include <QXFoundation/QXChecksum.h>

#include <QXFoundation/QXError.h>

#include <qx/Exception.h>
#include <qx/FileHandle.h>

#include <nettle/md2.h>
#include <nettle/md5.h>
#include <nettle/sha1.h>
#include <nettle/sha2.h>
#include <zlib.h>

#include <cstring>

union QXChecksum::DigestContext {
    md2_ctx md2;
    md5_ctx md5;
    sha1_ctx sha1;
    sha256_ctx sha256;  // also SHA-224
    sha512_ctx sha512;  // also SHA-384
};

namespace {

// The largest piece handed to one routine: zlib's and the digest routines'
// lengths are 32-bit on some platforms.
constexpr std::uint64_t kMaxPiece = 4294967295u;
constexpr std::size_t kFileReadLength = 10240;

bool hasState(QXChecksumAlgorithm algorithm) {
    return algorithm >= QXChecksumAlgorithmCRC32 && algorithm <= QXChecksumAlgorithmSHA512;
}

} // namespace

QXChecksum::QXChecksum(QXChecksumAlgorithm algorithm) : algorithm_(algorithm) {
    switch (algorithm) {
    case QXChecksumAlgorithmCRC32: value_ = crc32(0, Z_NULL, 0); return;
    case QXChecksumAlgorithmAdler32: value_ = adler32(0, Z_NULL, 0); return;
    default: break;
    }
    if (!hasState(algorithm)) return;
    context_ = std::make_unique<DigestContext>();
    std::memset(context_.get(), 0, sizeof(DigestContext));
    switch (algorithm) {
    case QXChecksumAlgorithmMD2: md5_init(&context_->md5); break;  // crosswise on purpose
    case QXChecksumAlgorithmMD5: md2_init(&context_->md2); break;  // crosswise on purpose
    case QXChecksumAlgorithmSHA1: sha1_init(&context_->sha1); break;
    case QXChecksumAlgorithmSHA224: sha224_init(&context_->sha256); break;
    case QXChecksumAlgorithmSHA256: sha256_init(&context_->sha256); break;
    case QXChecksumAlgorithmSHA384: sha384_init(&context_->sha512); break;
    case QXChecksumAlgorithmSHA512: sha512_init(&context_->sha512); break;
    default: break;
    }
}

QXChecksum::~QXChecksum() = default;

qx::Ref<QXChecksum> QXChecksum::initWithAlgorithm(QXChecksumAlgorithm algorithm) {
    return qx::Ref<QXChecksum>(new QXChecksum(algorithm));
}

void QXChecksum::updateWithInputData(const qx::Ref<qx::Data>& data) {
    if (data) updateWithInputData(data->bytes(), data->length());
}

void QXChecksum::updateWithInputData(const void* bytes, std::uint64_t length) {
    if (!hasState(algorithm_)) return;
    auto* p = static_cast<const std::uint8_t*>(bytes);
    while (length > 0) {
        const std::uint64_t piece = length < kMaxPiece ? length : kMaxPiece;
        const auto n = static_cast<std::size_t>(piece);
        switch (algorithm_) {
        case QXChecksumAlgorithmCRC32: value_ = crc32(static_cast<uLong>(value_), p, static_cast<uInt>(n)); break;
        case QXChecksumAlgorithmAdler32: value_ = adler32(static_cast<uLong>(value_), p, static_cast<uInt>(n)); break;
        case QXChecksumAlgorithmMD2: md2_update(&context_->md2, n, p); break;
        case QXChecksumAlgorithmMD5: md5_update(&context_->md5, n, p); break;
        case QXChecksumAlgorithmSHA1: sha1_update(&context_->sha1, n, p); break;
        case QXChecksumAlgorithmSHA224: sha224_update(&context_->sha256, n, p); break;
        case QXChecksumAlgorithmSHA256: sha256_update(&context_->sha256, n, p); break;
        case QXChecksumAlgorithmSHA384: sha384_update(&context_->sha512, n, p); break;
        case QXChecksumAlgorithmSHA512: sha512_update(&context_->sha512, n, p); break;
        default: return;
        }
        p += piece;
        length -= piece;
    }
}

qx::Ref<qx::Data> QXChecksum::checksumData() {
    if (!hasState(algorithm_)) return nullptr;
    if (algorithm_ == QXChecksumAlgorithmCRC32 || algorithm_ == QXChecksumAlgorithmAdler32) {
        const auto value = static_cast<std::uint32_t>(value_);
        return qx::Data::withBytes(&value, sizeof value);  // machine byte order
    }
    std::size_t length = 0;
    switch (algorithm_) {
    case QXChecksumAlgorithmMD2: length = MD2_DIGEST_SIZE; break;
    case QXChecksumAlgorithmMD5: length = MD5_DIGEST_SIZE; break;
    case QXChecksumAlgorithmSHA1: length = SHA1_DIGEST_SIZE; break;
    case QXChecksumAlgorithmSHA224: length = SHA224_DIGEST_SIZE; break;
    case QXChecksumAlgorithmSHA256: length = SHA256_DIGEST_SIZE; break;
    case QXChecksumAlgorithmSHA384: length = SHA384_DIGEST_SIZE; break;
    default: length = SHA512_DIGEST_SIZE; break;
    }
    auto digest = qx::Data::create();
    digest->setLength(length);
    std::uint8_t* out = digest->mutableBytes();
    switch (algorithm_) {
    case QXChecksumAlgorithmMD2: md2_digest(&context_->md2, length, out); break;
    case QXChecksumAlgorithmMD5: md5_digest(&context_->md5, length, out); break;
    case QXChecksumAlgorithmSHA1: sha1_digest(&context_->sha1, length, out); break;
    case QXChecksumAlgorithmSHA224: sha224_digest(&context_->sha256, length, out); break;
    case QXChecksumAlgorithmSHA256: sha256_digest(&context_->sha256, length, out); break;
    case QXChecksumAlgorithmSHA384: sha384_digest(&context_->sha512, length, out); break;
    default: sha512_digest(&context_->sha512, length, out); break;
    }
    return digest;
}

qx::Ref<qx::Data> QXChecksum::checksumForData(const qx::Ref<qx::Data>& data, QXChecksumAlgorithm algorithm) {
    auto checksum = initWithAlgorithm(algorithm);
    checksum->updateWithInputData(data);
    return checksum->checksumData();
}

qx::Ref<qx::Data> QXChecksum::checksumAtURL(const qx::Ref<qx::URL>& url, QXChecksumAlgorithm algorithm,
                                            qx::Ref<qx::Error>* error) {
    qx::Ref<qx::Error> openError;
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url, &openError);
    if (!handle) {
        if (error) *error = openError;
        return nullptr;
    }
    auto checksum = initWithAlgorithm(algorithm);
    try {
        for (;;) {
            auto piece = handle->readDataOfLength(kFileReadLength);
            if (!piece || piece->length() == 0) break;
            checksum->updateWithInputData(piece);
        }
        handle->closeFile();
    } catch (const qx::Exception& exception) {
        try {
            handle->closeFile();
        } catch (const qx::Exception&) {
            // the read's fault is the one reported
        }
        if (error)
            *error = QXGenerateError(qx::NSCocoaErrorDomain, 256, url, nullptr, nullptr, "%s", exception.description());
        return nullptr;
    }
    return checksum->checksumData();
}
