// QXSystemVersionPrivate.h - switches for the version file path of QXSystemVersion.
//
// Systems whose platform has no process-information service answer from
// their version file's "ProductVersion", read once per process. This platform
// always has the service; these switches let tests take the file path.
#pragma once

#include <string>

/// Takes (true) or leaves (false) the version-file path.
void QXSystemVersionForceLegacyPath(bool force);
/// The version file to read (default "/System/Library/CoreServices/SystemVersion.plist").
void QXSystemVersionSetLegacyPlistPath(const std::string& path);
/// Forgets the numbers read, so that the next query reads the file again.
void QXSystemVersionResetLegacyState();
