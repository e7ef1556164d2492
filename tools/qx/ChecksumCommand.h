// ChecksumCommand.h - `qx checksum`: checksums and digests of files.
//
//   qx checksum --algorithm crc32|adler32|sha1|sha224|sha256|sha384|sha512 FILE...
//
// Prints one line per file, "HEX  NAME", as the sha*sum tools do ("-" reads
// standard input). CRC-32 and Adler-32 print as eight hexadecimal digits, most
// significant first (cbf43926 for CRC-32 of "123456789"). MD2 and MD5 are not
// offered: the library's identifiers 3 and 4 compute a crosswise pairing of
// the two, which is neither, and a command must not print that under a
// digest's name. A file that can't be read is reported and the rest still
// summed; the exit status is then 1.
#pragma once

#include "Command.h"

#include <QXFoundation/QXChecksum.h>

#include <map>
#include <string>

namespace qxtool {

/// The checksum names commands accept (crc32 ... sha512) and their identifiers.
const std::map<std::string, QXChecksumAlgorithm>& checksumAlgorithmsByName();

/// A checksum as lowercase hexadecimal, printed as `qx checksum` prints it.
std::string checksumText(const qx::Ref<qx::Data>& sum, QXChecksumAlgorithm algorithm);

void addChecksumCommand(CLI::App& app, Action& selected);

} // namespace qxtool
