#pragma once
// Helpers shared by the tests of the host file-system layer.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace vela_test {

// UTF-8 <-> UTF-16 through the standard library, so the tests don't lean on the converter under test.
inline std::u16string utf16(std::string const& s) { return std::filesystem::path(s).u16string(); }
inline std::string utf8(std::u16string const& s) { return std::filesystem::path(s).string(); }

inline std::string read_all(std::string const& p) {
    std::stringstream ss;
    ss << std::ifstream(p, std::ios::binary).rdbuf();
    return ss.str();
}

inline mode_t mode_of(std::string const& p) {
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0 ? st.st_mode : 0;
}

/// Fills the folder `root` with a random tree: folders, files of varied sizes and modes, names with
/// spaces and non-ASCII letters, links that dangle, name earlier entries or one of `outside`.
/// Returns how many links lead to `outside`.
inline int make_tree(std::string const& root, unsigned seed, int entries, std::vector<std::string> const& outside = {}) {
    std::mt19937 rng(seed);
    std::vector<std::string> folders{root}, all;
    char const* const names[] = {"f", "a b", "d\xC3\xA9j\xC3\xA0", "\xE6\x96\x87\xE4\xBB\xB6", ".hidden", "x.y.z"};
    int out = 0;
    for (int i = 0; i < entries; ++i) {
        std::string const p = folders[rng() % folders.size()] + "/" + names[rng() % 6] + std::to_string(i);
        std::uint32_t const kind = rng() % 6;
        if (kind == 0) {
            ::mkdir(p.c_str(), 0755);
            folders.push_back(p);
        } else if (kind < 3) {
            std::ofstream(p) << std::string(rng() % 5000, 'q');
            ::chmod(p.c_str(), 0600 | (rng() % 0100));
        } else {
            bool const away = kind == 3 && !outside.empty();
            out += away;
            std::string const target = away ? outside[rng() % outside.size()]
                                            : kind == 4 && !all.empty() ? all[rng() % all.size()] : "missing/target";
            EXPECT_EQ(::symlink(target.c_str(), p.c_str()), 0);
        }
        all.push_back(p);
    }
    return out;
}

/// The path carried by the E that `f` throws, or "(nothing)" when it throws none.
template <class E, class F>
std::u16string thrown_path(F&& f) {
    try {
        f();
    } catch (E const& e) {
        return e.path();
    }
    return u"(nothing)";
}

/// A fresh folder under /tmp, open to everyone (for the child running as nobody), removed at the end.
class Scratch {
public:
    Scratch() : m_dir("/tmp/vela-fs-test-XXXXXX") {
        if (::mkdtemp(m_dir.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        ::chmod(m_dir.c_str(), 0777);
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }
    Scratch(Scratch const&) = delete;
    Scratch& operator=(Scratch const&) = delete;

    std::string const& dir() const { return m_dir; }
    std::string at(std::string const& name) const { return m_dir + "/" + name; }
    std::u16string u(std::string const& name) const { return utf16(at(name)); }

private:
    std::string m_dir;
};

/// Runs `body` in a child dropped to nobody (root ignores permission bits) and returns its result:
/// 0 for success, else the number of the failed check; 100 if it could not drop, 101 if it threw.
inline int as_nobody(std::function<int()> const& body) {
    pid_t const child = ::fork();
    if (child == 0) {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            ::_exit(100);
        int code = 101;
        try {
            code = body();
        } catch (...) {
        }
        ::_exit(code);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace vela_test
