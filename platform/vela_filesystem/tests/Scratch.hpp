#pragma once
// Helpers shared by the tests of the host file-system layer.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

namespace vela_test {

/// A fresh folder under /tmp, open to everyone (so a child running as nobody can reach it),
/// removed with its contents at the end.
class Scratch {
public:
    Scratch() {
        std::string pattern = "/tmp/vela-fs-test-XXXXXX";
        char* made = ::mkdtemp(pattern.data());
        if (made == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_dir = made;
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

    /// UTF-8 to UTF-16, written out by hand so the tests don't lean on the converter under test.
    static std::u16string utf16(std::string const& s) {
        std::u16string out;
        for (std::size_t i = 0; i < s.size();) {
            auto const b = static_cast<unsigned char>(s[i]);
            char32_t c;
            int n;
            if (b < 0x80) { c = b; n = 1; }
            else if (b < 0xE0) { c = b & 0x1F; n = 2; }
            else if (b < 0xF0) { c = b & 0x0F; n = 3; }
            else { c = b & 0x07; n = 4; }
            for (int k = 1; k < n; ++k)
                c = (c << 6) | (static_cast<unsigned char>(s[i + std::size_t(k)]) & 0x3F);
            i += std::size_t(n);
            if (c >= 0x10000) {
                c -= 0x10000;
                out.push_back(char16_t(0xD800 + (c >> 10)));
                out.push_back(char16_t(0xDC00 + (c & 0x3FF)));
            } else
                out.push_back(char16_t(c));
        }
        return out;
    }

    /// UTF-16 (valid) to UTF-8, by hand.
    static std::string utf8(std::u16string const& s) {
        std::string out;
        for (std::size_t i = 0; i < s.size(); ++i) {
            char32_t c = s[i];
            if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size())
                c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
            if (c < 0x80) out += char(c);
            else if (c < 0x800) { out += char(0xC0 | (c >> 6)); out += char(0x80 | (c & 0x3F)); }
            else if (c < 0x10000) {
                out += char(0xE0 | (c >> 12)); out += char(0x80 | ((c >> 6) & 0x3F)); out += char(0x80 | (c & 0x3F));
            } else {
                out += char(0xF0 | (c >> 18)); out += char(0x80 | ((c >> 12) & 0x3F));
                out += char(0x80 | ((c >> 6) & 0x3F)); out += char(0x80 | (c & 0x3F));
            }
        }
        return out;
    }

private:
    std::string m_dir;
};

/// Runs `body` in a child process that dropped to nobody (uid/gid 65534) and returns whether
/// it reported success. Root ignores permission bits, so permission failures are only seen
/// this way.
inline bool as_nobody(std::function<bool()> const& body) {
    pid_t const child = ::fork();
    if (child == 0) {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            ::_exit(2);
        bool ok = false;
        try {
            ok = body();
        } catch (...) {
            ::_exit(3);
        }
        ::_exit(ok ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace vela_test
