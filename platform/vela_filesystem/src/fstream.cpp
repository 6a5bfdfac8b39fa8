// The file streams: path conversion that never throws, and the write-through output buffer.
#include "sys.hpp"

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/fstream.hpp>
#include <vela/filesystem/path.hpp>

#include <fcntl.h>

namespace vela::filesystem::detail {

std::string stream_access_form(std::u16string const& p) {
    if (p.empty()) {
        errno = ENOENT;
        return {};
    }
    try {
        return make_native_access_form_with_cleanup_i18n(p);
    } catch (FsysExceptionBase const&) {
        errno = EINVAL;
        return {};
    }
}

bool is_folder_access_form(std::string const& access) {
    struct stat st;
    return ::stat(access.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

namespace {

using std::ios_base;

// The open(2) flags that std::filebuf uses for each open mode it accepts; -1 for the rest.
int open_flags(ios_base::openmode mode) {
    using m = ios_base;
    struct row {
        ios_base::openmode mode;
        int flags;
    };
    static row const rows[] = {
        {m::out, O_WRONLY | O_CREAT | O_TRUNC},
        {m::out | m::trunc, O_WRONLY | O_CREAT | O_TRUNC},
        {m::app, O_WRONLY | O_CREAT | O_APPEND},
        {m::out | m::app, O_WRONLY | O_CREAT | O_APPEND},
        {m::in | m::out, O_RDWR},
        {m::in | m::out | m::trunc, O_RDWR | O_CREAT | O_TRUNC},
        {m::in | m::app, O_RDWR | O_CREAT | O_APPEND},
        {m::in | m::out | m::app, O_RDWR | O_CREAT | O_APPEND},
    };
    ios_base::openmode const wanted = mode & ~(m::binary | m::ate);
    for (row const& r : rows)
        if (r.mode == wanted)
            return r.flags;
    return -1;
}

} // namespace

write_through_buf::~write_through_buf() {
    // Nothing is buffered here: every byte reached the kernel at its write. What close(2) could
    // still say on a local file system the data sync before a rename reports; a caller that
    // wants the result calls close().
    if (m_fd >= 0)
        ::close(m_fd);
}

bool write_through_buf::open(std::string const& access, ios_base::openmode mode, std::u16string name) {
    int const flags = open_flags(mode);
    if (is_open() || flags < 0) {
        errno = EINVAL;
        return false;
    }
    sys::fd file(sys::retry([&] { return ::open(access.c_str(), flags | O_CLOEXEC, 0666); }));
    if (!file)
        return false;
    if ((mode & ios_base::ate) && ::lseek(file.get(), 0, SEEK_END) < 0)
        return false;
    m_fd = file.release();
    m_name = std::move(name);
    return true;
}

void write_through_buf::close() {
    if (m_fd < 0)
        return;
    int const result = ::close(m_fd);
    m_fd = -1; // released whatever close said: retrying it could close another file
    // EINTR: Linux has released the descriptor, and every byte had already been taken by write.
    if (result != 0 && errno != EINTR)
        fail(errno);
}

void write_through_buf::fail(int error) {
    try {
        throw_from_errno(error, m_name);
    } catch (...) {
        if (m_on_failure)
            m_on_failure();
        throw;
    }
}

std::streamsize write_through_buf::xsputn(char const* data, std::streamsize size) {
    if (m_fd < 0)
        return 0;
    for (std::streamsize done = 0; done < size;) {
        ssize_t const put = sys::retry([&] { return ::write(m_fd, data + done, std::size_t(size - done)); });
        if (put <= 0)
            fail(put < 0 ? errno : EIO); // a file that takes nothing will not take it later either
        done += put;
    }
    return size;
}

write_through_buf::int_type write_through_buf::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return traits_type::not_eof(c);
    char const ch = traits_type::to_char_type(c);
    return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
}

write_through_buf::pos_type write_through_buf::seekoff(off_type offset, ios_base::seekdir way,
                                                       ios_base::openmode which) {
    if (m_fd < 0 || !(which & ios_base::out))
        return pos_type(off_type(-1));
    int const whence = way == ios_base::beg ? SEEK_SET : way == ios_base::cur ? SEEK_CUR
                                                                              : SEEK_END;
    return pos_type(off_type(::lseek(m_fd, offset, whence)));
}

write_through_buf::pos_type write_through_buf::seekpos(pos_type position, ios_base::openmode which) {
    return seekoff(off_type(position), ios_base::beg, which);
}

} // namespace vela::filesystem::detail
