// QXPropertyList.h - an editable tree of property-list values, with undo.
//
// Each node has a type code, a key (inside a dictionary) or a position
// (inside an array), a value (a leaf) or a list of child nodes (a container),
// a weak link to its parent, and an undo manager. Every edit made through the
// public operations registers its inverse with the nearest undo manager up
// the tree, so that undoing replays the private primitives in reverse.
//
// Nodes announce their changes (qx::Observable). The properties and what
// they depend on are declared once for the class:
//   count <- countOfChildren <- children, isContainer, privateValue
//   children <- isContainer, privateValue;  isLeaf <- isContainer
//   isContainer, isValueEditable, type <- typeCode <- privateTypeCode
//   value <- privateValue, isContainer, count
//   stringValue <- value, typeCode, description
//   description, boolValue, dataValue, dateValue, intValue, integerValue,
//   numberValue <- value
// "children" is announced by hand, per index (insertions and removals).
// setAppropriateTypeCode announces "appropriateTypeCode"; setTypeCode tells
// every child that its "isKeyEditable" changes.
//
// Not thread-safe: one thread edits a tree at a time. Searching the tree is
// declared here too (QXPropertyListSearch.cpp).
//
// Selector names that would clash as C++ overloads carry their next keyword:
// addChildReplacingIfNecessary, addChildrenReplacingIfNecessary,
// nextChildMatchingPredicateFromParent (the currentParent:index: form).
#pragma once

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Coder.h>
#include <qx/IndexSet.h>
#include <qx/Observable.h>
#include <qx/UndoManager.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

/// Type codes of a node.
using QXPropertyListType = std::int64_t;
inline constexpr QXPropertyListType QXPropertyListStringType = 1;
inline constexpr QXPropertyListType QXPropertyListNumberType = 2;
inline constexpr QXPropertyListType QXPropertyListBooleanType = 3;
inline constexpr QXPropertyListType QXPropertyListArrayType = 4;
inline constexpr QXPropertyListType QXPropertyListDictionaryType = 5;
inline constexpr QXPropertyListType QXPropertyListDataType = 6;
inline constexpr QXPropertyListType QXPropertyListDateType = 7;
/// A value of a kind outside the table above.
inline constexpr QXPropertyListType QXPropertyListUnknownType = -1;

/// Search scope bits.
using QXPropertyListSearchScope = std::uint64_t;
inline constexpr QXPropertyListSearchScope QXPropertyListSearchKeys = 1;
inline constexpr QXPropertyListSearchScope QXPropertyListSearchValues = 2;

/// String-compare option bits, with the platform's values.
using QXStringCompareOptions = std::uint64_t;
inline constexpr QXStringCompareOptions QXCaseInsensitiveSearch = 1;
inline constexpr QXStringCompareOptions QXLiteralSearch = 2;
inline constexpr QXStringCompareOptions QXBackwardsSearch = 4;
inline constexpr QXStringCompareOptions QXAnchoredSearch = 8;
inline constexpr QXStringCompareOptions QXNumericSearch = 64;
inline constexpr QXStringCompareOptions QXDiacriticInsensitiveSearch = 128;
inline constexpr QXStringCompareOptions QXWidthInsensitiveSearch = 256;

class QXSearchPattern;

/// Exported for the host application; no operation of the library posts it.
extern const char* const QXPropertyListDidChangeNotification;

class QXPropertyList : public qx::Observable, public qx::Coding {
public:
    using Ref = qx::Ref<QXPropertyList>;
    using Nodes = std::vector<Ref>;
    /// A test applied to candidate nodes by the search.
    using Predicate = std::function<bool(const Ref& node)>;
    /// The not-found index.
    static constexpr std::size_t NotFound = static_cast<std::size_t>(-1);

    // --- Construction (each returns a new root) -------------------------------
    /// A node holding an empty dictionary.
    static Ref propertyList();
    static Ref init() { return propertyList(); }
    /// A node storing value with setValue (a container value stays plain).
    static Ref propertyListWithValue(const qx::Ref<qx::Object>& value);
    static Ref initWithValue(const qx::Ref<qx::Object>& value) { return propertyListWithValue(value); }
    /// A whole tree built from a plain value by loadUnwrappedValue.
    static Ref propertyListWithUnwrappedValue(const qx::Ref<qx::Object>& value);
    static Ref initWithUnwrappedValue(const qx::Ref<qx::Object>& value) { return propertyListWithUnwrappedValue(value); }
    /// A string node holding parent's uniqueKey, attached to parent.
    static Ref propertyListWithParent(const Ref& parent);
    static Ref initWithParent(const Ref& parent) { return propertyListWithParent(parent); }
    static Ref arrayPropertyListWithContents(const Nodes& contents = {});
    static Ref dictionaryPropertyListWithContents(const Nodes& contents = {});
    /// Reads data in any format and builds the tree; nothing when reading fails.
    static Ref propertyListWithData(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format,
                                    qx::Ref<qx::Error>* error = nullptr);
    static Ref initWithData(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format,
                            qx::Ref<qx::Error>* error = nullptr) {
        return propertyListWithData(data, format, error);
    }
    /// The unwrapped tree written in format 1, 100 or 200.
    qx::Ref<qx::Data> dataOfFormat(QXPropertyListFormat format, qx::Ref<qx::Error>* error = nullptr) const;

    ~QXPropertyList() override;

    // --- Structure and identity -------------------------------------------------
    Ref parent() const { return _privateParent.lock(); }
    void setParent(const Ref& parent);
    /// This node's own undo manager, else its parent's (recursively).
    qx::Ref<qx::UndoManager> undoManager() const;
    void setUndoManager(const qx::Ref<qx::UndoManager>& undoManager) { _privateUndoManager = undoManager; }
    /// The index in an array parent as decimal text; the stored key under a
    /// dictionary or at a root; nothing under a leaf.
    qx::Ref<qx::String> key() const;
    void setKey(const qx::Ref<qx::String>& key);
    bool isKeyEditable() const;
    bool isValueEditable() const;
    bool isContainer() const { return isContainerCode(_privateTypeCode); }
    bool isLeaf() const { return !isContainer(); }
    std::size_t count() const { return countOfChildren(); }
    /// Child indexes from the root down to this node.
    std::vector<std::size_t> indexPath() const;
    std::string description() const override;
    /// 1 when other is not a node; else by key (empty keys first), compared
    /// case-insensitively and digit-aware in the current locale.
    int compare(const qx::Ref<qx::Object>& other) const;
    /// A deep copy of the same class.
    qx::Ref<qx::Object> copy() const override;
    std::string className() const override { return "QXPropertyList"; }

    // --- Values and conversions -------------------------------------------------
    QXPropertyListType typeCode() const { return _privateTypeCode; }
    void setTypeCode(QXPropertyListType typeCode);
    void setAppropriateTypeCode();
    /// The localised type name.
    qx::Ref<qx::String> type() const;
    void setType(const qx::Ref<qx::String>& type);
    /// The value's class name without the prefixes NS, CF, QX, Big, Concrete, Mutable.
    qx::Ref<qx::String> objectTypeFromClassName() const;
    /// "%lu objects" for a container; the stored value for a leaf.
    qx::Ref<qx::Object> value() const;
    void setValue(const qx::Ref<qx::Object>& value);
    qx::Ref<qx::String> stringRepresentationForConversion() const;
    qx::Ref<qx::String> stringValue() const;
    void setStringValue(const qx::Ref<qx::String>& text);
    bool boolValue() const;
    void setBoolValue(bool value);
    qx::Ref<qx::Number> numberValue() const;
    void setNumberValue(const qx::Ref<qx::Number>& value);
    std::int32_t intValue() const;
    void setIntValue(std::int32_t value);
    std::int64_t integerValue() const;
    void setIntegerValue(std::int64_t value);
    qx::Ref<qx::Data> dataValue() const;
    void setDataValue(const qx::Ref<qx::Data>& value);
    qx::Ref<qx::Date> dateValue() const;
    void setDateValue(const qx::Ref<qx::Date>& value);
    void loadUnwrappedValue(const qx::Ref<qx::Object>& value);
    /// The plain value of the subtree.
    qx::Ref<qx::Object> unwrappedPropertyList() const;

    // --- Children -----------------------------------------------------------------
    /// A copy of the child list (nothing for a leaf). A container made from a
    /// plain array value (propertyListWithValue) holds plain elements; those
    /// read as null nodes here.
    std::optional<Nodes> children() const;
    /// The child list itself, or nothing.
    qx::Ref<qx::Array> privateChildren() const;
    std::size_t countOfChildren() const;
    Ref objectInChildrenAtIndex(std::size_t index) const;
    /// Copies count children from location into buffer (the range must lie inside).
    void getChildren(Ref* buffer, std::size_t location, std::size_t count) const;
    void addChild(const Ref& child) { addChildReplacingIfNecessary(child, true); }
    void addChildReplacingIfNecessary(const Ref& child, bool replace);
    void addChildrenReplacingIfNecessary(const Nodes& children, bool replace);
    void insertChild(const Ref& child, std::size_t index) { insertObjectInChildrenAtIndex(child, index); }
    /// Inserts each at index in turn: the run ends up reversed.
    void insertChildren(const Nodes& children, std::size_t index);
    void insertObjectInChildrenAtIndex(const Ref& child, std::size_t index);
    void removeObjectFromChildrenAtIndex(std::size_t index);
    void removeChild(const Ref& child);
    void removeChildren(const Nodes& children);
    void moveChild(const Ref& child, std::size_t index);
    void moveChildAtIndex(std::size_t from, std::size_t to);
    Ref childWithKey(const qx::Ref<qx::String>& key) const;
    void setChildren(const Nodes& children);
    bool hasDescendant(const Ref& node) const;
    /// Calls body for each child in order; a change of this node during the
    /// walk stops the process (as the platform's enumeration raises).
    void forEachChild(const std::function<void(const Ref& child, bool& stop)>& body) const;
    /// The same over the given indexes; reverse walks them last first.
    void enumerateObjectsAtIndexes(const qx::Ref<qx::IndexSet>& indexes, bool reverse,
                                   const std::function<void(const Ref& child, std::size_t index, bool& stop)>& body) const;

    // --- Unique keys ----------------------------------------------------------------
    qx::Ref<qx::String> uniqueKey() const { return uniqueKeyWithExistingKey(nullptr); }
    qx::Ref<qx::String> uniqueKeyWithExistingKey(const qx::Ref<qx::String>& key) const;
    /// True when key is a string that no child of this node's parent has;
    /// else code 1 in QXErrorDomain.
    bool validateKey(qx::Ref<qx::Object>* key, qx::Ref<qx::Error>* error = nullptr) const;

    // --- Search ------------------------------------------------------------------------
    /// Match types: a set of type codes, or nothing for all.
    using MatchTypes = std::optional<std::set<QXPropertyListType>>;
    Ref nextChildContainingString(const qx::Ref<qx::String>& text, const Ref& start, bool inclusive,
                                  QXPropertyListSearchScope scope, QXStringCompareOptions options,
                                  const MatchTypes& matchTypes) const;
    Ref nextChildMatchingPredicate(const Predicate& test, const Ref& start, bool inclusive, bool backwards) const;
    Ref nextChildMatchingPredicateFromParent(const Predicate& test, const Ref& parent, std::size_t index,
                                             bool backwards, bool climbUpTree) const;
    static Ref searchPropertyList(const Ref& node, const Predicate& test, bool backwards);
    /// Every node of the subtree below this one that containsSearchString
    /// accepts, in document order (or its exact reverse when the options hold
    /// the backwards bit), descendants of a match included: unlike repeated
    /// find-next, which leaves a match's own subtree unvisited. The text is
    /// compiled once; a large tree is walked on several threads at once, so
    /// nothing may edit it meanwhile (as for any reading of a tree).
    Nodes allChildrenContainingString(const qx::Ref<qx::String>& text, QXPropertyListSearchScope scope,
                                      QXStringCompareOptions options, const MatchTypes& matchTypes) const;
    bool containsSearchString(const qx::Ref<qx::String>& text, QXPropertyListSearchScope scope,
                              QXStringCompareOptions options, const MatchTypes& matchTypes) const;

    // --- Archiving -----------------------------------------------------------------------
    void encodeWithCoder(qx::Coder& coder) const override;
    /// A node decoded from coder; nothing when the archive holds no usable type code.
    static Ref initWithCoder(qx::Coder& coder);

    // --- Private primitives (each registers its inverse first) ------------------------
    void privateSetTypeCode(QXPropertyListType typeCode);
    void privateSetValue(const qx::Ref<qx::Object>& value);
    void privateSetChildren(const Nodes& children);
    // Plain accessors, no undo.
    Ref privateParent() const { return _privateParent.lock(); }
    void setPrivateParent(const Ref& parent) { _privateParent = parent; }
    const qx::Ref<qx::UndoManager>& privateUndoManager() const { return _privateUndoManager; }
    void setPrivateUndoManager(const qx::Ref<qx::UndoManager>& m) { _privateUndoManager = m; }
    QXPropertyListType privateTypeCode() const { return _privateTypeCode; }
    void setPrivateTypeCode(QXPropertyListType code) { _privateTypeCode = code; }
    const qx::Ref<qx::String>& privateKey() const { return _privateKey; }
    void setPrivateKey(const qx::Ref<qx::String>& key) { _privateKey = key; }
    const qx::Ref<qx::Object>& privateValue() const { return _privateValue; }
    void setPrivateValue(const qx::Ref<qx::Object>& value) { storeValue(value); }
    bool isWatchingMutations() const { return _isWatchingMutations; }
    void setIsWatchingMutations(bool watching) { _isWatchingMutations = watching; }
    /// Changes counted since watching began.
    std::uint64_t mutations() const { return _mutations; }
    void startWatchingMutations();
    void stopWatchingMutations();

    static bool isContainerCode(QXPropertyListType code) {
        return code == QXPropertyListArrayType || code == QXPropertyListDictionaryType;
    }

protected:
    QXPropertyList() = default;

private:
    // Lets the class allocate a node and its reference count together
    // (std::make_shared) while the constructor stays closed to others.
    struct Allocation {
        explicit Allocation() = default;
    };

public:
    explicit QXPropertyList(Allocation) {}

protected:
    /// A new, empty node of the same class as this one (copying uses it);
    /// subclasses override it.
    virtual Ref makeNodeOfSameClass() const;
    const DependentsTable* classDependents() const override;

private:
    /// A new node of this class, one allocation.
    static Ref makeNode();
    /// Fills a node that nothing else refers to yet (no observers, no undo
    /// manager, no parent) with the tree of value, without the primitives:
    /// nothing could hear or undo their announcements and inverses.
    /// keys hands out one string object per key text seen recently, so
    /// that the dictionaries of a large tree share their keys.
    struct SharedKeys;
    void adoptUnwrappedValue(const qx::Ref<qx::Object>& value, SharedKeys& keys);
    static Ref makeUnwrapped(const qx::Ref<qx::Object>& value, SharedKeys& keys);
    Ref self() const;
    const qx::Array* childList() const;
    /// allChildrenContainingString's walk (QXPropertyListSearch.cpp).
    struct FindAll;
    /// containsSearchString with the text compiled, the parent's kind known.
    bool matchesSearchPattern(const QXSearchPattern& pattern, QXPropertyListSearchScope scope,
                              const MatchTypes& matchTypes, bool underDictionary) const;
    bool parentIsDictionary() const;
    bool parentIsArray() const;
    std::size_t indexOfChild(const QXPropertyList* child) const;
    /// setParent for a node that may already sit at index in parent's list;
    /// checking there first saves a scan of the whole list.
    void setParentExpectingIndex(const Ref& parent, std::size_t index);
    void announceWill(std::string_view key);
    void announceDid(std::string_view key);
    void announceChildren(bool insertion, bool prior, std::size_t index);
    /// Registers inverse with undoManager(), to run on this node if it still
    /// exists. Without a manager the inverse is never even wrapped.
    template <class Inverse>
    void registerInverse(Inverse&& inverse) {
        if (auto manager = undoManager()) registerInverseWith(manager, std::forward<Inverse>(inverse));
    }
    void registerInverseWith(const qx::Ref<qx::UndoManager>& manager, std::function<void(QXPropertyList& node)> inverse);
    /// Registers the inverse that stores old again as the value.
    void registerRestore(const qx::Ref<qx::Object>& old);

    // The class of _privateValue when it is exactly one of the plain kinds,
    // noted whenever the value is stored, so that a search reads the value
    // only when the pattern could match it.
    enum class ValueKind : std::uint8_t { Other, String, Number, Data, FiniteDate, Date, Array };
    void storeValue(qx::Ref<qx::Object> value);

    // What a search reads comes first, next to the class pointer.
    QXPropertyListType _privateTypeCode = 0;
    ValueKind _valueKind = ValueKind::Other;
    bool _isWatchingMutations = false;
    qx::Ref<qx::Object> _privateValue;  // a leaf's value, or a container's qx::Array of nodes
    qx::Ref<qx::String> _privateKey;
    qx::WeakRef<QXPropertyList> _privateParent;
    qx::Ref<qx::UndoManager> _privateUndoManager;
    std::uint64_t _mutations = 0;
};
