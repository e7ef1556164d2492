// DecompressCommand.h - `qx decompress`: a compressed payload to its bytes.
//
//   qx decompress [-a auto|none|deflate|raw-deflate|zlib|gzip|bzip2|xz|pbzx]
//                 [--offset N] [--length N] [--checksum ALG] [--in-place]
//                 SOURCE [-o DEST]
//
// SOURCE is a file, "-" for standard input (a pipe is read front to back),
// or an http or https URL, read with range requests where the server takes
// them. --offset and --length select the compressed bytes within SOURCE
// (default: all of it). -a auto, the default, names the format from the
// first bytes of that range; a range that starts with no known format is
// refused ("not in a known compressed format"), while -a none copies it.
//
// The output goes to DEST, else to standard output. A regular-file DEST is
// written beside itself and renamed into place only once everything
// succeeded; a DEST that is not a regular file (a pipe, a terminal,
// /dev/null) is written straight to and never replaced. --in-place replaces
// SOURCE, a regular file, the same way; as the library's in-place driver
// does, a payload that decompresses to nothing leaves SOURCE as it was.
//
// Gzip members and bzip2 streams that follow one another are all decoded,
// as one payload (see StreamChain.h); bytes after a stream that start no
// other are ignored with one warning line, "qx: SOURCE: warning: trailing
// garbage ignored", and do not fail the command.
//
// The command fails on what the streaming decoders let pass: a gzip, zlib
// or bzip2 payload must end with its trailer (see TrailerCheck.h), and so
// must every gzip member. For a zlib payload from an HTTP source whose
// server refuses ranges the trailer cannot be read back and this check is
// skipped.
//
// --checksum ALG (the names `qx checksum` takes) prints, once all is
// written, "ALG (decompressed): HEX" on standard error, so that it never
// mixes with output on standard output; HEX as `qx checksum` prints it.
//
// While it works, a progress line is drawn on standard error when that is a
// terminal (see ProgressLine.h).
//
// Exit statuses: 0 done; 1 failure, reported as one line "qx: NAME: REASON"
// (NAME is SOURCE for a read or decoding failure, DEST for a write failure)
// with no DEST and no temporary file left behind; 2 a usage error; 130 after
// SIGINT and 143 after SIGTERM, the partial output removed. A closed output
// pipe or a full disk is a write failure like any other: SIGPIPE and SIGXFSZ
// are ignored so that they are reported instead of killing silently.
#pragma once

#include "Command.h"

namespace qxtool {

void addDecompressCommand(CLI::App& app, Action& selected);

} // namespace qxtool
