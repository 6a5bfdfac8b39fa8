#pragma once

// An empty host folder for one test, removed with everything in it afterwards, plain POSIX
// file helpers that check the back ends' work without going through them, and a job run in a
// child process.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

namespace opc::test {

inline std::u16string u16(std::string const& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

class HostFolder {
public:
    HostFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "opc-test-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~HostFolder() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    HostFolder(HostFolder const&) = delete;
    HostFolder& operator=(HostFolder const&) = delete;

    std::filesystem::path const& path() const { return m_path; }
    /// The folder as UTF-16 text (it is plain ASCII).
    std::u16string path16() const { return u16(m_path.string()); }

private:
    std::filesystem::path m_path;
};

inline void writeFile(std::string const& path, std::string const& content, mode_t mode = 0644) {
    if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content).flush() || ::chmod(path.c_str(), mode))
        throw std::runtime_error("cannot write " + path);
}

inline std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
}

/// The twelve permission bits, or -1 when the path is missing.
inline int modeOf(std::string const& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

/// `size` bytes of a pattern that depends on `seed`, so that two contents never share a run.
inline std::string pattern(std::size_t size, unsigned seed) {
    std::string s(size, '\0');
    for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * (2 * seed + 1) + seed * 31 + (i >> 12)) % 251);
    return s;
}

/// Runs `job` in a child process (so that limits, a changed user or mounts never reach the test
/// runner) and returns what it returned ("" for success), or why the child failed.
inline std::string inChild(std::function<std::string()> const& job) {
    int channel[2];
    if (::pipe(channel) != 0) return "pipe failed";
    std::fflush(nullptr);
    pid_t const child = ::fork();
    if (child == 0) {
        ::close(channel[0]);
        std::string report;
        try {
            report = job();
        } catch (std::exception const& e) {
            report = std::string("set-up failed: ") + e.what();
        }
        std::_Exit(::write(channel[1], report.data(), report.size()) < 0 ? 2 : 0);
    }
    ::close(channel[1]);
    std::string report;
    char buffer[512];
    for (ssize_t got; (got = ::read(channel[0], buffer, sizeof buffer)) > 0;)
        report.append(buffer, static_cast<std::size_t>(got));
    ::close(channel[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? report : report + " (child status " + std::to_string(status) + ")";
}

} // namespace opc::test
