// QXPropertyListSerialization.h - reading and writing property lists.
//
// The library's own serialiser. Writing never relies on anything else; reading
// tries the library's readers first and passes data they cannot read to the
// fallback reader. All operations are class operations.
//
// Thread safety: calls on separate values may run on separate threads at once;
// the only state kept between calls is the shared display formatters, made under a lock.
#pragma once

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/DateFormatter.h>
#include <qx/Error.h>
#include <qx/Number.h>
#include <qx/NumberFormatter.h>
#include <qx/String.h>
#include <qx/StringEncoding.h>

#include <cstdint>
#include <string>
#include <vector>

/// Property-list format codes.
using QXPropertyListFormat = std::uint64_t;
inline constexpr QXPropertyListFormat QXPropertyListOpenStepFormat = 1;
inline constexpr QXPropertyListFormat QXPropertyListXMLFormat_v1_0 = 100;
inline constexpr QXPropertyListFormat QXPropertyListBinaryFormat_v1_0 = 200;

class QXBinaryPlistTrailer;

/// Options of the binary writer.
using QXBinaryPlistWriteOptions = std::uint64_t;
/// The writer's one width for references and offsets is chosen from the value
/// count without dictionary keys, and a file that outgrows it is written with
/// its references and offsets cut (readers of such files expect that width,
/// so it stays the default). With this option the width grows until it holds
/// every object number (keys counted) and every offset, so the file reads back.
inline constexpr QXBinaryPlistWriteOptions QXBinaryPlistWidenReferences = 1;

/// Containers (the root counts) an XML property list may nest, for reading
/// and writing alike. The XML parser refuses documents whose elements nest
/// deeper than 256 (the plist element and the innermost value element
/// included), so the writer refuses what could not be read back.
inline constexpr unsigned QXXMLPlistMaxNestingDepth = 250;

/// Limits that keep decoding of untrusted binary files bounded.
///
/// At most this many containers may enclose one another (the root counts);
/// deeper files are refused, and the writer refuses the same depth, so
/// whatever the reader returns can be written back. 512 levels is far beyond real documents and
/// keeps the recursion well inside a secondary thread's stack.
inline constexpr unsigned QXBinaryPlistMaxNestingDepth = 512;
/// Objects a file may share by reference (one object referenced from several
/// containers) expand when decoded. Decoding counts every object it produces,
/// and refuses a file once that count passes this many per byte of input
/// (plus a fixed allowance for small files): a file with no sharing produces
/// at most one object per reference byte, so honest files stay far below,
/// while a chain of doubly referenced containers cannot expand exponentially.
inline constexpr std::uint64_t QXBinaryPlistMaxObjectsPerInputByte = 4;
inline constexpr std::uint64_t QXBinaryPlistObjectAllowance = 1u << 16;

class QXPropertyListSerialization {
public:
    QXPropertyListSerialization() = delete;

    // --- Entry points -----------------------------------------------------

    /// True when data is recognised as an XML or binary property list; then
    /// *format (when given) is 100 or 200.
    static bool isPropertyList(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format);

    /// Reads a property list of any recognised format. On success *format
    /// (when given) holds the format read.
    static qx::Ref<qx::Object> propertyListWithData(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format,
                                                    qx::Ref<qx::Error>* error = nullptr);

    /// Writes plist in format 1, 100 or 200; any other format fails with
    /// NSPOSIXErrorDomain 22.
    static qx::Ref<qx::Data> dataWithPropertyList(const qx::Ref<qx::Object>& plist, QXPropertyListFormat format,
                                                  qx::Ref<qx::Error>* error = nullptr);
    /// The same with options for the binary writer (ignored by the other formats).
    static qx::Ref<qx::Data> dataWithPropertyList(const qx::Ref<qx::Object>& plist, QXPropertyListFormat format,
                                                  QXBinaryPlistWriteOptions options,
                                                  qx::Ref<qx::Error>* error = nullptr);

    /// Writes the binary "bplist00" form.
    static qx::Ref<qx::Data> binaryDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                        qx::Ref<qx::Error>* error = nullptr);
    /// The same with writer options (QXBinaryPlistWriteOptions).
    static qx::Ref<qx::Data> binaryDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                        QXBinaryPlistWriteOptions options,
                                                        qx::Ref<qx::Error>* error = nullptr);

    /// Reads the binary form (the header is not looked at).
    static qx::Ref<qx::Object> binaryPropertyListWithData(const qx::Ref<qx::Data>& data,
                                                          qx::Ref<qx::Error>* error = nullptr);

    // --- Binary writer helpers ----------------------------------------------
    // Each appends to a growing buffer and reports success; buffers are passed
    // by reference because they are never nothing.

    /// The number of values in plist as the writer counts them to choose the
    /// reference width: a dictionary is 1 plus the counts of its values (keys
    /// are not counted), an array 1 plus the counts of its elements, anything
    /// else 1.
    static std::uint64_t countPlists(const qx::Ref<qx::Object>& plist);

    /// Writes plist (and, depth first, everything it holds) to data, appending
    /// one offset-table entry of ptrSize bytes per object to ptrTable. objCount
    /// is the next free object number; *objNum (when given) receives plist's.
    /// Values of kinds the format has no encoding for (sets, null, foreign
    /// objects) take a number and an offset entry but write no bytes.
    static bool addPlist(const qx::Ref<qx::Object>& plist, qx::Data& data, qx::Data& ptrTable, std::uint8_t ptrSize,
                         std::uint64_t& objCount, std::uint64_t* objNum, qx::Ref<qx::Error>* error = nullptr);

    /// A count header: marker + count for counts below 15, else marker + 0x0F
    /// followed by the count as an integer object.
    static bool addVariableLength(std::uint64_t count, qx::Data& data, std::uint8_t marker,
                                  qx::Ref<qx::Error>* error = nullptr);

    /// An integer object: marker 0x10-0x13 and the value in 1, 2, 4 or 8 bytes.
    static bool addInteger(std::uint64_t value, qx::Data& data, qx::Ref<qx::Error>* error = nullptr);
    /// The low intSize bytes of value, most significant first (zeros above the
    /// eighth byte). Never fails.
    static bool addInteger(std::uint64_t value, qx::Data& data, std::uint8_t intSize,
                           qx::Ref<qx::Error>* error = nullptr);

    /// The 8 bytes of value, big-endian (no marker).
    static bool addDouble(double value, qx::Data& data, qx::Ref<qx::Error>* error = nullptr);

    // --- Binary reader helpers ----------------------------------------------
    // A position is a byte index into data that the helper advances past what
    // it consumed.

    /// Reads an integer object's marker at position and then 2^(marker & 0x0F)
    /// bytes (widths of 256 and more wrap to 0 and read nothing). A position at
    /// or past the end yields 0 without advancing.
    static std::uint64_t intFromData(const qx::Data& data, std::uint64_t& position);
    /// Reads size bytes big-endian into 64 bits (of longer runs only the low 8
    /// bytes survive). Yields 0 without advancing when size is 0 or the bytes
    /// run past the end.
    static std::uint64_t intFromData(const qx::Data& data, std::uint64_t& position, std::uint64_t size);

    /// A real of width 8 (double) or 4 (kept single precision), big-endian.
    static qx::Ref<qx::Number> floatNumberFromData(const qx::Data& data, std::uint64_t& position, std::uint64_t size,
                                                   qx::Ref<qx::Error>* error = nullptr);

    /// The payload of a data (0x4n), ASCII string (0x5n) or UTF-16 string
    /// (0x6n) object whose marker initialByte was read just before position:
    /// count bytes, or 2 x count for UTF-16.
    static qx::Ref<qx::Data> dataFromData(const qx::Data& data, std::uint64_t& position, std::uint8_t initialByte,
                                          qx::Ref<qx::Error>* error = nullptr);

    /// Decodes object number (and everything it references) of a file whose
    /// trailer has been read. Returns nothing without an error for the
    /// markers that mean "no value" (0x00, 0x0F, unknown markers) and for an
    /// ASCII string with non-ASCII bytes; any other failure sets 3840.
    static qx::Ref<qx::Object> plistElementWithNumber(std::uint64_t number, const qx::Data& data,
                                                      const QXBinaryPlistTrailer& trailer,
                                                      qx::Ref<qx::Error>* error = nullptr);

    // --- XML form ---------------------------------------------------------------
    // The document: an XML 1.0 declaration (UTF-8), the property-list DOCTYPE,
    // and a plist element (version "1.0") around the value's element; pretty
    // printed, empty elements in the compact form. Dates are written and read
    // in the process's local time zone although the text ends in "Z", so a
    // date written and read back on one machine keeps its instant. Failures
    // are NSCocoaErrorDomain 3840 (3841 for a plist version other than "1.0",
    // 256 for an integer or real element without text), each with a log line;
    // a document the XML parser refuses fails with the parser's error
    // (NSXMLParserErrorDomain, the parser's code, its message with line and
    // column). The parser never reaches the network or external entities,
    // and entity references expand only within a budget.

    /// The UTF-8 bytes of the whole XML document for plist.
    static qx::Ref<qx::Data> xmlDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                     qx::Ref<qx::Error>* error = nullptr);
    /// Reads an XML document (the DOCTYPE is neither required nor checked).
    /// Text in empty "string", "key" and "data" elements is the empty text (so
    /// empty strings, keys and data read back); empty "integer" and "real"
    /// elements fail with 256. Number text decides the kind: digits alone make
    /// an integer (unsigned when above the signed range), anything else that
    /// parses a real. A dictionary whose only key is "CF$UID" is a UID.
    static qx::Ref<qx::Object> XMLPropertyListWithData(const qx::Ref<qx::Data>& data,
                                                       qx::Ref<qx::Error>* error = nullptr);
    /// Standard base64 with "=" padding on one line.
    static qx::Ref<qx::String> base64StringWithData(const qx::Ref<qx::Data>& data,
                                                    qx::Ref<qx::Error>* error = nullptr);
    /// Decodes base64, ignoring every character outside its alphabet; nothing
    /// (without an error) when what is left does not decode.
    static qx::Ref<qx::Data> dataWithBase64String(const qx::String& string, qx::Ref<qx::Error>* error = nullptr);

    // --- Old-style text form and display texts ------------------------------------

    /// The old-style text of plist: dictionaries in their own enumeration
    /// order as "key = value;" lines, arrays as "value," lines (no comma
    /// after the last), each level indented four spaces more, every
    /// container starting with a line break; leaves as their description,
    /// escaped and quoted by QXStringAdditions::stringByEscapingSpecialCharacters.
    static qx::Ref<qx::String> oldStylePlistStringWithItem(const qx::Ref<qx::Object>& item,
                                                           qx::Ref<qx::Error>* error = nullptr);
    /// The text above in UTF-8, without the leading line break of a container.
    static qx::Ref<qx::Data> oldStylePlistDataWithItem(const qx::Ref<qx::Object>& item,
                                                       qx::Ref<qx::Error>* error = nullptr);

    /// The short text a user sees for a value: strings as they are, booleans
    /// as the localised "Yes" / "No", numbers and dates in the current
    /// locale, data as UTF-8 (else Latin-1) text, containers as XML.
    static qx::Ref<qx::String> stringRepresentationOfPropertyList(const qx::Ref<qx::Object>& plist,
                                                                  qx::Ref<qx::Error>* error = nullptr);
    /// The text of items' single element when it has exactly one, else of the whole array.
    static qx::Ref<qx::String> stringRepresentationOfItems(const qx::Ref<qx::Array>& items,
                                                           qx::Ref<qx::Error>* error = nullptr);
    /// A value from typed text: a number when the text holds only digits and
    /// the locale's decimal, currency decimal and grouping separators; else
    /// whatever propertyListWithData reads from the text ("(1, 2)", "{a = b;}",
    /// XML); else the text itself.
    static qx::Ref<qx::Object> itemWithStringRepresentation(const qx::String& text,
                                                            qx::Ref<qx::Error>* error = nullptr);

    // Parsers of typed text. None of them fails or writes *error.
    /// A copy of the text.
    static qx::Ref<qx::String> stringWithStringValue(const qx::String& text, qx::Ref<qx::Error>* error = nullptr);
    /// YES or the localised Yes: 1; the localised No: 0; else the number at the
    /// start of the text with grouping separators removed, a real when the text
    /// has a decimal separator, else an integer (0 when there is none).
    static qx::Ref<qx::Number> numberWithStringValue(const qx::String& text, qx::Ref<qx::Error>* error = nullptr);
    /// False for NO (or the localised NO), the empty text, "0" and text
    /// beginning "0 "; true for YES and anything else.
    static qx::Ref<qx::Number> booleanWithStringValue(const qx::String& text, qx::Ref<qx::Error>* error = nullptr);
    /// The date of the text in the current locale's medium (then short) styles;
    /// the current date and time when it is none.
    static qx::Ref<qx::Date> dateWithStringValue(const qx::String& text, qx::Ref<qx::Error>* error = nullptr);
    /// Hexadecimal text to bytes: an optional "<" or "0x" and ">" are dropped,
    /// white space removed, other non-hexadecimal characters read as 0, and a
    /// last single digit d as d0.
    static qx::Ref<qx::Data> dataWithStringValue(const qx::String& text, qx::Ref<qx::Error>* error = nullptr);

    /// UTF-8.
    static qx::StringEncoding defaultDataEncoding();

    // --- Names ----------------------------------------------------------------------
    /// name when no name in names equals it. Otherwise a base: the text
    /// before the last separator when what follows it is not empty and holds
    /// no decimal digit, else the whole name; then the base itself when free,
    /// else the first free base + separator + 1, 2, ... So a taken "a" gives
    /// "a - 1", and a taken "a - 1" gives "a - 1 - 1" (deliberately: the
    /// editor's copies of copies are named so).
    static qx::Ref<qx::String> uniqueNameBasedOnName(const qx::String& name, const std::vector<std::string>& names,
                                                     const std::string& separator = " - ");
    /// The shared display formatter for dates: medium date and time styles in
    /// the current locale and local time zone. Made once, and made again only
    /// when the current locale or the TZ setting has changed since.
    static qx::Ref<qx::DateFormatter> dateFormatter();
    /// The shared number formatter of the current locale, made the same way.
    static qx::Ref<qx::NumberFormatter> numberFormatter();
};
