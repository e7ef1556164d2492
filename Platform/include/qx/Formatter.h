// Formatter.h - the base of value formatters: object to text and back.
//
// A formatter turns an object into the text a user sees and edits, and that
// text back into an object. Subclasses override stringForObjectValue and
// getObjectValue; the attributed form and the check of partly typed text have
// defaults. Formatters keep no state between calls, so one instance may be
// used from several threads at once.
#pragma once

#include <qx/AttributedString.h>
#include <qx/Dictionary.h>
#include <qx/String.h>

#include <cstdint>

namespace qx {

/// A range of UTF-16 code units in a text.
struct Range {
    std::uint64_t location = 0;
    std::uint64_t length = 0;
    bool operator==(const Range&) const = default;
};

class Formatter : public Object {
public:
    /// The text for object, or nothing when this formatter does not show such objects.
    virtual Ref<String> stringForObjectValue(const Ref<Object>& object) const = 0;

    /// stringForObjectValue as attributed text with attributes over all of it;
    /// nothing when that is nothing.
    virtual Ref<AttributedString> attributedStringForObjectValue(const Ref<Object>& object,
                                                                 const Ref<Dictionary>& attributes) const;

    /// The object a text stands for. True and *object set on success; false on
    /// failure, with a reason for the user in *errorDescription when given.
    /// *object is left alone on failure.
    virtual bool getObjectValue(Ref<Object>* object, const Ref<String>& string,
                                Ref<String>* errorDescription = nullptr) const = 0;

    /// Whether partly typed text may stand while the user edits. The base
    /// accepts everything; a subclass may also replace the text and selection.
    virtual bool isPartialStringValid(Ref<String>* partialString, Range* proposedSelectedRange,
                                      const Ref<String>& originalString, Range originalSelectedRange,
                                      Ref<String>* errorDescription = nullptr) const;

    std::string className() const override { return "Formatter"; }

protected:
    Formatter() = default;
};

} // namespace qx
