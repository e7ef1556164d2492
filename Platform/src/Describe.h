// Describe.h - the nested text form shared by container descriptions.
#pragma once

#include <qx/Object.h>

#include <string>

namespace qx::detail {

/// Appends the description of object at the given nesting depth: containers
/// in the old-style brace/parenthesis form, strings quoted where needed.
void appendDescription(std::string& out, const Object* object, int depth);

} // namespace qx::detail
