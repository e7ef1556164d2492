// StringEncoding.cpp - encoding numbers, strict streaming conversions and detection through ICU.
#include <qx/StringEncoding.h>

#include <unicode/ucnv.h>
#include <unicode/ucsdet.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>

namespace qx {

namespace {

struct EncodingName {
    StringEncoding encoding;
    const char* converter;  // ICU's name; also the name charset detectors report
};

// The platform numbers of encodings ICU converts. Numbers above 0x80000000
// are the platform's for encodings it knows under its lower-level identifiers.
constexpr EncodingName kEncodings[] = {
    {NSASCIIStringEncoding, "US-ASCII"},
    {NSJapaneseEUCStringEncoding, "EUC-JP"},
    {NSUTF8StringEncoding, "UTF-8"},
    {NSISOLatin1StringEncoding, "ISO-8859-1"},
    {NSShiftJISStringEncoding, "Shift_JIS"},
    {NSISOLatin2StringEncoding, "ISO-8859-2"},
    {NSUnicodeStringEncoding, "UTF-16"},
    {NSWindowsCP1251StringEncoding, "windows-1251"},
    {NSWindowsCP1252StringEncoding, "windows-1252"},
    {NSWindowsCP1253StringEncoding, "windows-1253"},
    {NSWindowsCP1254StringEncoding, "windows-1254"},
    {NSWindowsCP1250StringEncoding, "windows-1250"},
    {NSISO2022JPStringEncoding, "ISO-2022-JP"},
    {NSMacOSRomanStringEncoding, "macintosh"},
    {NSUTF16BigEndianStringEncoding, "UTF-16BE"},
    {NSUTF16LittleEndianStringEncoding, "UTF-16LE"},
    {NSUTF32StringEncoding, "UTF-32"},
    {NSUTF32BigEndianStringEncoding, "UTF-32BE"},
    {NSUTF32LittleEndianStringEncoding, "UTF-32LE"},
    {0x80000205, "ISO-8859-5"},
    {0x80000206, "ISO-8859-6"},
    {0x80000207, "ISO-8859-7"},
    {0x80000208, "ISO-8859-8"},
    {0x80000209, "ISO-8859-9"},
    {0x80000505, "windows-1255"},
    {0x80000506, "windows-1256"},
    {0x80000632, "GB18030"},
    {0x80000940, "EUC-KR"},
    {0x80000A02, "KOI8-R"},
    {0x80000A03, "Big5"},
};

struct ConverterCloser {
    void operator()(UConverter* c) const { ucnv_close(c); }
};
using ConverterPtr = std::unique_ptr<UConverter, ConverterCloser>;

ConverterPtr openConverter(std::string_view name) {
    if (name.empty()) return nullptr;
    UErrorCode status = U_ZERO_ERROR;
    ConverterPtr c(ucnv_open(std::string(name).c_str(), &status));
    if (U_FAILURE(status)) return nullptr;
    return c;
}

// ICU's functions take 32-bit lengths, so input goes in pieces of this size.
constexpr std::size_t kSourcePiece = 1 << 20;

// Streams bytes from one converter to another. False when the source holds a
// sequence the source converter rejects, or the target cannot represent a
// character (unless its callback substitutes).
bool convert(UConverter* to, UConverter* from, const char* bytes, std::size_t length, std::string& out) {
    std::array<UChar, 4096> pivot;
    UChar* pivotSource = pivot.data();
    UChar* pivotTarget = pivot.data();
    std::array<char, 16384> buffer;
    std::size_t done = 0;
    bool first = true;
    do {
        const std::size_t piece = std::min(kSourcePiece, length - done);
        const char* source = bytes + done;
        const char* const sourceLimit = source + piece;
        const bool flush = done + piece == length;
        for (;;) {
            char* target = buffer.data();
            UErrorCode status = U_ZERO_ERROR;
            ucnv_convertEx(to, from, &target, buffer.data() + buffer.size(), &source, sourceLimit, pivot.data(),
                           &pivotSource, &pivotTarget, pivot.data() + pivot.size(), first, flush, &status);
            first = false;
            out.append(buffer.data(), static_cast<std::size_t>(target - buffer.data()));
            if (status == U_BUFFER_OVERFLOW_ERROR) continue;
            if (U_FAILURE(status)) return false;
            break;
        }
        done += piece;
    } while (done < length);
    return true;
}

bool isValidUTF8(const unsigned char* s, std::size_t length) {
    std::size_t i = 0;
    while (i < length) {
        // Runs of ASCII are the common case and need no decoding.
        if (s[i] < 0x80) {
            ++i;
            continue;
        }
        const std::size_t remaining = length - i;
        const int32_t window = static_cast<int32_t>(std::min<std::size_t>(remaining, 8));
        int32_t offset = 0;
        UChar32 c;
        U8_NEXT(s + i, offset, window, c);
        if (c < 0) return false;
        i += static_cast<std::size_t>(offset);
    }
    return true;
}

} // namespace

StringEncoding defaultCStringEncoding() { return NSMacOSRomanStringEncoding; }

std::string_view converterNameForEncoding(StringEncoding encoding) {
    for (const auto& e : kEncodings)
        if (e.encoding == encoding) return e.converter;
    return {};
}

StringEncoding encodingForCharsetName(std::string_view name) {
    const std::string n(name);
    for (const auto& e : kEncodings)
        if (ucnv_compareNames(e.converter, n.c_str()) == 0) return e.encoding;
    return 0;
}

Ref<String> stringWithBytes(const void* bytes, std::size_t length, StringEncoding encoding) {
    const auto* b = static_cast<const unsigned char*>(bytes);
    if (!b && length) return nullptr;
    if (encoding == NSUTF8StringEncoding) {
        if (!isValidUTF8(b, length)) return nullptr;
        return String::create(std::string_view(reinterpret_cast<const char*>(b), length));
    }
    auto from = openConverter(converterNameForEncoding(encoding));
    auto to = openConverter("UTF-8");
    if (!from || !to) return nullptr;
    if (length == 0) return String::create("");
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setToUCallBack(from.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    std::string out;
    out.reserve(length);
    if (U_FAILURE(status) || !convert(to.get(), from.get(), reinterpret_cast<const char*>(b), length, out))
        return nullptr;
    return std::make_shared<String>(std::move(out));
}

Ref<Data> dataUsingEncoding(const String& text, StringEncoding encoding, bool allowLossyConversion) {
    const std::string& utf8 = text.utf8();
    if (encoding == NSUTF8StringEncoding) {
        if (!isValidUTF8(reinterpret_cast<const unsigned char*>(utf8.data()), utf8.size())) return nullptr;
        return Data::withString(utf8);
    }
    auto to = openConverter(converterNameForEncoding(encoding));
    auto from = openConverter("UTF-8");
    if (!from || !to) return nullptr;
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setToUCallBack(from.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    if (allowLossyConversion) {
        ucnv_setFromUCallBack(to.get(), UCNV_FROM_U_CALLBACK_SUBSTITUTE, nullptr, nullptr, nullptr, &status);
        ucnv_setSubstChars(to.get(), "?", 1, &status);
    } else {
        ucnv_setFromUCallBack(to.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    }
    if (U_FAILURE(status)) return nullptr;
    std::string out;
    out.reserve(utf8.size());
    if (!utf8.empty() && !convert(to.get(), from.get(), utf8.data(), utf8.size(), out)) return nullptr;
    return Data::withString(out);
}

StringEncoding detectEncoding(const void* bytes, std::size_t length) {
    const auto* b = static_cast<const unsigned char*>(bytes);
    if (length == 0) return NSUTF8StringEncoding;
    if (!b) return 0;
    // A byte-order mark decides (UTF-32 before UTF-16: FF FE 00 00 starts
    // both), as long as the rest decodes; a damaged file is no answer.
    StringEncoding marked = 0;
    if (length >= 4 && b[0] == 0x00 && b[1] == 0x00 && b[2] == 0xFE && b[3] == 0xFF) marked = NSUTF32BigEndianStringEncoding;
    else if (length >= 4 && b[0] == 0xFF && b[1] == 0xFE && b[2] == 0x00 && b[3] == 0x00) marked = NSUTF32LittleEndianStringEncoding;
    else if (length >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) marked = NSUTF8StringEncoding;
    else if (length >= 2 && b[0] == 0xFE && b[1] == 0xFF) marked = NSUTF16BigEndianStringEncoding;
    else if (length >= 2 && b[0] == 0xFF && b[1] == 0xFE) marked = NSUTF16LittleEndianStringEncoding;
    if (marked) return stringWithBytes(b, length, marked) ? marked : 0;
    if (isValidUTF8(b, length)) return NSUTF8StringEncoding;

    // A detector's guess is statistical: only a confident one is taken, and
    // only when the whole input really decodes in it.
    constexpr int32_t kMinimumConfidence = 30;
    constexpr std::size_t kSample = 64 * 1024;
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<UCharsetDetector, void (*)(UCharsetDetector*)> detector(ucsdet_open(&status), ucsdet_close);
    if (U_FAILURE(status)) return 0;
    ucsdet_setText(detector.get(), reinterpret_cast<const char*>(b), static_cast<int32_t>(std::min(length, kSample)),
                   &status);
    int32_t count = 0;
    const UCharsetMatch** matches = ucsdet_detectAll(detector.get(), &count, &status);
    if (U_FAILURE(status) || !matches) return 0;
    for (int32_t i = 0; i < count; ++i) {
        UErrorCode s = U_ZERO_ERROR;
        if (ucsdet_getConfidence(matches[i], &s) < kMinimumConfidence || U_FAILURE(s)) break;  // best first
        const char* name = ucsdet_getName(matches[i], &s);
        if (U_FAILURE(s) || !name) continue;
        const StringEncoding encoding = encodingForCharsetName(name);
        if (encoding && stringWithBytes(b, length, encoding)) return encoding;
    }
    return 0;
}

} // namespace qx
