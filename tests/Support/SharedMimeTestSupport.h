// SharedMimeTestSupport.h - a shared MIME database of the test's own, and
// environment variables set for a scope.
//
// A FakeMimeDatabase points XDG_DATA_HOME at a user folder and XDG_DATA_DIRS
// at two system folders of a temporary directory, so what the process's
// database holds is only what the test writes; the variables and the
// process's database are put back when it goes.
#pragma once

#include "TestSupport.h"

#include "Internal/QXSharedMimeDatabase.h"

namespace qxtest {

// Sets (or with nullptr unsets) variables for a scope and restores them.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::initializer_list<std::pair<const char*, const char*>> settings) {
        for (const auto& [name, value] : settings) {
            const char* old = std::getenv(name);
            saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
            if (value)
                ::setenv(name, value, 1);
            else
                ::unsetenv(name);
        }
    }
    ~ScopedEnvironment() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            if (it->second)
                ::setenv(it->first.c_str(), it->second->c_str(), 1);
            else
                ::unsetenv(it->first.c_str());
        }
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

class FakeMimeDatabase {
public:
    // In precedence order: XDG_DATA_HOME, then the two entries of XDG_DATA_DIRS.
    enum Folder { User, System, LaterSystem };

    FakeMimeDatabase()
        : environment_({{"XDG_DATA_HOME", (root_ / "user").c_str()},
                        {"XDG_DATA_DIRS", (root_ / "system" + ":" + root_ / "later").c_str()}}) {
        for (const char* base : {"user", "system", "later"}) std::filesystem::create_directories(root_.path() / base / "mime");
        QXSharedMimeDatabase::resetShared();
    }
    ~FakeMimeDatabase() { QXSharedMimeDatabase::resetShared(); }
    FakeMimeDatabase(const FakeMimeDatabase&) = delete;
    FakeMimeDatabase& operator=(const FakeMimeDatabase&) = delete;

    std::filesystem::path folder(Folder which) const {
        static const char* const names[] = {"user", "system", "later"};
        return root_.path() / names[which] / "mime";
    }
    // Writes one of the database's files ("globs2", "aliases", "subclasses");
    // the process reads the database again on its next lookup.
    void write(Folder which, const std::string& file, const std::string& text) const {
        writeFile(folder(which) / file, text);
        QXSharedMimeDatabase::resetShared();
    }
    std::vector<std::string> typesFor(std::string_view name) const {
        return QXSharedMimeDatabase::shared()->typesForFileName(name);
    }

private:
    TempDir root_{"qx-mime"};
    ScopedEnvironment environment_;
};

} // namespace qxtest
