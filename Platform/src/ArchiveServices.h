// ArchiveServices.h - what the keyed and the sequential archivers share (private to Platform/).
#pragma once

#include <qx/KeyedArchiver.h>

namespace qx {

/// A copy of the installed property-list services (empty functions before installation).
ArchivePropertyLists archivePropertyLists();
/// An NSCocoaErrorDomain error with reason as its description.
Ref<Error> archiveError(std::int64_t code, const std::string& reason);

} // namespace qx
