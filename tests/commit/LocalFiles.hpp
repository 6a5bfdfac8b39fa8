#pragma once

// Plain POSIX helpers for commit tests over real files: they check the local back end's work
// without going through it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

namespace opc::test {

inline std::u16string u16(std::string const& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

inline void writeFile(std::string const& path, std::string const& content, mode_t mode = 0644) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
        if (!out.flush())
            throw std::runtime_error("cannot write " + path);
    }
    if (::chmod(path.c_str(), mode) != 0)
        throw std::runtime_error("cannot chmod " + path);
}

inline std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return "<missing>";
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// The nine permission bits and the three above them; -1 when the path is missing.
inline int modeOf(std::string const& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)
        return -1;
    return static_cast<int>(st.st_mode & 07777);
}

inline bool isLink(std::string const& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

inline void makeFolder(std::string const& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot create " + path);
}

/// `size` bytes of a pattern that depends on `seed`, so that two contents never share a run.
inline std::string pattern(std::size_t size, unsigned seed) {
    std::string s(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        s[i] = static_cast<char>((i * (2 * seed + 1) + seed * 31 + (i >> 12)) % 251);
    return s;
}

} // namespace opc::test
