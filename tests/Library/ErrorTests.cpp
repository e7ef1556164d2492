// ErrorTests.cpp - building, converting, querying and reporting errors.

#include "PlistFixtures.h"
#include "TestSupport.h"

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXErrorReporter.h>
#include <QXFoundation/QXFoundationNSErrorAdditions.h>

#include <qx/NotificationCenter.h>
#include <qx/Number.h>
#include <qx/RunLoop.h>

using namespace qx;
using namespace std::chrono_literals;
namespace ErrorAdditions = QXFoundationNSErrorAdditions;

namespace {

std::string text(const Ref<Error>& e, const char* key = NSLocalizedDescriptionKey) {
    auto d = e->userInfo()->get<String>(key);
    return d ? d->utf8() : "<none>";
}

Ref<Error> errorWith(const std::string& domain, std::int64_t code, std::initializer_list<std::pair<const char*, Ref<Object>>> info = {}) {
    return Error::create(domain, code, plisttest::dict(info));
}

// The list-taking form, as a caller with its own variadic function uses it.
Ref<Error> viaArgumentList(const std::string& domain, std::int64_t code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    auto e = QXvGenerateError(domain, code, nullptr, nullptr, nullptr, format, args);
    va_end(args);
    return e;
}

} // namespace

TEST(ErrorGenerate, MarksErrorsAndMergesCallerInfoAfterTheMark) {
    auto plain = QXGenerateError(QXErrorDomain, 5);
    EXPECT_TRUE(plain->userInfo()->get<Number>("QXErrorKey")->boolValue());
    EXPECT_EQ(plain->userInfo()->count(), 1u) << "our own domain has no platform text";

    // The caller's entries may replace the mark, and their description
    // survives when none is produced, but not when one is.
    auto info = plisttest::dict({{"QXErrorKey", Number::withBool(false)}, {NSLocalizedDescriptionKey, str("mine")}});
    auto kept = QXGenerateError(QXErrorDomain, 5, nullptr, nullptr, info);
    EXPECT_FALSE(kept->userInfo()->get<Number>("QXErrorKey")->boolValue());
    EXPECT_EQ(text(kept) + "|" + text(kept, NSLocalizedFailureReasonErrorKey), "mine|<none>");
    EXPECT_EQ(info->count(), 2u) << "the caller's dictionary changed";
    auto replaced = QXGenerateError(QXErrorDomain, 5, nullptr, nullptr, info, "made %d", 1);
    EXPECT_EQ(text(replaced) + "|" + text(replaced, NSLocalizedFailureReasonErrorKey), "made 1|made 1");
}

TEST(ErrorGenerate, DomainAndCodeConversionsAndTheirTexts) {
    const auto posix2 = Error::create(NSPOSIXErrorDomain, 2);
    const auto security = [](std::int64_t c) { return Error::securityErrorMessage(c)->utf8() + " (" + std::to_string(c) + ")"; };
    struct Case {
        std::string domain; std::int64_t code; Ref<Error> underlying;
        std::string expectedDomain; std::int64_t expectedCode; std::optional<std::string> description;  // unchecked when empty
    };
    const std::vector<Case> cases = {
        // -1 in our own domain takes the underlying error's identity, converting a wrapped status on the way...
        {QXErrorDomain, -1, Error::create(NSOSStatusErrorDomain, 100002), NSPOSIXErrorDomain, 2, std::strerror(2)},
        // ...but not without one, in another domain, or for another code.
        {QXErrorDomain, -1, nullptr, QXErrorDomain, -1, {}},
        {NSCocoaErrorDomain, -1, posix2, NSCocoaErrorDomain, -1, {}},
        {QXErrorDomain, -2, posix2, QXErrorDomain, -2, {}},
        // Status codes 100001...100999 wrap an errno.
        {NSOSStatusErrorDomain, 100001, nullptr, NSPOSIXErrorDomain, 1, std::strerror(EPERM)},
        {NSOSStatusErrorDomain, 100999, nullptr, NSPOSIXErrorDomain, 999, "<none>"},  // no such errno: no text
        {NSOSStatusErrorDomain, 100000, nullptr, NSOSStatusErrorDomain, 100000, "OSStatus 100000 (100000)"},
        {NSOSStatusErrorDomain, 101000, nullptr, NSOSStatusErrorDomain, 101000, "OSStatus 101000 (101000)"},
        // Other statuses and security codes use the security message, or a number without one.
        {NSOSStatusErrorDomain, -43, nullptr, NSOSStatusErrorDomain, -43, security(-43)},
        {QXSecurityErrorDomain, -99999, nullptr, QXSecurityErrorDomain, -99999, "OSStatus -99999 (-99999)"},
        // Cocoa codes use the platform's failure reason.
        {NSCocoaErrorDomain, 260, nullptr, NSCocoaErrorDomain, 260, Error::platformFailureReason(NSCocoaErrorDomain, 260)->utf8()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.domain + " " + std::to_string(c.code));
        auto e = QXGenerateError(c.domain, c.code, nullptr, c.underlying);
        EXPECT_EQ(e->domain() + " " + std::to_string(e->code()), c.expectedDomain + " " + std::to_string(c.expectedCode));
        if (c.description) { EXPECT_EQ(text(e) + "|" + text(e, NSLocalizedFailureReasonErrorKey), *c.description + "|" + *c.description); }
        if (c.underlying) { EXPECT_EQ(e->userInfo()->get<Error>(NSUnderlyingErrorKey), c.underlying); }
    }
    // With a format no conversion happens: the format alone is the text.
    auto formatted = QXGenerateError(NSOSStatusErrorDomain, 100013, nullptr, nullptr, nullptr, "denied %s", "here");
    EXPECT_EQ(formatted->domain() + " " + std::to_string(formatted->code()) + " " + text(formatted),
              std::string(NSOSStatusErrorDomain) + " 100013 denied here");
}

TEST(ErrorGenerate, FormatTakesObjectsAndArgumentLists) {
    auto e = QXGenerateError(QXErrorDomain, 3, nullptr, nullptr, nullptr, "%@ | %s | %d | %@ | 100%%",
                             URL::URLWithString("https://example.com/a"), std::string("text"), 42, Ref<Object>());
    EXPECT_EQ(text(e), "https://example.com/a | text | 42 | (null) | 100%");
    // A looked-up format is passed as the string object it is.
    EXPECT_EQ(text(QXGenerateError(QXErrorDomain, 3, nullptr, nullptr, nullptr, str("<%@>"), str("x"))), "<x>");
    auto listed = viaArgumentList(NSCocoaErrorDomain, 256, "%s #%lld %@", "list", 7LL, static_cast<const Object*>(str("obj").get()));
    EXPECT_EQ(listed->domain() + " " + text(listed), std::string(NSCocoaErrorDomain) + " list #7 obj");
}

TEST(ErrorGenerate, UrlsAndUnderlyingTexts) {
    auto file = URL::fileURLWithPath("/tmp/some dir/file.gz");
    auto e = QXGenerateError(NSCocoaErrorDomain, 256, file);
    EXPECT_EQ(e->userInfo()->get<URL>(NSURLErrorKey), file);
    EXPECT_EQ(text(e, NSFilePathErrorKey), "/tmp/some dir/file.gz");
    auto w = QXGenerateError(NSCocoaErrorDomain, 256, URL::URLWithString("http://127.0.0.1:8080/x.bin"));
    EXPECT_FALSE(w->userInfo()->objectForKey(NSFilePathErrorKey));

    // The underlying error's reason and suggestion, either or both, become the suggestion.
    const auto suggestion = [](const Ref<Error>& underlying) {
        return text(QXGenerateError(QXErrorDomain, 9, nullptr, underlying), NSLocalizedRecoverySuggestionErrorKey);
    };
    const auto reasonAndSuggestion = errorWith("X", 1, {{NSLocalizedFailureReasonErrorKey, str("Reason.")},
                                                        {NSLocalizedRecoverySuggestionErrorKey, str("Try again.")}});
    EXPECT_EQ(suggestion(reasonAndSuggestion), "Reason. Try again.");
    EXPECT_EQ(suggestion(Error::create(NSPOSIXErrorDomain, 2)), std::strerror(2));
    // Without either text (user info given, so the platform adds none): no suggestion key.
    EXPECT_EQ(suggestion(errorWith(NSPOSIXErrorDomain, 2, {{"other", str("x")}})), "<none>");
}

TEST(ErrorAppleScript, NumberAndMessage) {
    auto info = plisttest::dict({{"NSAppleScriptErrorNumber", Number::withInt32(-1728)},
                                 {"NSAppleScriptErrorMessage", str("Can’t get window 1 (100% sure).")}});
    auto e = QXAppleScriptError(info);
    EXPECT_EQ(e->domain() + " " + std::to_string(e->code()), std::string(QXAppleScriptErrorDomain) + " -1728");
    EXPECT_EQ(text(e), "Can’t get window 1 (100% sure).") << "the message is a value, never a format";
    info->setObject(str("-2753"), "NSAppleScriptErrorNumber");
    EXPECT_EQ(QXAppleScriptError(info)->code(), -2753);
    EXPECT_EQ(QXAppleScriptError(Dictionary::create())->code(), 0);
}

TEST(ErrorAdditionsURL, LookupOrder) {
    auto direct = URL::URLWithString("https://direct.example/"), failing = URL::URLWithString("https://failing.example/");
    auto deep = URL::URLWithString("https://deep.example/");
    auto withDeep = errorWith("Inner", 1, {{NSURLErrorKey, deep}});

    EXPECT_EQ(ErrorAdditions::URL(*errorWith("X", 1, {{NSURLErrorKey, direct}, {NSFilePathErrorKey, str("/a")}})), direct);
    auto fromPath = ErrorAdditions::URL(*errorWith("X", 1, {{NSFilePathErrorKey, str("/a/b.txt")}, {NSUnderlyingErrorKey, withDeep}}));
    EXPECT_EQ(fromPath && fromPath->isFileURL() ? fromPath->path() : "", "/a/b.txt");

    // The failing-URL keys count only in the URL domain...
    EXPECT_EQ(ErrorAdditions::URL(*errorWith(NSURLErrorDomain, -1001, {{NSURLErrorFailingURLErrorKey, failing}})), failing);
    EXPECT_EQ(ErrorAdditions::URL(*errorWith("X", 1, {{NSURLErrorFailingURLErrorKey, failing}, {NSUnderlyingErrorKey, withDeep}})), deep);
    auto parsed = ErrorAdditions::URL(*errorWith(NSURLErrorDomain, -1001, {{NSURLErrorFailingURLStringErrorKey, str("http://s.example/p")}}));
    EXPECT_EQ(parsed ? parsed->host() : "", "s.example");
    // ...and a failing-URL string ends the search even when it does not parse.
    EXPECT_FALSE(ErrorAdditions::URL(*errorWith(NSURLErrorDomain, -1001, {{NSURLErrorFailingURLStringErrorKey, str("::not a url::")},
                                                                         {NSUnderlyingErrorKey, withDeep}})));
    // Underlying errors are asked in turn, to any depth.
    EXPECT_EQ(ErrorAdditions::URL(*errorWith("A", 1, {{NSUnderlyingErrorKey, errorWith("B", 2, {{NSUnderlyingErrorKey, withDeep}})}})), deep);
    EXPECT_FALSE(ErrorAdditions::URL(*errorWith("X", 1)));
}

TEST(ErrorAdditionsPredicates, FileNotFoundAndPermission) {
    const auto notFound = errorWith(NSPOSIXErrorDomain, 2), denied = errorWith(NSPOSIXErrorDomain, 13);
    const auto status = [](std::int64_t c) { return errorWith(NSOSStatusErrorDomain, c); };
    const auto cocoa = [](std::int64_t c) { return errorWith(NSCocoaErrorDomain, c); };
    struct Case { Ref<Error> error; bool isNotFound, isPermission; };
    const std::vector<Case> cases = {
        {notFound, true, false},   {status(-43), true, false},   {status(100002), true, false}, {cocoa(4), true, false},
        {cocoa(260), true, false}, {cocoa(2), false, false},     {denied, false, true},
        {errorWith(NSPOSIXErrorDomain, 1), false, true},         {status(-5000), false, true},
        {status(100013), false, true}, {status(100001), false, true}, {cocoa(257), false, true}, {cocoa(513), false, true},
        {status(13), false, false},
        // A known domain with another code answers "not found" without looking
        // further, but still asks its underlying error about permission.
        {errorWith(NSCocoaErrorDomain, 256, {{NSUnderlyingErrorKey, notFound}}), false, false},
        {errorWith(NSPOSIXErrorDomain, 2, {{NSUnderlyingErrorKey, denied}}), true, true},
        // Any other domain answers as its underlying error.
        {QXGenerateError(QXErrorDomain, 7, nullptr, notFound), true, false},
        {QXGenerateError(QXErrorDomain, 7, nullptr, denied), false, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(std::pair(ErrorAdditions::isFileNotFoundError(*c.error), ErrorAdditions::isPermissionError(*c.error)),
                  std::pair(c.isNotFound, c.isPermission)) << c.error->domain() << " " << c.error->code();
    }
    // A chain that loops back on itself ends.
    auto loop = errorWith("Loop", 1);
    loop->userInfo()->setObject(loop, NSUnderlyingErrorKey);
    EXPECT_FALSE(ErrorAdditions::isFileNotFoundError(*loop) || ErrorAdditions::isPermissionError(*loop));
    EXPECT_FALSE(ErrorAdditions::URL(*loop));
    loop->userInfo()->removeObjectForKey(NSUnderlyingErrorKey);  // let it be freed
}

TEST(ErrorReporter, PostsDirectlyOnMainAndFromOtherThreadsWaitsForMain) {
    std::vector<Ref<Error>> reports;  // written on the main thread only
    std::atomic<std::size_t> count{0};
    auto center = NotificationCenter::defaultCenter();
    auto token = center->addObserver(QXErrorOccurredNotification, nullptr, [&](const auto& n) {
        EXPECT_TRUE(RunLoop::isMainThread() && !n->object());
        reports.push_back(n->userInfo() ? n->userInfo()->template get<Error>("Error") : nullptr);
        count = reports.size();
    });
    const std::unique_ptr<void, std::function<void(void*)>> unobserve(&count, [&](void*) { center->removeObserver(token); });
    auto error = QXGenerateError(QXErrorDomain, 12);
    QXReportError(error);
    ASSERT_EQ(count.load(), 1u) << "not posted at once: no run loop is involved on the main thread";

    auto fromThread = QXGenerateError(NSPOSIXErrorDomain, EIO);
    std::atomic<std::size_t> seenByReporterAfterReturn{0};
    std::thread reporter([&] { QXReportError(fromThread); seenByReporterAfterReturn = count.load(); });
    const auto giveUp = RunLoop::Clock::now() + 60s;
    while (count.load() < 2 && RunLoop::Clock::now() < giveUp) RunLoop::main()->runMode(RunLoop::DefaultMode, 5s);
    reporter.join();
    ASSERT_EQ(count.load(), 2u) << "the main run loop never got the report";
    EXPECT_EQ(seenByReporterAfterReturn.load(), 2u) << "the reporter resumed before the observer ran";
    EXPECT_EQ(reports, (std::vector<Ref<Error>>{error, fromThread}));
}
