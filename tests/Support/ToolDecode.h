// ToolDecode.h - decoding compressed bytes with the standard command-line
// tools, so that tests of the writers check against decoders other than our own.
#pragma once

#include "QxProcessTest.h"

#include <QXFoundation/QXDecompressor.h>

#include <optional>

namespace qxtest {

// The standard decoder of algorithm's output, stdin to stdout (python3's zlib for zlib and raw deflate).
inline std::string decoderCommand(QXDecompressionAlgorithm algorithm) {
    switch (algorithm) {
    case QXDecompressionAlgorithmGzip: return "gzip -dc";
    case QXDecompressionAlgorithmBZip2: return "bzip2 -dc";
    case QXDecompressionAlgorithmXZ: return "xz -dc";
    case QXDecompressionAlgorithmRawDeflate:
    case QXDecompressionAlgorithmZlib:
    case QXDecompressionAlgorithmDeflateAny: {
        const char* bits = algorithm == QXDecompressionAlgorithmRawDeflate ? "-15" : "15";
        return std::string("python3 -c 'import sys, zlib; d = zlib.decompressobj(") + bits +
               "); sys.stdout.buffer.write(d.decompress(sys.stdin.buffer.read())); sys.exit(0 if d.eof and not "
               "d.unused_data else 3)'";
    }
    default: return "cat";
    }
}

// What a shell command writes for input; nothing when it fails.
inline std::optional<Bytes> runFilter(const std::string& filter, const Bytes& input) {
    TempDir dir("qx-tool-decode");
    const std::string in = dir.file("in", input), out = dir / "out";
    const std::string command = filter + " <" + shellQuote(in) + " >" + shellQuote(out);
    const int status = std::system(("bash -c " + shellQuote(command)).c_str());
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
    return readBytes(out);
}

// What the tool makes of input; nothing when it fails (damaged, truncated, or bytes after the end).
inline std::optional<Bytes> toolDecode(QXDecompressionAlgorithm algorithm, const Bytes& input) {
    return runFilter(decoderCommand(algorithm), input);
}

} // namespace qxtest
