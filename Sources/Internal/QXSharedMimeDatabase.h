// QXSharedMimeDatabase.h - file types by name, as the desktop's shared MIME
// database names them.
//
// Only the compiled files the database's update tool leaves in each "mime"
// folder are read: globs2 (weight:type:pattern[:flags]), aliases and
// subclasses. Types are found from a file's name alone; contents are never
// read, so a lookup stays cheap and never touches the file.
//
// The folders are $XDG_DATA_HOME/mime (default ~/.local/share/mime), then each
// of $XDG_DATA_DIRS (default /usr/local/share:/usr/share) with /mime; an
// earlier folder takes precedence. A "__NOGLOBS__" pattern for a type hides
// that type's globs in every later folder, so a user can take a system glob
// back; globs otherwise add up across folders.
//
// A name is matched against literal patterns first, then "*<suffix>"
// patterns, then any other glob; the first of those kinds that matches
// decides. Within it the highest weight wins, then the longest pattern, and
// what is left tied is returned whole: without the contents nothing can tell
// the tied types apart, and callers decide what an ambiguity means to them.
// Patterns fold ASCII case unless their flags say "cs".
//
// The user's folder is anyone's to write, so every file is read bounded (a
// size cap, a line cap, a cap on entries) and a line that does not parse is
// skipped, never fatal. Only regular files are read: a FIFO planted as
// globs2 would otherwise block the first lookup forever.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class QXSharedMimeDatabase {
public:
    /// The database of this process: read from the folders the environment
    /// names on first use (once, whichever thread gets there first), then kept.
    /// With no folder readable it is empty, and every lookup finds nothing.
    static std::shared_ptr<const QXSharedMimeDatabase> shared();
    /// Drops the kept database, so the next shared() reads the folders again
    /// under the environment of that moment. For tests, which point
    /// XDG_DATA_HOME and XDG_DATA_DIRS at databases of their own; callers that
    /// hold the old one keep a valid copy.
    static void resetShared();

    /// The "mime" folders the environment names, in precedence order.
    static std::vector<std::string> searchFolders();
    /// Reads the given folders, earliest first in precedence; missing files
    /// and folders are skipped.
    static std::shared_ptr<const QXSharedMimeDatabase> loadFolders(const std::vector<std::string>& folders);

    /// The canonical types whose patterns best match a file's name (see the
    /// top of this file); empty when nothing matches.
    std::vector<std::string> typesForFileName(std::string_view name) const;
    /// type and every type it is a subclass of, through parents of parents,
    /// all by canonical name (aliases resolved), type first.
    std::vector<std::string> typeAndAncestors(std::string_view type) const;
    /// The canonical name of type: its alias target, else itself.
    std::string canonicalType(std::string_view type) const;

    /// Bounds on what a file may make the reader keep.
    static constexpr std::size_t kMaxFileBytes = 4u << 20;  // the system's globs2 is some 40 KiB
    static constexpr std::size_t kMaxLineBytes = 1024;
    static constexpr std::size_t kMaxEntriesPerFile = 65536;

private:
    struct Glob {
        std::string pattern;  // folded to lower case unless caseSensitive
        std::string type;     // canonical
        int weight;
        bool caseSensitive;
    };

    void readGlobs(const std::string& folder, std::set<std::string>& hiddenTypes,
                   const std::set<std::string>& hiddenBefore);
    void readAliases(const std::string& folder);
    void readSubclasses(const std::string& folder);

    std::vector<Glob> literals_, suffixes_, globs_;
    std::map<std::string, std::string, std::less<>> aliases_;               // alias -> canonical
    std::map<std::string, std::vector<std::string>, std::less<>> parents_;  // type -> its parents
};
