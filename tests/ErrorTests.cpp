// ErrorTests.cpp - building, converting, querying and reporting errors.
#include <gtest/gtest.h>

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXErrorReporter.h>
#include <QXFoundation/QXFoundationNSErrorAdditions.h>

#include <qx/NotificationCenter.h>
#include <qx/Number.h>
#include <qx/RunLoop.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

using namespace qx;
using namespace std::chrono_literals;
namespace ErrorAdditions = QXFoundationNSErrorAdditions;

namespace {

Ref<String> infoString(const Ref<Error>& e, const char* key) { return e->userInfo()->get<String>(key); }

std::string descriptionOf(const Ref<Error>& e) {
    auto d = infoString(e, NSLocalizedDescriptionKey);
    return d ? d->utf8() : "<none>";
}

Ref<Error> errorWith(const std::string& domain, std::int64_t code, std::initializer_list<std::pair<const char*, Ref<Object>>> info = {}) {
    auto dict = Dictionary::create();
    for (const auto& [k, v] : info) dict->setObject(v, k);
    return Error::create(domain, code, dict);
}

// Goes through the list-taking form the way a caller with its own variadic
// function would.
Ref<Error> viaArgumentList(const std::string& domain, std::int64_t code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    auto e = QXvGenerateError(domain, code, nullptr, nullptr, nullptr, format, args);
    va_end(args);
    return e;
}

std::string posixText(int code) { return std::strerror(code); }

} // namespace

// --- QXGenerateError --------------------------------------------------------

TEST(ErrorGenerate, MarksErrorsAndMergesCallerInfoFirst) {
    auto plain = QXGenerateError(QXErrorDomain, 5);
    EXPECT_EQ(plain->domain(), QXErrorDomain);
    EXPECT_EQ(plain->code(), 5);
    auto mark = plain->userInfo()->get<Number>("QXErrorKey");
    ASSERT_TRUE(mark);
    EXPECT_TRUE(mark->isBoolean());
    EXPECT_TRUE(mark->boolValue());
    // No platform text for our own domain: no description keys at all.
    EXPECT_EQ(plain->userInfo()->count(), 1u);

    // The caller's entries go in after the mark (and may replace it), and a
    // description of theirs survives when none is produced...
    auto info = Dictionary::create();
    info->setObject(Number::withBool(false), "QXErrorKey");
    info->setObject(str("mine"), NSLocalizedDescriptionKey);
    info->setObject(str("v"), "extra");
    auto kept = QXGenerateError(QXErrorDomain, 5, nullptr, nullptr, info);
    EXPECT_FALSE(kept->userInfo()->get<Number>("QXErrorKey")->boolValue());
    EXPECT_EQ(descriptionOf(kept), "mine");
    EXPECT_EQ(infoString(kept, "extra")->utf8(), "v");
    EXPECT_FALSE(infoString(kept, NSLocalizedFailureReasonErrorKey));
    EXPECT_EQ(info->count(), 3u);  // the caller's dictionary is not changed

    // ...but is overwritten, with the failure reason, when one is.
    auto replaced = QXGenerateError(QXErrorDomain, 5, nullptr, nullptr, info, "made %d", 1);
    EXPECT_EQ(descriptionOf(replaced), "made 1");
    EXPECT_EQ(infoString(replaced, NSLocalizedFailureReasonErrorKey)->utf8(), "made 1");
}

TEST(ErrorGenerate, MinusOneInOwnDomainTakesTheUnderlyingIdentity) {
    auto posix2 = Error::create(NSPOSIXErrorDomain, 2);
    auto e = QXGenerateError(QXErrorDomain, -1, nullptr, posix2);
    EXPECT_EQ(e->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(e->code(), 2);
    EXPECT_EQ(descriptionOf(e), posixText(2));
    EXPECT_EQ(infoString(e, NSLocalizedFailureReasonErrorKey)->utf8(), posixText(2));
    EXPECT_EQ(infoString(e, NSLocalizedRecoverySuggestionErrorKey)->utf8(), posixText(2));
    EXPECT_EQ(e->userInfo()->get<Error>(NSUnderlyingErrorKey), posix2);

    // Without an underlying error, or in another domain, nothing is taken over.
    auto alone = QXGenerateError(QXErrorDomain, -1);
    EXPECT_EQ(alone->domain(), QXErrorDomain);
    EXPECT_EQ(alone->code(), -1);
    auto other = QXGenerateError(NSCocoaErrorDomain, -1, nullptr, posix2);
    EXPECT_EQ(other->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(other->code(), -1);
    auto otherCode = QXGenerateError(QXErrorDomain, -2, nullptr, posix2);
    EXPECT_EQ(otherCode->domain(), QXErrorDomain);

    // A wrapped status taken over from the underlying error is converted too.
    auto wrapped = QXGenerateError(QXErrorDomain, -1, nullptr, Error::create(NSOSStatusErrorDomain, 100002));
    EXPECT_EQ(wrapped->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(wrapped->code(), 2);
}

TEST(ErrorGenerate, StatusCodesThatWrapErrnoBecomePosix) {
    auto e = QXGenerateError(NSOSStatusErrorDomain, 100013);
    EXPECT_EQ(e->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(e->code(), 13);
    EXPECT_EQ(descriptionOf(e), posixText(EACCES));

    auto first = QXGenerateError(NSOSStatusErrorDomain, 100001);
    EXPECT_EQ(first->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(first->code(), 1);
    auto last = QXGenerateError(NSOSStatusErrorDomain, 100999);
    EXPECT_EQ(last->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(last->code(), 999);
    EXPECT_FALSE(infoString(last, NSLocalizedDescriptionKey));  // no errno 999: no text

    for (std::int64_t code : {100000, 101000}) {
        auto kept = QXGenerateError(NSOSStatusErrorDomain, code);
        EXPECT_EQ(kept->domain(), NSOSStatusErrorDomain) << code;
        EXPECT_EQ(kept->code(), code);
        const std::string c = std::to_string(code);
        EXPECT_EQ(descriptionOf(kept), "OSStatus " + c + " (" + c + ")");
    }

    // With a format no conversion happens: the format alone is the text.
    auto formatted = QXGenerateError(NSOSStatusErrorDomain, 100013, nullptr, nullptr, nullptr, "denied %s", "here");
    EXPECT_EQ(formatted->domain(), NSOSStatusErrorDomain);
    EXPECT_EQ(formatted->code(), 100013);
    EXPECT_EQ(descriptionOf(formatted), "denied here");
}

TEST(ErrorGenerate, StatusAndSecurityCodesUseTheSecurityMessage) {
    auto notFound = QXGenerateError(NSOSStatusErrorDomain, -43);
    EXPECT_EQ(notFound->domain(), NSOSStatusErrorDomain);
    EXPECT_EQ(notFound->code(), -43);
    EXPECT_EQ(descriptionOf(notFound), Error::securityErrorMessage(-43)->utf8() + " (-43)");

    auto keychain = QXGenerateError(QXSecurityErrorDomain, -25300);
    EXPECT_EQ(descriptionOf(keychain), Error::securityErrorMessage(-25300)->utf8() + " (-25300)");
    EXPECT_EQ(infoString(keychain, NSLocalizedFailureReasonErrorKey)->utf8(), descriptionOf(keychain));

    auto unknown = QXGenerateError(QXSecurityErrorDomain, -99999);
    EXPECT_EQ(descriptionOf(unknown), "OSStatus -99999 (-99999)");

    // Cocoa codes use the platform's failure reason.
    auto cocoa = QXGenerateError(NSCocoaErrorDomain, 260);
    EXPECT_EQ(descriptionOf(cocoa), Error::platformFailureReason(NSCocoaErrorDomain, 260)->utf8());
}

TEST(ErrorGenerate, FormatTakesObjectsStringsAndNumbers) {
    auto url = URL::URLWithString("https://example.com/a");
    auto e = QXGenerateError(QXErrorDomain, 3, nullptr, nullptr, nullptr, "%@ | %s | %d | %.1f | %@ | 100%%",
                             url, std::string("text"), 42, 2.5, Ref<Object>());
    EXPECT_EQ(descriptionOf(e), "https://example.com/a | text | 42 | 2.5 | (null) | 100%");

    // A looked-up format is passed as the string object it is.
    auto fromObject = QXGenerateError(QXErrorDomain, 3, nullptr, nullptr, nullptr, str("<%@>"), str("x"));
    EXPECT_EQ(descriptionOf(fromObject), "<x>");

    auto listed = viaArgumentList(NSCocoaErrorDomain, 256, "%s #%lld %@", "list", 7LL,
                                  static_cast<const Object*>(str("obj").get()));
    EXPECT_EQ(listed->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(descriptionOf(listed), "list #7 obj");
}

TEST(ErrorGenerate, UrlsFileUrlsAndPaths) {
    auto file = URL::fileURLWithPath("/tmp/some dir/file.gz");
    auto e = QXGenerateError(NSCocoaErrorDomain, 256, file);
    EXPECT_EQ(e->userInfo()->get<URL>(NSURLErrorKey), file);
    EXPECT_EQ(infoString(e, NSFilePathErrorKey)->utf8(), "/tmp/some dir/file.gz");

    auto web = URL::URLWithString("http://127.0.0.1:8080/x.bin");
    auto w = QXGenerateError(NSCocoaErrorDomain, 256, web);
    EXPECT_EQ(w->userInfo()->get<URL>(NSURLErrorKey), web);
    EXPECT_FALSE(w->userInfo()->objectForKey(NSFilePathErrorKey));
}

TEST(ErrorGenerate, UnderlyingReasonAndSuggestionBecomeTheSuggestion) {
    auto both = errorWith("X", 1, {{NSLocalizedFailureReasonErrorKey, str("Reason.")},
                                   {NSLocalizedRecoverySuggestionErrorKey, str("Try again.")}});
    EXPECT_EQ(infoString(QXGenerateError(QXErrorDomain, 9, nullptr, both), NSLocalizedRecoverySuggestionErrorKey)->utf8(),
              "Reason. Try again.");

    auto onlySuggestion = errorWith("X", 1, {{NSLocalizedRecoverySuggestionErrorKey, str("Try again.")}});
    EXPECT_EQ(infoString(QXGenerateError(QXErrorDomain, 9, nullptr, onlySuggestion),
                         NSLocalizedRecoverySuggestionErrorKey)->utf8(),
              "Try again.");

    // Non-empty user info without either text: the platform gives no reason,
    // so there is no suggestion key (but the underlying error is filed).
    auto neither = errorWith(NSPOSIXErrorDomain, 2, {{"other", str("x")}});
    auto e = QXGenerateError(QXErrorDomain, 9, nullptr, neither);
    EXPECT_FALSE(e->userInfo()->objectForKey(NSLocalizedRecoverySuggestionErrorKey));
    EXPECT_EQ(e->userInfo()->get<Error>(NSUnderlyingErrorKey), neither);
}

// --- QXAppleScriptError ----------------------------------------------------

TEST(ErrorAppleScript, NumberAndMessage) {
    auto info = Dictionary::create();
    info->setObject(Number::withInt32(-1728), "NSAppleScriptErrorNumber");
    info->setObject(str("Can’t get window 1 (100% sure)."), "NSAppleScriptErrorMessage");
    auto e = QXAppleScriptError(info);
    EXPECT_EQ(e->domain(), QXAppleScriptErrorDomain);
    EXPECT_EQ(e->code(), -1728);
    // The message is a value, never a format: its "%" stays as it is.
    EXPECT_EQ(descriptionOf(e), "Can’t get window 1 (100% sure).");
    EXPECT_TRUE(e->userInfo()->get<Number>("QXErrorKey")->boolValue());

    auto textual = Dictionary::create();
    textual->setObject(str("-2753"), "NSAppleScriptErrorNumber");
    EXPECT_EQ(QXAppleScriptError(textual)->code(), -2753);

    auto empty = QXAppleScriptError(Dictionary::create());
    EXPECT_EQ(empty->code(), 0);
    EXPECT_EQ(empty->domain(), QXAppleScriptErrorDomain);
}

// --- Queries ----------------------------------------------------------------

TEST(ErrorAdditionsURL, LookupOrder) {
    auto direct = URL::URLWithString("https://direct.example/");
    auto failing = URL::URLWithString("https://failing.example/");
    auto deep = URL::URLWithString("https://deep.example/");
    auto withDeep = errorWith("Inner", 1, {{NSURLErrorKey, deep}});

    EXPECT_EQ(ErrorAdditions::URL(*errorWith("X", 1, {{NSURLErrorKey, direct}, {NSFilePathErrorKey, str("/a")}})), direct);

    auto fromPath = ErrorAdditions::URL(*errorWith("X", 1, {{NSFilePathErrorKey, str("/a/b.txt")}, {NSUnderlyingErrorKey, withDeep}}));
    ASSERT_TRUE(fromPath);
    EXPECT_TRUE(fromPath->isFileURL());
    EXPECT_EQ(fromPath->path(), "/a/b.txt");

    // The failing-URL keys count only in the URL domain...
    EXPECT_EQ(ErrorAdditions::URL(*errorWith(NSURLErrorDomain, -1001, {{NSURLErrorFailingURLErrorKey, failing}})), failing);
    EXPECT_EQ(ErrorAdditions::URL(*errorWith("X", 1, {{NSURLErrorFailingURLErrorKey, failing}, {NSUnderlyingErrorKey, withDeep}})),
              deep);
    auto parsed = ErrorAdditions::URL(*errorWith(NSURLErrorDomain, -1001, {{NSURLErrorFailingURLStringErrorKey, str("http://s.example/p")}}));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->host(), "s.example");
    // ...and a failing-URL string ends the search even when it does not parse.
    EXPECT_FALSE(ErrorAdditions::URL(*errorWith(NSURLErrorDomain, -1001, {{NSURLErrorFailingURLStringErrorKey, str("::not a url::")},
                                                                         {NSUnderlyingErrorKey, withDeep}})));

    // Underlying errors are asked in turn, to any depth.
    auto chain = errorWith("A", 1, {{NSUnderlyingErrorKey, errorWith("B", 2, {{NSUnderlyingErrorKey, withDeep}})}});
    EXPECT_EQ(ErrorAdditions::URL(*chain), deep);
    EXPECT_FALSE(ErrorAdditions::URL(*errorWith("X", 1)));
}

TEST(ErrorAdditionsPredicates, FileNotFoundStopsAtKnownDomains) {
    EXPECT_TRUE(ErrorAdditions::isFileNotFoundError(*errorWith(NSPOSIXErrorDomain, 2)));
    EXPECT_TRUE(ErrorAdditions::isFileNotFoundError(*errorWith(NSOSStatusErrorDomain, -43)));
    EXPECT_TRUE(ErrorAdditions::isFileNotFoundError(*errorWith(NSOSStatusErrorDomain, 100002)));
    EXPECT_TRUE(ErrorAdditions::isFileNotFoundError(*errorWith(NSCocoaErrorDomain, 4)));
    EXPECT_TRUE(ErrorAdditions::isFileNotFoundError(*errorWith(NSCocoaErrorDomain, 260)));
    EXPECT_FALSE(ErrorAdditions::isFileNotFoundError(*errorWith(NSCocoaErrorDomain, 2)));

    auto notFound = errorWith(NSPOSIXErrorDomain, 2);
    // A known domain with another code answers false without looking further.
    EXPECT_FALSE(ErrorAdditions::isFileNotFoundError(*errorWith(NSPOSIXErrorDomain, 13, {{NSUnderlyingErrorKey, notFound}})));
    EXPECT_FALSE(ErrorAdditions::isFileNotFoundError(*errorWith(NSCocoaErrorDomain, 256, {{NSUnderlyingErrorKey, notFound}})));
    // Any other domain answers as its underlying error.
    EXPECT_TRUE(ErrorAdditions::isFileNotFoundError(*QXGenerateError(QXErrorDomain, 7, nullptr, notFound)));
    EXPECT_FALSE(ErrorAdditions::isFileNotFoundError(*QXGenerateError(QXErrorDomain, 7)));
}

TEST(ErrorAdditionsPredicates, PermissionFallsThroughEveryDomain) {
    for (auto [domain, code] : std::vector<std::pair<const char*, std::int64_t>>{
             {NSPOSIXErrorDomain, 13}, {NSPOSIXErrorDomain, 1}, {NSOSStatusErrorDomain, -5000},
             {NSOSStatusErrorDomain, 100013}, {NSOSStatusErrorDomain, 100001}, {NSCocoaErrorDomain, 257},
             {NSCocoaErrorDomain, 513}})
        EXPECT_TRUE(ErrorAdditions::isPermissionError(*errorWith(domain, code))) << domain << " " << code;
    EXPECT_FALSE(ErrorAdditions::isPermissionError(*errorWith(NSOSStatusErrorDomain, 13)));

    auto denied = errorWith(NSPOSIXErrorDomain, 13);
    // Unlike the not-found test, a non-matching code of a known domain still
    // asks its underlying error.
    EXPECT_TRUE(ErrorAdditions::isPermissionError(*errorWith(NSPOSIXErrorDomain, 2, {{NSUnderlyingErrorKey, denied}})));
    EXPECT_TRUE(ErrorAdditions::isPermissionError(*errorWith(NSCocoaErrorDomain, 256, {{NSUnderlyingErrorKey, denied}})));
    EXPECT_FALSE(ErrorAdditions::isPermissionError(*errorWith(NSPOSIXErrorDomain, 2)));
}

TEST(ErrorAdditionsPredicates, SelfReferencingChainsEnd) {
    auto loop = errorWith("Loop", 1);
    loop->userInfo()->setObject(loop, NSUnderlyingErrorKey);
    EXPECT_FALSE(ErrorAdditions::isFileNotFoundError(*loop));
    EXPECT_FALSE(ErrorAdditions::isPermissionError(*loop));
    EXPECT_FALSE(ErrorAdditions::URL(*loop));
    loop->userInfo()->removeObjectForKey(NSUnderlyingErrorKey);  // let it be freed
}

// --- Reporting ----------------------------------------------------------------

namespace {

// Records every QXErrorOccurredNotification while it lives.
class ReportObserver {
public:
    struct Report {
        Ref<Error> error;
        Ref<Object> sender;
        bool onMain;
    };

    ReportObserver() {
        token_ = NotificationCenter::defaultCenter()->addObserver(
            QXErrorOccurredNotification, nullptr, [this](const Ref<Notification>& n) {
                std::lock_guard<std::mutex> lock(mutex_);
                reports_.push_back({n->userInfo() ? n->userInfo()->get<Error>("Error") : nullptr, n->object(),
                                    RunLoop::isMainThread()});
                count_ = reports_.size();
            });
    }
    ~ReportObserver() { NotificationCenter::defaultCenter()->removeObserver(token_); }

    std::size_t count() const { return count_.load(); }
    std::vector<Report> reports() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return reports_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Report> reports_;
    std::atomic<std::size_t> count_{0};
    NotificationCenter::ObserverToken token_;
};

void runMainUntil(const std::function<bool()>& done) {
    const auto giveUp = RunLoop::Clock::now() + 60s;
    while (!done() && RunLoop::Clock::now() < giveUp) RunLoop::main()->runMode(RunLoop::DefaultMode, 5s);
    ASSERT_TRUE(done()) << "the main run loop never got the report";
}

} // namespace

TEST(ErrorReporter, SharedInstanceIsOneObjectAcrossThreads) {
    std::vector<Ref<QXErrorReporter>> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = QXErrorReporter::sharedInstance(); });
    for (auto& t : threads) t.join();
    for (const auto& r : seen) EXPECT_EQ(r, QXErrorReporter::sharedInstance());
    EXPECT_TRUE(seen[0]);
}

TEST(ErrorReporter, OnTheMainThreadPostsDirectly) {
    ReportObserver observer;
    auto error = QXGenerateError(QXErrorDomain, 12);
    QXReportError(error);
    ASSERT_EQ(observer.count(), 1u);  // synchronously: no run loop involved
    const auto report = observer.reports()[0];
    EXPECT_EQ(report.error, error);
    EXPECT_EQ(report.sender, nullptr);
    EXPECT_TRUE(report.onMain);
}

TEST(ErrorReporter, FromAnotherThreadObserversRunOnMainFirst) {
    ReportObserver observer;
    auto error = QXGenerateError(NSPOSIXErrorDomain, EIO);
    std::atomic<std::size_t> seenByReporterAfterReturn{0};
    std::atomic<bool> reporterReturned{false};
    std::thread reporter([&] {
        QXReportError(error);
        seenByReporterAfterReturn = observer.count();
        reporterReturned = true;
    });
    runMainUntil([&] { return observer.count() == 1; });
    reporter.join();
    EXPECT_TRUE(reporterReturned.load());
    EXPECT_EQ(seenByReporterAfterReturn.load(), 1u);  // it resumed only after the observer ran
    EXPECT_EQ(observer.reports()[0].error, error);
    EXPECT_TRUE(observer.reports()[0].onMain);
}

TEST(ErrorReporter, ManyReportingThreadsAllDeliverOnMain) {
    ReportObserver observer;
    constexpr int kThreads = 4, kEach = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kEach; ++i) QXReportError(QXGenerateError(QXErrorDomain, t * 1000 + i));
        });
    runMainUntil([&] { return observer.count() == kThreads * kEach; });
    for (auto& t : threads) t.join();
    // All on main, and each thread's reports in the order it made them.
    std::vector<std::int64_t> last(kThreads, -1);
    for (const auto& r : observer.reports()) {
        EXPECT_TRUE(r.onMain);
        const auto t = r.error->code() / 1000, i = r.error->code() % 1000;
        EXPECT_GT(i, last[t]);
        last[t] = i;
    }
}
