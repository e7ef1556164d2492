// CompressCommand.h - `qx compress`: bytes to a gzip, zlib, raw deflate,
// bzip2 or xz payload, the mirror of `qx decompress`.
//
//   qx compress [-a gzip|zlib|deflate|bzip2|xz] [-l LEVEL] [-T THREADS]
//               [--offset N] [--length N] [--in-place] SOURCE [-o DEST]
//
// SOURCE is a file or "-" for standard input; --offset and --length select
// the bytes of SOURCE to compress (default: all of it). -a gzip is the
// default; "deflate" is raw deflate, with no header. -l is the library's
// level: 0..9 for the deflate family (default 6), 1..9 for bzip2 (its block
// size in 100 KB, default 9), 0..9 for xz (its preset, default 6); anything
// else is a usage error. -T is the number of threads, 0 (the default) one per
// processor; one thread writes the library's single stream, exactly what
// zlib, libbz2 or liblzma write at that level; two or more write blocks (see
// Internal/QXParallelCompressor.h) that the standard tools read, the same
// bytes for any count of two or more.
//
// The output goes to DEST, else to standard output ("-" too). A
// regular-file DEST is written beside itself and renamed into place only once
// everything succeeded; --in-place replaces SOURCE, a regular file, the same
// way (its name is kept). A progress line is drawn on standard error when
// that is a terminal and the output does not go to it.
//
// Exit statuses: 0 done; 1 failure, reported as one line "qx: NAME: REASON"
// (NAME is SOURCE for a read failure, DEST for a write failure) with no DEST
// and no temporary file left and SOURCE untouched; 2 a usage error; 130
// after SIGINT and 143 after SIGTERM, with no DEST left either.
#pragma once

#include "Command.h"

namespace qxtool {

void addCompressCommand(CLI::App& app, Action& selected);

} // namespace qxtool
