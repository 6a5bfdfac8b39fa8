#pragma once

#include <vela/filesystem/export.hpp>

#include <cerrno>
#include <fstream>
#include <functional>
#include <ostream>
#include <string>
#include <type_traits>

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

namespace detail {

/// The stream buffer of `basic_ofstream`: a file descriptor and no buffer of its own. Every
/// write goes to the kernel at once, whole (a short write is continued, EINTR retried), so
/// nothing waits in user space for a flush or a destructor that cannot report. A refused
/// write throws the exception of `throw_from_errno` (ENOSPC, EFBIG, EIO, EDQUOT... as
/// `SystemError`) carrying the path; when a failure handler is set it is called first,
/// inside the handler of that exception, and may throw something else instead.
class VELA_FS_API write_through_buf : public std::streambuf {
public:
    write_through_buf() = default;
    write_through_buf(write_through_buf const&) = delete;
    write_through_buf& operator=(write_through_buf const&) = delete;
    ~write_through_buf() override;

    /// Opens the file with the flags that `std::filebuf` uses for `mode` (the binary bit is
    /// meaningless here; `ate` seeks to the end). False, with `errno` set, on failure or for
    /// a combination the standard streams refuse (EINVAL). `name` is used in reports.
    bool open(std::string const& access, std::ios_base::openmode mode, std::u16string name);
    bool is_open() const noexcept { return m_fd >= 0; }
    /// Closes the file; a failed close(2) is reported like a failed write.
    void close();
    void set_failure_handler(std::function<void()> handler) { m_on_failure = std::move(handler); }

protected:
    std::streamsize xsputn(char const* data, std::streamsize size) override;
    int_type overflow(int_type c) override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir way, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

private:
    [[noreturn]] void fail(int error);

    int m_fd = -1;
    std::u16string m_name;
    std::function<void()> m_on_failure;
};

} // namespace detail

/// A file output stream opened from a UTF-16 path that never loses a write silently.
///
/// Opening: a failed open sets the fail bit and leaves `errno` as the kernel set it (ENOENT,
/// EACCES, EISDIR for a folder...); a path that cannot be converted fails with EINVAL; the
/// open modes mean what they mean for `std::ofstream`.
///
/// Writing: once open, the stream writes through (see `detail::write_through_buf`) and has
/// `badbit` in `exceptions()`, so a write that the file system refuses throws from that very
/// write: the layer's own exception (its `throw_from_errno` mapping), or whatever the failure
/// handler throws in its place. The stream is then bad and takes no further writes. Bytes
/// that were taken are in the kernel, not yet on disk: durability comes from `rename`, which
/// syncs the file's data before it puts the file in place. Only `char` is supported.
template <class C>
class basic_ofstream : public std::basic_ostream<C> {
    static_assert(std::is_same_v<C, char>, "only narrow file streams are supported");

public:
    basic_ofstream() : std::basic_ostream<C>(nullptr) { this->init(&m_buffer); }
    explicit basic_ofstream(std::u16string const& p, std::ios_base::openmode mode = std::ios_base::out)
        : basic_ofstream() {
        open(p, mode);
    }

    void open(std::u16string const& p, std::ios_base::openmode mode = std::ios_base::out) {
        std::string const access = detail::stream_access_form(p);
        if (access.empty() || !m_buffer.open(access, mode | std::ios_base::out, p)) {
            int const saved = errno;
            this->setstate(std::ios_base::failbit);
            errno = saved;
            return;
        }
        this->clear();
        this->exceptions(std::ios_base::badbit);
    }

    bool is_open() const noexcept { return m_buffer.is_open(); }

    /// Closes the file. A failed close(2) throws as a failed write does. The destructor
    /// closes too but cannot report: every byte already went to the kernel at its write, and
    /// a close on a local file system reports nothing that `rename`'s data sync does not.
    void close() { m_buffer.close(); }

    /// Called inside the handler of a failed write (or close) with the layer's exception in
    /// flight; it may throw another exception in its place. Empty: the layer's exception
    /// propagates unchanged.
    void set_failure_handler(std::function<void()> handler) { m_buffer.set_failure_handler(std::move(handler)); }

    detail::write_through_buf* rdbuf() const noexcept { return const_cast<detail::write_through_buf*>(&m_buffer); }

private:
    detail::write_through_buf m_buffer;
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
