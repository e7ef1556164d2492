// QXXMLPlistBuilder.h - property-list values built while an XML document is parsed.
//
// Private to Sources/. The parser (QXXMLPlistReader) makes every element,
// text and entity-reference node exactly as libxml2's own tree builder does,
// and tells the builder when an element opens and when it closes. The
// builder turns each closed value element into its value at once and frees
// what the value no longer needs, so a document of any size holds only its
// open elements, the leaf being read and the values built so far.
//
// What it frees never changes what the parser does next: of the children of
// an open container it keeps the first and the last (emptied), the nodes the
// parser consults when it decides whether white space is ignorable and
// whether text joins the node before it. The subtree of a leaf is kept whole
// until the leaf closes, so its text, comments, nested elements and entity
// references read as they always did.
//
// Failures are held back, not reported when found: a document that later
// turns out not to be well-formed reports the parser's error instead. They
// are reported by finish() in the order of a check of the finished document:
// root element, version, number of values under plist (a second value
// outranks any failure inside the first), then the values in document order.
//
// One builder serves one parse on one thread.
#pragma once

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/String.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct _xmlDoc;
struct _xmlNode;

class QXXMLPlistBuilder {
public:
    /// entityBudget: the text that entity references may add in all.
    explicit QXXMLPlistBuilder(std::size_t entityBudget) : entityBudget_(entityBudget) {}
    QXXMLPlistBuilder(const QXXMLPlistBuilder&) = delete;
    QXXMLPlistBuilder& operator=(const QXXMLPlistBuilder&) = delete;

    /// node has just been made the parser's current element, attributes set.
    void elementOpened(_xmlNode& node);
    /// node, the parser's current element until now, has just been closed.
    void elementClosed(_xmlNode& node);

    /// True once the root element has closed. libxml2 can stop reporting
    /// elements without calling the document malformed (a text node over its
    /// size limit does that): the parse then did not complete.
    bool complete() const { return rootSeen_ && frames_.empty(); }

    /// After a complete parse without errors: the value of the plist
    /// element, or nothing with the first failure logged and stored in *error.
    qx::Ref<qx::Object> finish(qx::Ref<qx::Error>* error);

private:
    enum class Role : std::uint8_t { Plist, Array, Dictionary };
    struct Frame {
        Role role;
        _xmlNode* node;
        qx::Ref<qx::Array> array;            // Role::Array, while nothing failed
        qx::Ref<qx::Dictionary> dictionary;  // Role::Dictionary, while nothing failed
        std::string key;                     // the key waiting for its value
        bool awaitingValue = false;          // a key was read, its value not yet
        unsigned elements = 0;               // Role::Plist: element children so far
    };
    // A failure held back: its log line (if any) and error code (0: none is stored).
    struct Failure {
        bool logs = false;
        std::string line;
        std::int64_t code = 0;
    };

    void openRoot(_xmlNode& node);
    void checkChild(Frame& parent, const _xmlNode& node, bool container);
    void attach(Frame& parent, qx::Ref<qx::Object> value);
    qx::Ref<qx::Object> leafValue(const _xmlNode& node);
    qx::Ref<qx::Object> closeContainer(Frame& frame);
    bool text(const _xmlNode& node, std::string& out);
    bool gather(const _xmlNode* child, std::string& out, unsigned entityDepth);
    static void release(_xmlNode& node);
    qx::Ref<qx::String> keyString(const std::string& text);

    void fail(std::int64_t code) { failWith(code, false, {}); }
    void failLogging(std::int64_t code, std::string line) { failWith(code, true, std::move(line)); }
    void failWith(std::int64_t code, bool logs, std::string line) {
        if (failed_) return;
        failed_ = true;
        failure_ = Failure{logs, std::move(line), code};
    }

    std::vector<Frame> frames_;  // the open containers, plist first
    unsigned leafDepth_ = 0;     // >0 inside a leaf: 1 for the leaf, more for elements nested in it
    std::size_t entityBudget_;
    const _xmlDoc* doc_ = nullptr;  // whose entities references name
    bool failed_ = false;
    bool rootSeen_ = false;
    bool rootFailed_ = false;    // the root or its version failed: nothing outranks that
    Failure failure_;
    qx::Ref<qx::Object> result_;
    std::string scratch_;
    // Keys repeat from one dictionary to the next, and strings are immutable:
    // recent short keys are shared, one per slot of their hash (a miss only
    // costs a new string, so crafted keys cannot make it slow).
    std::array<qx::Ref<qx::String>, 1024> keys_;
};
