// PlistEditCommand.cpp - `qx plist get|set|insert|remove|find`: reading and
// editing property lists by key path, through the library's editable tree.
#include "PlistEditCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"
#include "PlistKeyPath.h"

#include "Internal/QXXMLPlistPrinter.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <CLI/CLI.hpp>

#include <qx/Date.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <new>

namespace qxtool {

namespace {

struct EditOptions {
    std::string input, keyPath, value, type, output, format, text;
    std::vector<std::string> types;
    bool raw = false, keys = false, values = false, ignoreCase = false, backwards = false, all = false;
};

const std::map<std::string, QXPropertyListFormat> kFormats{
    {"binary", QXPropertyListBinaryFormat_v1_0}, {"xml", QXPropertyListXMLFormat_v1_0}, {"text", QXPropertyListOpenStepFormat}};

const std::map<std::string, QXPropertyListType> kTypes{
    {"string", QXPropertyListStringType}, {"integer", QXPropertyListNumberType}, {"real", QXPropertyListNumberType},
    {"bool", QXPropertyListBooleanType},  {"date", QXPropertyListDateType},     {"data", QXPropertyListDataType},
    {"array", QXPropertyListArrayType},   {"dict", QXPropertyListDictionaryType}};

std::string quoted(const std::string& text) { return "\xE2\x80\x9C" + text + "\xE2\x80\x9D"; }

// Strict readers of typed command-line text: the library's parsers of typed
// text never fail, but a value that is not of its type must be refused here.
qx::Ref<qx::Object> parseInteger(const std::string& text) {
    if (text.empty()) return nullptr;
    char* end = nullptr;
    errno = 0;
    if (text[0] == '-') {
        const long long v = std::strtoll(text.c_str(), &end, 10);
        if (errno || *end || end == text.c_str() + 1) return nullptr;
        return qx::Number::withInt64(v);
    }
    if (text.find_first_not_of("+0123456789") != std::string::npos) return nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (errno || *end) return nullptr;
    return v <= static_cast<unsigned long long>(INT64_MAX) ? qx::Number::withInt64(static_cast<std::int64_t>(v))
                                                           : qx::Number::withUInt64(v);
}

qx::Ref<qx::Object> parseReal(const std::string& text) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return nullptr;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);  // the program runs in the C locale: "." is the decimal point
    return *end ? nullptr : qx::Number::withDouble(v);
}

qx::Ref<qx::Object> parseBool(std::string text) {
    for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (text == "true" || text == "yes" || text == "1") return qx::Number::withBool(true);
    if (text == "false" || text == "no" || text == "0") return qx::Number::withBool(false);
    return nullptr;
}

// "YYYY-MM-DDTHH:MM:SSZ", the form the XML format writes.
qx::Ref<qx::Object> parseDate(const std::string& text) {
    std::tm tm{};
    char z = 0;
    int consumed = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                    &tm.tm_min, &tm.tm_sec, &z, &consumed) != 7 ||
        z != 'Z' || static_cast<std::size_t>(consumed) != text.size() || tm.tm_mon < 1 || tm.tm_mon > 12 ||
        tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 || tm.tm_sec > 60)
        return nullptr;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    return qx::Date::withTimeIntervalSince1970(static_cast<double>(timegm(&tm)));
}

qx::Ref<qx::Object> parseData(const std::string& text) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/= \t\r\n";
    if (text.find_first_not_of(alphabet) != std::string::npos) return nullptr;
    return QXPropertyListSerialization::dataWithBase64String(qx::String(text));
}

qx::Ref<qx::Object> parseValue(const std::string& type, const std::string& text) {
    if (type == "string") return qx::str(text);
    if (type == "integer") return parseInteger(text);
    if (type == "real") return parseReal(text);
    if (type == "bool") return parseBool(text);
    if (type == "date") return parseDate(text);
    if (type == "data") return parseData(text);
    return nullptr;
}

// The --type a leaf already has, for a set without one.
std::string typeOf(const QXPropertyList::Ref& node, const std::string& text) {
    switch (node->typeCode()) {
    case QXPropertyListNumberType: return parseInteger(text) ? "integer" : "real";
    case QXPropertyListBooleanType: return "bool";
    case QXPropertyListDateType: return "date";
    case QXPropertyListDataType: return "data";
    default: return "string";
    }
}

// A tree whose root is kept until the process ends (see keepUntilExit in PlistCommand.cpp).
struct Loaded {
    QXPropertyList::Ref root;
    QXPropertyListFormat format = 0;
};

Loaded load(const std::string& path) {
    qx::Ref<qx::Error> error;
    auto data = readInput(path, &error);
    Loaded loaded;
    if (!data) {
        reportFailure(inputDisplayName(path), reasonFromError(error));
        return loaded;
    }
    loaded.root = QXPropertyList::propertyListWithData(data, &loaded.format, &error);
    if (!loaded.root) reportFailure(inputDisplayName(path), reasonFromError(error));
    return loaded;
}

int save(const EditOptions& options, const Loaded& loaded) {
    const QXPropertyListFormat format = options.format.empty() ? loaded.format : kFormats.at(options.format);
    qx::Ref<qx::Error> error;
    auto bytes = serializeForWriting(loaded.root->unwrappedPropertyList(), format, &error);
    if (!bytes) return reportFailure(inputDisplayName(options.input), "cannot be written: " + reasonFromError(error));
    const std::string& output = options.output.empty() ? options.input : options.output;
    if (!writeOutput(output, bytes->bytes(), bytes->length(), &error))
        return reportFailure(outputDisplayName(output), reasonFromError(error));
    return kExitSuccess;
}

int print(const std::string& text) {
    qx::Ref<qx::Error> error;
    if (!writeOutput("-", text.data(), text.size(), &error))
        return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return kExitSuccess;
}

int runGet(const EditOptions& options) {
    Loaded loaded = load(options.input);
    if (!loaded.root) return kExitFailure;
    auto node = resolveKeyPath(loaded.root, splitKeyPath(options.keyPath));
    if (!node) return reportFailure(inputDisplayName(options.input), "no value at key path " + quoted(options.keyPath));
    auto value = node->unwrappedPropertyList();
    const bool bare = options.raw && (qx::dyn_cast<qx::String>(value) ||
                                      (qx::dyn_cast<qx::Number>(value) && !qx::dyn_cast<qx::Number>(value)->isBoolean()));
    if (bare || node->isContainer()) return print(qx::describe(value.get()) + "\n");
    auto text = QXPropertyListSerialization::oldStylePlistStringWithItem(value);
    return print((text ? text->utf8() : qx::describe(value.get())) + "\n");
}

int runSet(const EditOptions& options) {
    Loaded loaded = load(options.input);
    if (!loaded.root) return kExitFailure;
    const std::string name = inputDisplayName(options.input);
    auto node = resolveKeyPath(loaded.root, splitKeyPath(options.keyPath));
    if (!node) return reportFailure(name, "no value at key path " + quoted(options.keyPath));
    if (node->isContainer()) return reportFailure(name, "key path " + quoted(options.keyPath) + " names a container");
    const std::string type = options.type.empty() ? typeOf(node, options.value) : options.type;
    if (type == "array" || type == "dict") return reportFailure(name, "set replaces values; use insert for containers");
    auto value = parseValue(type, options.value);
    if (!value) return reportFailure(name, quoted(options.value) + " is not a valid " + type);
    // A change of kind goes through the tree's own conversion first.
    if (kTypes.at(type) != node->typeCode()) node->setTypeCode(kTypes.at(type));
    node->setValue(value);
    return save(options, loaded);
}

int runInsert(const EditOptions& options) {
    Loaded loaded = load(options.input);
    if (!loaded.root) return kExitFailure;
    const std::string name = inputDisplayName(options.input);
    auto components = splitKeyPath(options.keyPath);
    const std::string last = components.back();
    components.pop_back();
    auto parent = resolveKeyPath(loaded.root, components);
    if (!parent || !parent->isContainer())
        return reportFailure(name, "no container holds key path " + quoted(options.keyPath));
    QXPropertyList::Ref child;
    if (options.type == "array" || options.type == "dict") {
        child = options.type == "array" ? QXPropertyList::arrayPropertyListWithContents()
                                        : QXPropertyList::dictionaryPropertyListWithContents();
    } else {
        auto value = parseValue(options.type, options.value);
        if (!value) return reportFailure(name, quoted(options.value) + " is not a valid " + options.type);
        child = QXPropertyList::propertyListWithValue(value);
    }
    if (parent->typeCode() == QXPropertyListDictionaryType) {
        if (parent->childWithKey(qx::str(last)))
            return reportFailure(name, "key path " + quoted(options.keyPath) + " already exists");
        child->setKey(qx::str(last));
        parent->addChildReplacingIfNecessary(child, false);
    } else {
        std::size_t index = 0;
        if (!parseIndex(last, &index) || index > parent->countOfChildren())
            return reportFailure(name, quoted(last) + " is no index from 0 to " + std::to_string(parent->countOfChildren()));
        parent->insertChild(child, index);
    }
    return save(options, loaded);
}

int runRemove(const EditOptions& options) {
    Loaded loaded = load(options.input);
    if (!loaded.root) return kExitFailure;
    const std::string name = inputDisplayName(options.input);
    auto node = resolveKeyPath(loaded.root, splitKeyPath(options.keyPath));
    if (!node) return reportFailure(name, "no value at key path " + quoted(options.keyPath));
    if (!node->parent()) return reportFailure(name, "the root cannot be removed");
    node->parent()->removeChild(node);
    return save(options, loaded);
}

int runFind(const EditOptions& options) {
    Loaded loaded = load(options.input);
    if (!loaded.root) return kExitFailure;
    const QXPropertyListSearchScope scope = (options.keys || !options.values ? QXPropertyListSearchKeys : 0) |
                                            (options.values || !options.keys ? QXPropertyListSearchValues : 0);
    const QXStringCompareOptions compare =
        (options.ignoreCase ? QXCaseInsensitiveSearch : 0) | (options.backwards ? QXBackwardsSearch : 0);
    QXPropertyList::MatchTypes types;
    if (!options.types.empty()) {
        types.emplace();
        for (const auto& t : options.types) types->insert(kTypes.at(t));
    }
    const auto text = qx::str(options.text);
    std::string out;
    if (options.all) {
        // Not repeated find-next: that leaves a match's own subtree unvisited.
        for (const auto& node : loaded.root->allChildrenContainingString(text, scope, compare, types))
            out += keyPathOf(node) + "\n";
    } else if (auto node = loaded.root->nextChildContainingString(text, nullptr, false, scope, compare, types)) {
        out = keyPathOf(node) + "\n";
    }
    if (out.empty()) return kExitFailure;  // like grep: no match is status 1 without a message
    return print(out);
}

int guarded(int (*action)(const EditOptions&), const EditOptions& options) {
    try {
        return action(options);
    } catch (const std::bad_alloc&) {
        return reportFailure(inputDisplayName(options.input), "not enough memory to process this file");
    } catch (const std::exception& e) {
        return reportFailure(inputDisplayName(options.input), e.what());
    }
}

std::vector<std::string> namesOf(const auto& table) {
    std::vector<std::string> names;
    for (const auto& entry : table) names.push_back(entry.first);
    return names;
}

CLI::App* verb(CLI::App& plist, Action& selected, const char* name, const char* help, int (*action)(const EditOptions&),
               const std::shared_ptr<EditOptions>& options) {
    auto* command = plist.add_subcommand(name, help);
    command->add_option("FILE", options->input, "Property list to read (\"-\": standard input)")->required();
    command->callback([&selected, options, action] { selected = [options, action] { return guarded(action, *options); }; });
    return command;
}

void addOutputOptions(CLI::App* command, EditOptions& options) {
    command->add_option("--output,-o", options.output, "File to write instead of FILE (\"-\": standard output)");
    command->add_option("--format,-f", options.format, "Format to write (default: FILE's own)")
        ->type_name("FORMAT")
        ->transform(CLI::IsMember(namesOf(kFormats), CLI::ignore_case));
}

} // namespace

qx::Ref<qx::Data> serializeForWriting(const qx::Ref<qx::Object>& value, QXPropertyListFormat format,
                                      qx::Ref<qx::Error>* error) {
    qx::Ref<qx::Data> bytes;
    if (format == QXPropertyListXMLFormat_v1_0) {
        // Parsing a large XML document again costs more than writing it; the
        // printer vouches for the documents that cannot fail to read back.
        bool readsBack = false;
        bytes = QXXMLPlistInternal::xmlDocumentWithPropertyList(value, &readsBack, error);
        if (!bytes || readsBack) return bytes;
    } else {
        bytes = QXPropertyListSerialization::dataWithPropertyList(value, format, QXBinaryPlistWidenReferences, error);
        if (!bytes) return nullptr;
    }
    qx::Ref<qx::Error> readError;
    if (!QXPropertyListSerialization::propertyListWithData(bytes, nullptr, &readError)) {
        if (error) {
            auto info = qx::Dictionary::create();
            info->setObject(qx::str("the written form would not read back (" + reasonFromError(readError) + ")"),
                            qx::NSLocalizedDescriptionKey);
            *error = qx::Error::create(qx::NSCocoaErrorDomain, 3840, info);
        }
        return nullptr;
    }
    return bytes;
}

void addPlistEditCommands(CLI::App& plist, Action& selected) {
    const auto typeNames = namesOf(kTypes);
    std::vector<std::string> leafTypes;
    for (const auto& t : typeNames)
        if (t != "array" && t != "dict") leafTypes.push_back(t);

    auto get = std::make_shared<EditOptions>();
    auto* command = verb(plist, selected, "get", "Print the value at a key path", runGet, get);
    command->add_option("KEYPATH", get->keyPath, "Key path (\".\" between keys, \"\\.\" for a dot in a key)")->required();
    command->add_flag("--raw", get->raw, "Print a string or number bare");

    auto set = std::make_shared<EditOptions>();
    command = verb(plist, selected, "set", "Replace the value at a key path", runSet, set);
    command->add_option("KEYPATH", set->keyPath, "Key path of the value")->required();
    command->add_option("VALUE", set->value, "The new value")->required();
    command->add_option("--type,-t", set->type, "Type of the new value (default: the old one's)")
        ->transform(CLI::IsMember(leafTypes));
    addOutputOptions(command, *set);

    auto insert = std::make_shared<EditOptions>();
    command = verb(plist, selected, "insert", "Add a value at a key path", runInsert, insert);
    command->add_option("KEYPATH", insert->keyPath, "Key path of the new value")->required();
    command->add_option("VALUE", insert->value, "The value (none for array and dict)");
    command->add_option("--type,-t", insert->type, "Type of the value")->required()->transform(CLI::IsMember(typeNames));
    addOutputOptions(command, *insert);

    auto remove = std::make_shared<EditOptions>();
    command = verb(plist, selected, "remove", "Remove the value at a key path", runRemove, remove);
    command->add_option("KEYPATH", remove->keyPath, "Key path of the value")->required();
    addOutputOptions(command, *remove);

    auto find = std::make_shared<EditOptions>();
    command = verb(plist, selected, "find", "Print the key path of the first value containing a text", runFind, find);
    command->add_option("TEXT", find->text, "Text to find")->required();
    command->add_flag("--keys", find->keys, "Search keys (default: keys and values)");
    command->add_flag("--values", find->values, "Search values (default: keys and values)");
    command->add_flag("--ignore-case,-i", find->ignoreCase, "Ignore case");
    command->add_flag("--backwards", find->backwards, "Find the last match instead");
    command->add_option("--type,-t", find->types, "Only values of this type (repeatable)")->transform(CLI::IsMember(typeNames));
    command->add_flag("--all", find->all, "Print every match in document order (reversed with --backwards)");
}

} // namespace qxtool
