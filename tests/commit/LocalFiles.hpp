#pragma once

// Plain POSIX helpers for commit tests over real files, so they check the local back end's
// work without going through it.

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace opc::test {

inline std::u16string u16(std::string const& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

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
    for (std::size_t i = 0; i < size; ++i)
        s[i] = static_cast<char>((i * (2 * seed + 1) + seed * 31 + (i >> 12)) % 251);
    return s;
}

} // namespace opc::test
