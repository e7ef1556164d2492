// DecompressorFuzzer.cpp - any bytes through automatic detection, whole and in pieces.
#include <QXFoundation/QXDecompressor.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    auto data = qx::Data::withBytes(bytes, size);
    qx::Ref<qx::Error> error;
    auto whole = QXDecompressor::decompressedDataFromData(data, QXDecompressionAlgorithmAutomatic, &error);
    if (!whole && !error) __builtin_trap();

    // The same bytes in three pieces must not change what a decoder may touch.
    auto streaming = QXDecompressor::initForStreamingAndReturnError();
    const std::size_t cuts[] = {size / 3, size / 3 * 2, size};
    std::size_t at = 0;
    for (std::size_t i = 0; i < 3 && streaming; ++i) {
        auto piece = qx::Data::withBytes(bytes + at, cuts[i] - at);
        at = cuts[i];
        bool again = false;
        if (!streaming->decompressedDataFromStreamWithInputData(piece, i == 2, &again)) break;
        while (again)
            if (!streaming->decompressedDataFromStreamWithInputData(qx::Data::create(), true, &again)) break;
    }
    // A decompressor dropped mid-stream leaves its cancelled chunk decoders to
    // wind down on the shared queue; let them, so that the leak check after
    // this input sees only what the input itself left behind.
    streaming = nullptr;
    QXDecompressor::operationQueue()->waitUntilAllOperationsAreFinished();
    return 0;
}
