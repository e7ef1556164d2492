// TestSupport.h - what every suite needs: temporary folders and files, pipes,
// byte buffers, generated payloads, feeding input in pieces and checking errors.
//
// One copy of each helper lives here; suites include this header instead of
// writing their own. Compressed payloads of every format are in
// DecompressorPayloads.h, which builds on this one.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace qxtest {

using Bytes = std::vector<std::uint8_t>;

// ---- bytes ---------------------------------------------------------------

inline qx::Ref<qx::Data> toData(const Bytes& b) { return qx::Data::withBytes(b.data(), b.size()); }
inline qx::Ref<qx::Data> toData(const std::string& s) { return qx::Data::withBytes(s.data(), s.size()); }
inline qx::Ref<qx::Data> toData(std::initializer_list<std::uint8_t> b) { return qx::Data::withBytes(b.begin(), b.size()); }
inline Bytes toBytes(const qx::Ref<qx::Data>& d) { return d ? Bytes(d->bytes(), d->bytes() + d->length()) : Bytes{}; }
inline Bytes toBytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
inline std::string toString(const Bytes& b) { return std::string(b.begin(), b.end()); }
inline std::string toString(const qx::Ref<qx::Data>& d) {
    return d ? std::string(reinterpret_cast<const char*>(d->bytes()), d->length()) : std::string();
}

// Text-like bytes that compress well but not trivially.
inline Bytes makePayload(std::size_t size, unsigned seed = 1) {
    static const char* words[] = {"alpha ", "bravo ", "charlie ", "delta\n", "echo ", "foxtrot ", "golf ", "hotel "};
    std::mt19937 rng(seed);
    Bytes out;
    out.reserve(size);
    while (out.size() < size) {
        const char* w = words[rng() % 8];
        for (const char* p = w; *p && out.size() < size; ++p) out.push_back(static_cast<std::uint8_t>(*p));
        if (rng() % 5 == 0 && out.size() < size) out.push_back(static_cast<std::uint8_t>(rng()));
    }
    return out;
}

// Incompressible bytes.
inline Bytes randomBytes(std::size_t size, unsigned seed = 1) {
    std::mt19937 rng(seed);
    Bytes out(size);
    for (auto& b : out) b = static_cast<std::uint8_t>(rng());
    return out;
}

// Calls feed with consecutive pieces of input of at most step bytes (the last
// one flagged), the way a stream hands a decoder its input.
inline void forEachPiece(const Bytes& input, std::size_t step,
                         const std::function<void(const std::uint8_t* bytes, std::size_t length, bool isLast)>& feed) {
    step = std::max<std::size_t>(step, 1);
    if (input.empty()) {
        feed(input.data(), 0, true);
        return;
    }
    for (std::size_t at = 0; at < input.size(); at += step) {
        const std::size_t n = std::min(step, input.size() - at);
        feed(input.data() + at, n, at + n == input.size());
    }
}

// True when every weak reference lets go before a generous deadline: one that
// stays is held by a thread that never woke. Nothing is timed; the deadline
// only keeps a broken build from hanging the suite.
template <class T>
bool allExpired(const std::vector<std::weak_ptr<T>>& refs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (const auto& weak : refs)
        while (!weak.expired()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
    return true;
}

// ---- files ---------------------------------------------------------------

inline void writeFile(const std::filesystem::path& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}
inline void writeFile(const std::filesystem::path& path, const Bytes& contents) { writeFile(path, toString(contents)); }

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
inline Bytes readBytes(const std::filesystem::path& path) { return toBytes(readFile(path)); }

inline mode_t fileMode(const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// A fresh folder under the system's temporary folder, removed with the object.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "qx-test") {
        std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
        if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }
    // Writes a file in the folder and returns its path.
    std::string file(const std::string& name, const std::string& contents) const {
        writeFile(path_ / name, contents);
        return (path_ / name).string();
    }
    std::string file(const std::string& name, const Bytes& contents) const { return file(name, toString(contents)); }
    // The names in the folder, sorted: for checking that nothing was left behind.
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) out.push_back(entry.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    std::filesystem::path path_;
};

// A pipe whose ends close with the object.
class Pipe {
public:
    Pipe() { EXPECT_EQ(::pipe2(fds_, O_CLOEXEC), 0); }
    ~Pipe() {
        closeWriter();
        closeReader();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int reader() const { return fds_[0]; }
    int writer() const { return fds_[1]; }
    void write(const std::string& s) const {
        EXPECT_EQ(::write(fds_[1], s.data(), s.size()), static_cast<ssize_t>(s.size()));
    }
    void closeWriter() {
        if (fds_[1] >= 0) ::close(fds_[1]);
        fds_[1] = -1;
    }
    void closeReader() {
        if (fds_[0] >= 0) ::close(fds_[0]);
        fds_[0] = -1;
    }

private:
    int fds_[2] = {-1, -1};
};

// ---- errors --------------------------------------------------------------

// Checks an error's domain and code, with its description in the message.
inline ::testing::AssertionResult isError(const qx::Ref<qx::Error>& error, const std::string& domain, std::int64_t code) {
    if (!error) return ::testing::AssertionFailure() << "no error, expected " << domain << " " << code;
    if (error->domain() != domain || error->code() != code)
        return ::testing::AssertionFailure() << "error " << error->domain() << " " << error->code() << " ("
                                             << error->localizedDescription() << "), expected " << domain << " "
                                             << code;
    return ::testing::AssertionSuccess();
}

} // namespace qxtest

#define EXPECT_QX_ERROR(error, domain, code) EXPECT_TRUE(::qxtest::isError((error), (domain), (code)))

// Skips the test with reason when reason is not empty, except when CI=true,
// where what the machine lacks is a failure.
#define QX_SKIP_OR_FAIL_UNLESS_EMPTY(reason)                                                      \
    do {                                                                                           \
        const std::string why = (reason);                                                          \
        if (!why.empty()) {                                                                        \
            const char* ci = std::getenv("CI");                                                    \
            if (ci && std::string(ci) == "true") FAIL() << why;                                    \
            GTEST_SKIP() << why;                                                                   \
        }                                                                                          \
    } while (0)
