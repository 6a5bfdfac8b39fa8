#pragma once

#include <vela/filesystem/export.hpp>

#include <cerrno>
#include <fstream>
#include <string>

namespace vela::filesystem {

namespace detail {

/// The access form of `p` for opening a stream, or an empty string with `errno` set when the
/// path cannot be converted (EINVAL for a lone surrogate or an embedded NUL, ENOENT for an
/// empty path). Never throws for a bad path.
VELA_FS_API std::string stream_access_form(std::u16string const& p);

} // namespace detail

/// A standard file input stream opened from a UTF-16 path.
///
/// A failed open sets the fail bit and leaves `errno` as the kernel set it (ENOENT, EACCES,
/// EISDIR...); a path that cannot be converted fails the same way with EINVAL instead of
/// throwing. Reading a folder: the kernel lets a folder be opened for reading, so the stream
/// checks and fails the open with EISDIR. The file is closed by the destructor.
template <class C>
class basic_ifstream : public std::basic_ifstream<C> {
public:
    basic_ifstream() = default;
    explicit basic_ifstream(std::u16string const& p, std::ios_base::openmode mode = std::ios_base::in) {
        open(p, mode);
    }

    void open(std::u16string const& p, std::ios_base::openmode mode = std::ios_base::in) {
        std::string const access = detail::stream_access_form(p);
        if (access.empty()) {
            int const saved = errno;
            this->setstate(std::ios_base::failbit);
            errno = saved;
            return;
        }
        std::basic_ifstream<C>::open(access, mode | std::ios_base::in);
        if (!this->fail() && is_folder(access)) {
            this->close();
            this->setstate(std::ios_base::failbit);
            errno = EISDIR;
        }
    }

private:
    static bool is_folder(std::string const& access);
};

/// A standard file output stream opened from a UTF-16 path; failures as `basic_ifstream`
/// (opening a folder for writing fails in the kernel with EISDIR).
template <class C>
class basic_ofstream : public std::basic_ofstream<C> {
public:
    basic_ofstream() = default;
    explicit basic_ofstream(std::u16string const& p, std::ios_base::openmode mode = std::ios_base::out) {
        open(p, mode);
    }

    void open(std::u16string const& p, std::ios_base::openmode mode = std::ios_base::out) {
        std::string const access = detail::stream_access_form(p);
        if (access.empty()) {
            int const saved = errno;
            this->setstate(std::ios_base::failbit);
            errno = saved;
            return;
        }
        std::basic_ofstream<C>::open(access, mode | std::ios_base::out);
    }
};

namespace detail {
/// True when the access-form path names a folder (following links).
VELA_FS_API bool is_folder_access_form(std::string const& access);
} // namespace detail

template <class C>
bool basic_ifstream<C>::is_folder(std::string const& access) {
    int const saved = errno;
    bool const folder = detail::is_folder_access_form(access);
    errno = saved;
    return folder;
}

using ifstream = basic_ifstream<char>;
using ofstream = basic_ofstream<char>;

} // namespace vela::filesystem
