// QXCodec.h - the one interface every format's decoder has towards the
// streaming decompressor, and what the decoders share.
//
// The streaming decompressor detects the format, makes one codec for it and
// then hands it every chunk of input. A codec keeps back whatever input it
// cannot use yet (a header cut short, the gzip trailer) and processes it
// ahead of the next chunk. Failures come back through QXCodecError (see
// QXCodecError.h), so every format reports with the same domains and log lines.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <cstddef>
#include <cstdint>
#include <memory>

class QXStoragePool;

// The output room of one decoder call, and the size of an input piece.
inline constexpr std::size_t kQXCodecBufferSize = 1048576;
// The most one zlib or libbz2 call can take (their counts are 32-bit).
inline constexpr std::uint64_t kQXCodecMaxPieceLength = 4294967295ULL;
// The most output storage kept for reuse between calls.
inline constexpr std::size_t kQXCodecMaxKeptOutput = 64 * kQXCodecBufferSize;

class QXCodec {
public:
    virtual ~QXCodec();
    QXCodec(const QXCodec&) = delete;
    QXCodec& operator=(const QXCodec&) = delete;

    /// Decodes one chunk (never null) and returns the output it produced,
    /// possibly empty, or nothing with the error. Once the stream has ended
    /// every call returns empty output. runAgain (never null, false on entry)
    /// asks the caller to call again with empty input for output still on
    /// its way.
    qx::Ref<qx::Data> decode(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain, qx::Ref<qx::Error>* error);

    /// True once the decoder reported the end of its stream.
    bool isFinished() const { return finished_; }
    /// Once the stream has ended: how many of the last bytes given (counted
    /// back from the end of the last call's input, and reaching into earlier
    /// input the codec held back) the stream did not use. Counted by the zlib
    /// family and bzip2; 0 for the others except for input given after the end.
    std::uint64_t unconsumedLength() const { return unconsumed_; }

    /// Stops work running on other threads (PBZX chunk decoders) with the
    /// error; later calls fail with it. Nothing for the other formats.
    virtual void cancelWithError(const qx::Ref<qx::Error>& error);
    /// The first error of work on other threads, or nothing.
    virtual qx::Ref<qx::Error> operationError() const;

protected:
    QXCodec();

    /// decode's work for one format; started() is false on the first call.
    virtual qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                          qx::Ref<qx::Error>* error) = 0;

    /// Whether an earlier chunk has reached the codec.
    bool started() const { return started_; }
    /// The held-back input joined in front of input (no copy when none is held).
    qx::Ref<qx::Data> joinHeld(const qx::Ref<qx::Data>& input);
    /// Input kept back for the next call.
    qx::Data& held() { return *held_; }
    /// Empty output storage, reused from outputs their holders have let go of.
    qx::Ref<qx::Data> reusableOutput();
    /// kQXCodecBufferSize bytes of room that stay with the codec, made on
    /// first use and left uninitialised: decoders only hand back bytes they wrote.
    std::uint8_t* scratch();
    /// kQXCodecBufferSize bytes of room for one decoder step whose output
    /// belongs at the end of out, and then the step's output put there.
    /// With inPlace (the input is large enough to fill the room) the room is
    /// out's own storage; otherwise it is scratch() and what the step wrote
    /// is appended, so that a call with a few input bytes does not clear a
    /// whole room of output storage for a few bytes of output.
    std::uint8_t* openRoom(qx::Data& out, bool inPlace);
    void closeRoom(qx::Data& out, bool inPlace, std::size_t produced);
    /// Whether input of length bytes decodes in place (see openRoom).
    static bool decodesInPlace(std::uint64_t length) { return length >= kQXCodecBufferSize / 16; }

    bool finished_ = false;
    std::uint64_t unconsumed_ = 0;  // set by codecs when finished_ becomes true

private:
    bool started_ = false;
    qx::Ref<qx::Data> held_;
    std::shared_ptr<QXStoragePool> output_;
    std::unique_ptr<std::uint8_t[]> scratch_;
};

/// Algorithm 0 and values outside the known ones: input passes through.
class QXStoredCodec final : public QXCodec {
protected:
    qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                  qx::Ref<qx::Error>* error) override;
};
