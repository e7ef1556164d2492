// QXStringAdditions.cpp - string operations: legacy Mac forms, tolerant decoding,
// escaping, number and version parsing, the HTML entity table.
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXStringAdditions.h>

#include "Internal/QXCharacterSets.h"
#include "Internal/QXFoundationPrivate.h"

#include <qx/Format.h>
#include <qx/UUID.h>
#include <qx/UniqueFd.h>

#include <unicode/dcfmtsym.h>
#include <unicode/locid.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using QXCharacterSets::nextCodePoint;

namespace {

// --- Numbers -------------------------------------------------------------------

// The platform scanner's signed 64-bit decimal: white space and line breaks
// skipped, an optional sign, digits; values beyond the range saturate.
// False when there are no digits.
bool scanLongLong(std::string_view text, std::int64_t* value) {
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t next = i;
        if (!QXCharacterSets::isWhitespaceOrNewline(nextCodePoint(text, &next))) break;
        i = next;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    if (i == text.size() || text[i] < '0' || text[i] > '9') return false;
    // Accumulate as a negative number so that INT64_MIN fits.
    std::int64_t v = 0;
    bool overflow = false;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const int digit = text[i] - '0';
        if (v < (INT64_MIN + digit) / 10) overflow = true;
        else v = v * 10 - digit;
    }
    if (overflow) *value = negative ? INT64_MIN : INT64_MAX;
    else if (negative) *value = v;
    else *value = v == INT64_MIN ? INT64_MAX : -v;
    return true;
}

std::int64_t integerValue(std::string_view text) {
    std::int64_t v = 0;
    return scanLongLong(text, &v) ? v : 0;
}

// --- Collation -----------------------------------------------------------------

// The current locale's decimal separator, cached per thread and remade when the locale changes.
const std::string& decimalSeparator() {
    struct Cache {
        std::string localeName;
        std::string separator;
    };
    thread_local Cache cache;
    const icu::Locale& locale = icu::Locale::getDefault();
    if (cache.localeName.empty() || cache.localeName != locale.getName()) {
        cache.localeName = locale.getName();
        UErrorCode status = U_ZERO_ERROR;
        icu::DecimalFormatSymbols symbols(locale, status);
        cache.separator.clear();
        if (U_SUCCESS(status))
            symbols.getSymbol(icu::DecimalFormatSymbols::kDecimalSeparatorSymbol).toUTF8String(cache.separator);
        if (cache.separator.empty()) cache.separator = ".";
    }
    return cache.separator;
}

// --- Files -----------------------------------------------------------------------

qx::Ref<qx::Error> fileReadError(int errnum, const qx::Ref<qx::URL>& url) {
    std::int64_t code = 256;  // the file couldn't be opened
    switch (errnum) {
    case ENOENT: case ENOTDIR: code = 260; break;
    case EACCES: case EPERM: code = 257; break;
    case ENAMETOOLONG: code = 258; break;
    case EFBIG: case ENOMEM: code = 263; break;
    default: break;
    }
    return QXGenerateError(qx::NSCocoaErrorDomain, code, url, QXGenerateError(qx::NSPOSIXErrorDomain, errnum));
}

// The whole of a file URL's file, or nothing and the platform's reading error.
qx::Ref<qx::Data> readURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error) {
    if (!url || !url->isFileURL()) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 262, url);
        return nullptr;
    }
    const qx::UniqueFd file(::open(url->path().c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        if (error) *error = fileReadError(errno, url);
        return nullptr;
    }
    const int fd = file.get();
    struct stat st;
    int failure = 0;
    if (::fstat(fd, &st) != 0) failure = errno;
    else if (S_ISDIR(st.st_mode)) failure = EISDIR;
    auto data = qx::Data::create();
    if (!failure && S_ISREG(st.st_mode) && st.st_size > 0) data->reserve(static_cast<std::size_t>(st.st_size));
    unsigned char buffer[65536];
    while (!failure) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) data->append(buffer, static_cast<std::size_t>(n));
        else if (n == 0) break;
        else if (errno != EINTR) failure = errno;
    }
    if (failure) {
        if (error) *error = fileReadError(failure, url);
        return nullptr;
    }
    return data;
}

// Decodes a file's bytes in the encoding detected from them; nothing when no
// encoding can be trusted. A byte-order mark is not part of the text.
qx::Ref<qx::String> decodeDetected(const qx::Data& data, qx::StringEncoding* encoding) {
    const qx::StringEncoding detected = qx::detectEncoding(data.bytes(), data.length());
    if (!detected) return nullptr;
    auto text = qx::stringWithBytes(data.bytes(), data.length(), detected);
    if (!text) return nullptr;
    if (text->utf8().starts_with("\xEF\xBB\xBF")) text = qx::str(std::string_view(text->utf8()).substr(3));
    *encoding = detected;
    return text;
}

// --- HTML ----------------------------------------------------------------------

using EntityTable = std::unordered_map<std::uint32_t, std::string>;

bool isHTMLSafe(std::uint32_t c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    return c < 0x80 && c != 0 && std::strchr("\r\n !\"#$%'()*+:;,-./[]\\^_`{}|~", static_cast<int>(c)) != nullptr;
}

bool isASCIIWhitespace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// Reads the entity declarations of text ("<!ENTITY name CDATA "&#code;" ...>").
// Parameter entities ("<!ENTITY % ...") are skipped; later declarations of a
// code replace earlier ones.
EntityTable parseEntityDeclarations(std::string_view text) {
    EntityTable table;
    const auto skipWhitespace = [&](std::size_t i) {
        while (i < text.size() && isASCIIWhitespace(text[i])) ++i;
        return i;
    };
    const auto wordEnd = [&](std::size_t i) {
        while (i < text.size() && !isASCIIWhitespace(text[i])) ++i;
        return i;
    };
    std::size_t pos = 0;
    for (;;) {
        const std::size_t declaration = text.find("<!ENTITY", pos);
        if (declaration == std::string_view::npos) break;
        std::size_t i = skipWhitespace(declaration + 8);
        std::size_t end = wordEnd(i);
        const std::string_view name = text.substr(i, end - i);
        pos = end;
        if (name.empty() || name == "%") continue;
        i = skipWhitespace(end);
        end = wordEnd(i);
        pos = end;
        if (text.substr(i, end - i) != "CDATA") continue;
        const std::size_t open = text.find("\"&#", end);
        if (open == std::string_view::npos) break;
        const std::size_t close = text.find(";\"", open + 3);
        if (close == std::string_view::npos) break;
        pos = close + 2;
        const std::string_view digits = text.substr(open + 3, close - open - 3);
        // A code must be a plain decimal number of a UTF-16 unit; anything
        // else in a damaged table names no character.
        if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string_view::npos)
            continue;
        const std::uint32_t code = static_cast<std::uint32_t>(std::stoul(std::string(digits)));
        if (code > 0xFFFF) continue;
        table[code] = "&" + std::string(name) + ";";
    }
    return table;
}

struct EntityTableState {
    std::mutex mutex;
    qx::Ref<qx::Bundle> bundle;  // the bundle the table was read from
    std::shared_ptr<const EntityTable> table;
};

EntityTableState& entityTableState() {
    static auto* const state = new EntityTableState;  // outlives static destructors
    return *state;
}

// The process-wide entity table, read on first use from the library bundle's
// "Entities.txt" (ASCII). When it cannot be read nothing is kept, so the next
// call tries again; a new library bundle (resources re-initialised) is read anew.
std::shared_ptr<const EntityTable> entityTable() {
    const auto bundle = QXFoundationBundle();
    auto& state = entityTableState();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.table && state.bundle == bundle) return state.table;
    }
    if (!bundle) return nullptr;
    const auto data = bundle->resourceData("Entities", "txt");
    if (!data) return nullptr;
    for (std::uint8_t b : data->vector())
        if (b >= 0x80) return nullptr;  // not ASCII text
    auto table = std::make_shared<const EntityTable>(parseEntityDeclarations(data->view()));
    std::lock_guard<std::mutex> lock(state.mutex);
    state.bundle = bundle;
    state.table = table;
    return table;
}

void appendHTMLReference(std::string& out, std::uint32_t unit, const EntityTable* table) {
    if (table) {
        if (auto it = table->find(unit); it != table->end()) {
            out += it->second;
            return;
        }
    }
    char buffer[16];
    const int n = std::snprintf(buffer, sizeof buffer, "&#%u;", unit);
    out.append(buffer, static_cast<std::size_t>(n));
}

} // namespace

namespace QXStringAdditions {

qx::Ref<qx::String> uniqueID() { return qx::str(qx::UUID::create()->UUIDString()); }

qx::Ref<qx::String> stringWithPascalString(const unsigned char* pascalString) {
    if (!pascalString) return nullptr;
    auto text = qx::stringWithBytes(pascalString + 1, pascalString[0], qx::NSMacOSRomanStringEncoding);
    return text ? text : qx::str("");
}

qx::Ref<qx::String> stringWithFourCharCode(std::uint32_t code) {
    if (code == 0) return qx::str("");
    const unsigned char bytes[4] = {static_cast<unsigned char>(code >> 24), static_cast<unsigned char>(code >> 16),
                                    static_cast<unsigned char>(code >> 8), static_cast<unsigned char>(code)};
    auto text = qx::stringWithBytes(bytes, 4, qx::NSMacOSRomanStringEncoding);
    return text ? text : qx::str("");
}

qx::Ref<qx::Data> pascalString(const qx::String& self) {
    auto roman = qx::dataUsingEncoding(self, qx::NSMacOSRomanStringEncoding);
    if (!roman) return nullptr;
    auto out = qx::Data::create();
    out->reserve(roman->length() + 1);
    out->appendByte(static_cast<std::uint8_t>(roman->length() > 255 ? 255 : roman->length()));
    out->append(*roman);
    return out;
}

std::uint32_t fourCharCode(const qx::String& self) {
    if (self.length() < 4) return 0;
    auto roman = qx::dataUsingEncoding(self, qx::NSMacOSRomanStringEncoding);
    if (!roman || roman->length() < 4) return 0;
    const std::uint8_t* b = roman->bytes();
    return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) | b[3];
}

qx::Ref<qx::String> stringWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(const qx::Ref<qx::URL>& url,
                                                                                    qx::StringEncoding* usedEncoding,
                                                                                    qx::Ref<qx::Error>* error) {
    // First attempt: read and detect; its error is not kept.
    auto data = readURL(url, nullptr);
    if (data) {
        qx::StringEncoding detected = 0;
        if (auto text = decodeDetected(*data, &detected)) {
            if (usedEncoding) *usedEncoding = detected;
            return text;
        }
    } else {
        // Second attempt, whose error is the one reported.
        qx::Ref<qx::Error> readError;
        data = readURL(url, &readError);
        if (!data) {
            if (error) *error = readError;
            return nullptr;
        }
    }
    const qx::StringEncoding fallback = qx::defaultCStringEncoding();
    auto text = qx::stringWithBytes(data->bytes(), data->length(), fallback);
    if (!text) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 261, url);
        return nullptr;
    }
    if (usedEncoding) *usedEncoding = fallback;
    return text;
}

qx::Ref<qx::String> initWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(const qx::Ref<qx::URL>& url,
                                                                                  qx::StringEncoding* usedEncoding,
                                                                                  qx::Ref<qx::Error>* error) {
    return stringWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(url, usedEncoding, error);
}

qx::Ref<qx::String> initWithContentsOfFileFallingBackOnDefaultEncodingIfNecessary(std::string_view path,
                                                                                   qx::StringEncoding* usedEncoding,
                                                                                   qx::Ref<qx::Error>* error) {
    auto url = qx::URL::fileURLWithPath(path);
    if (!url) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 258);
        return nullptr;
    }
    return stringWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(url, usedEncoding, error);
}

qx::Ref<qx::String> initWithCString(const void* bytes, std::size_t bufferLength, qx::StringEncoding encoding) {
    if (!bytes || bufferLength == 0) return qx::str("");
    const void* zero = std::memchr(bytes, 0, bufferLength);
    const std::size_t length =
        zero ? static_cast<std::size_t>(static_cast<const char*>(zero) - static_cast<const char*>(bytes)) : bufferLength;
    auto text = qx::stringWithBytes(bytes, length, encoding);
    return text ? text : qx::str("");
}

qx::Ref<qx::String> initWithCStringData(const qx::Ref<qx::Data>& data, qx::StringEncoding encoding) {
    if (!data) return qx::str("");
    return initWithCString(data->bytes(), data->length(), encoding);
}

qx::Ref<qx::String> stringByEscapingRegexCharacters(const qx::String& self) {
    const std::string& in = self.utf8();
    std::string out;
    out.reserve(in.size() + in.size() / 4);
    // Doubling backslashes first and then marking the special characters is
    // one pass here: a backslash is not itself in the special set.
    for (char c : in) {
        if (c == '\\') out += "\\\\";
        else {
            if (std::strchr("*?+[](){}^$|./", c) && c != '\0') out += '\\';
            out += c;
        }
    }
    return std::make_shared<qx::String>(std::move(out));
}

std::uint64_t unsignedLongLongValue(const qx::String& self) {
    return static_cast<std::uint64_t>(integerValue(self.utf8()));
}

std::uint64_t unsignedLongLongHexValue(const qx::String& self) {
    // Bytes stand for characters here: the hexadecimal digits are ASCII, and
    // no byte of a multi-byte UTF-8 sequence is one.
    const auto isHex = [](char c) { return QXCharacterSets::isHexDigit(static_cast<unsigned char>(c)); };
    std::string_view s = self.utf8();
    while (!s.empty() && !isHex(s.front())) s.remove_prefix(1);
    while (!s.empty() && !isHex(s.back())) s.remove_suffix(1);
    if (s.size() >= 2 && s[0] == '0' && s[1] == 'x') s.remove_prefix(2);
    for (char c : s)
        if (!isHex(c)) return 0;
    std::uint64_t value = 0, multiplier = 1;
    for (auto it = s.rbegin(); it != s.rend(); ++it) {
        const char c = *it;
        std::uint64_t digit = 0;
        if (c >= '0' && c <= '9') digit = static_cast<std::uint64_t>(c - '0');
        else if (c >= 'a' && c <= 'f') digit = static_cast<std::uint64_t>(c - 'a' + 10);
        else if (c == 'A') digit = 10;
        // "B" to "F" stay 0 on purpose (see the header).
        value += digit * multiplier;
        multiplier *= 16;
    }
    return value;
}

int localizedCaseInsensitiveNumericCompare(const qx::String& self, const qx::String& other) {
    return self.localizedCaseInsensitiveNumericCompare(other);
}

bool isURLString(const qx::String& self) {
    const std::string& s = self.utf8();
    std::size_t i = 0;
    if (s.empty() || !QXCharacterSets::isAlphanumeric(nextCodePoint(s, &i))) return false;
    while (i < s.size()) {
        const UChar32 c = nextCodePoint(s, &i);
        if (!QXCharacterSets::isAlphanumeric(c)) return c == ':';
    }
    return false;
}

qx::Ref<qx::String> stringByEncodingForHTML(const qx::String& self) {
    const std::string& in = self.utf8();
    std::shared_ptr<const EntityTable> table;
    std::string out;
    out.reserve(in.size());
    std::size_t i = 0;
    while (i < in.size()) {
        const std::size_t start = i;
        const UChar32 c = nextCodePoint(in, &i);
        if (isHTMLSafe(static_cast<std::uint32_t>(c))) {
            out.append(in, start, i - start);
            continue;
        }
        if (!table) table = entityTable();
        if (c <= 0xFFFF) {
            appendHTMLReference(out, static_cast<std::uint32_t>(c), table.get());
        } else {
            appendHTMLReference(out, static_cast<std::uint32_t>(U16_LEAD(c)), table.get());
            appendHTMLReference(out, static_cast<std::uint32_t>(U16_TRAIL(c)), table.get());
        }
    }
    return std::make_shared<qx::String>(std::move(out));
}

bool parseVersionStringAndReturnMajorVersion(const qx::String& self, std::int64_t* majorVersion,
                                             std::int64_t* minorVersion, std::int64_t* bugfixVersion) {
    const std::string_view s = self.utf8();
    const std::size_t first = s.find('.');
    if (first == std::string_view::npos) return false;
    if (majorVersion) *majorVersion = integerValue(s.substr(0, first));
    const std::size_t second = s.find('.', first + 1);
    const std::string_view minor = s.substr(first + 1, second == std::string_view::npos ? s.npos : second - first - 1);
    // "10." has no minor text at all: nothing is written for it.
    if (minorVersion && !minor.empty()) *minorVersion = integerValue(minor);
    if (second != std::string_view::npos) {
        const std::size_t third = s.find('.', second + 1);
        const std::string_view bugfix = s.substr(second + 1, third == std::string_view::npos ? s.npos : third - second - 1);
        if (bugfixVersion && !bugfix.empty()) *bugfixVersion = integerValue(bugfix);
    }
    return true;
}

qx::Ref<qx::String> formattedStringWithFileSize(std::uint64_t size) {
    if (size < 1024) return qx::str(qx::format("%llu %@", static_cast<unsigned long long>(size), QXFLocalizedString("bytes")));
    const char* unit = "GiB";
    double value = static_cast<double>(size) / 1024.0 / 1024.0 / 1024.0;
    if (size < 1024 * 1024) {
        unit = "KiB";
        value = static_cast<double>(size) / 1024.0;
    } else if (size < 1024 * 1024 * 1024) {
        unit = "MiB";
        value = static_cast<double>(size) / 1024.0 / 1024.0;
    }
    // printf's rounding, then the locale's decimal separator in place of ".".
    std::string number = qx::format("%.1f", value);
    if (const std::size_t dot = number.find('.'); dot != std::string::npos) number.replace(dot, 1, decimalSeparator());
    return qx::str(number + " " + QXFLocalizedString(unit)->utf8());
}

} // namespace QXStringAdditions
