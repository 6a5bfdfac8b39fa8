// Directory iteration: one readdir per entry, an lstat only when the type is not given.
#include "sys.hpp"

#include <vela/filesystem/directory_iterator.hpp>

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include <unicode/ustring.h>

namespace vela::filesystem {

struct directory_iterator::state {
    DIR* dir = nullptr;
    std::u16string folder;     // as given, with a "/" appended when it had none
    std::string folder_access; // the same in access form, for error reports
    directory_entry entry;
    bool open = false;

    ~state() {
        if (dir != nullptr)
            ::closedir(dir); // a folder opened for reading: closing it cannot lose anything
    }
};

namespace {

// A descriptor for reading the folder `folder`, whose access form is `access`; throws the
// host failure when it cannot be opened (an empty path is a missing folder).
int open_folder(path const& folder, std::string const& access) {
    if (access.empty())
        throw_from_errno(ENOENT, folder.native());
    int const fd = sys::retry([&] { return ::open(access.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0)
        sys::fail(folder);
    return fd;
}

std::uint32_t type_of_dirent(unsigned char d_type) noexcept {
    switch (d_type) {
    case DT_REG: return file_status::regular_file;
    case DT_DIR: return file_status::directory_file;
    case DT_LNK: return file_status::symlink_file;
    case DT_FIFO: return file_status::fifo_file;
    case DT_SOCK: return file_status::socket_file;
    case DT_BLK: return file_status::block_file;
    case DT_CHR: return file_status::character_file;
    default: return 0; // DT_UNKNOWN: ask lstat
    }
}

/// The status of `name` in the open folder `folder_fd` by lstat; file_not_found when it went
/// meanwhile.
file_status stat_entry(int folder_fd, char const* name, std::string const& folder_access) {
    struct stat st;
    if (::fstatat(folder_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return file_status(file_status::file_not_found);
        throw_from_errno(errno, detail::from_filesystem(folder_access + name));
    }
    return sys::status_of(st);
}

/// Widens name[0, length) byte by byte into wide; true when every byte was ASCII (the usual
/// case), for which that is the whole conversion and cheaper than the Unicode library's call.
bool widen_ascii(char16_t* wide, char const* name, std::size_t length) noexcept {
    unsigned char seen = 0;
    for (std::size_t i = 0; i < length; ++i) {
        auto const byte = static_cast<unsigned char>(name[i]);
        seen |= byte;
        wide[i] = byte;
    }
    return seen < 0x80;
}

/// Appends the UTF-16 form of the UTF-8 file name name[0, length) to `out`, which holds its
/// folder with a final "/": the place the error for a name that is not valid UTF-8 names.
void append_name(std::u16string& out, char const* name, std::size_t length) {
    std::size_t const start = out.size();
    out.resize(start + length);
    char16_t* const wide = out.data() + start;
    if (widen_ascii(wide, name, length))
        return;
    UErrorCode status = U_ZERO_ERROR;
    int32_t converted = 0;
    u_strFromUTF8(wide, static_cast<int32_t>(length), &converted, name, static_cast<int32_t>(length), &status);
    if (U_FAILURE(status))
        throw FileNameConversionFailure("vela:filesystem:FileNameConversionFailure",
                                        "File name is not valid UTF-8: " + std::string(name, length), out.substr(0, start));
    out.resize(start + static_cast<std::size_t>(converted));
}

} // namespace

file_status const& directory_entry::status() const { return m_status; }

file_status const& directory_entry::symlink_status() const {
    if (!m_status_complete) {
        auto const* s = static_cast<directory_iterator::state const*>(m_owner);
        m_status = stat_entry(::dirfd(s->dir), m_name.c_str(), s->folder_access);
        m_status_complete = true;
    }
    return m_status;
}

std::u16string directory_entry::full_pathname() const {
    auto const* s = static_cast<directory_iterator::state const*>(m_owner);
    // The name converted straight onto the end of the folder: one allocation per entry.
    std::u16string out;
    out.reserve(s->folder.size() + m_name.size());
    out = s->folder;
    append_name(out, m_name.data(), m_name.size());
    return out;
}

std::u16string directory_entry::filename() const { return detail::from_filesystem(m_name); }

directory_iterator::directory_iterator() noexcept = default;
directory_iterator::directory_iterator(directory_iterator&&) noexcept = default;
directory_iterator& directory_iterator::operator=(directory_iterator&&) noexcept = default;
directory_iterator::~directory_iterator() = default;

directory_iterator::directory_iterator(path const& folder) : m_state(std::make_unique<state>()) {
    state& s = *m_state;
    s.folder_access = folder.access_form();
    int const fd = open_folder(folder, s.folder_access);
    s.dir = ::fdopendir(fd);
    if (s.dir == nullptr) {
        int const error = errno;
        ::close(fd);
        throw_from_errno(error, folder.native());
    }
    s.folder = folder.native();
    if (s.folder.back() != u'/')
        s.folder.push_back(u'/');
    if (s.folder_access.back() != '/')
        s.folder_access.push_back('/');
    s.entry.m_owner = &s;
    s.open = true;
    ++*this;
}

bool directory_iterator::is_open() const noexcept { return m_state && m_state->open; }

directory_entry const& directory_iterator::operator*() const {
    if (!is_open())
        throw InvalidOperation("vela:filesystem:InvalidOperation", "The directory iterator has ended");
    return m_state->entry;
}

directory_iterator& directory_iterator::operator++() {
    if (!is_open())
        throw InvalidOperation("vela:filesystem:InvalidOperation", "The directory iterator has ended");
    state& s = *m_state;
    for (;;) {
        errno = 0;
        dirent const* d = ::readdir(s.dir);
        if (d == nullptr) {
            s.open = false;
            ::closedir(s.dir); // as in ~state
            s.dir = nullptr;
            if (errno != 0)
                throw_from_errno(errno, detail::from_filesystem(s.folder_access));
            return *this;
        }
        if (sys::is_dot_entry(d->d_name))
            continue;
        s.entry.m_name.assign(d->d_name);
        std::uint32_t const type = type_of_dirent(d->d_type);
        if (type != 0) {
            s.entry.m_status = file_status(type);
            s.entry.m_status_complete = false;
        } else {
            s.entry.m_status = stat_entry(::dirfd(s.dir), d->d_name, s.folder_access);
            s.entry.m_status_complete = true;
        }
        return *this;
    }
}

namespace {

/// The walk behind list_files: one folder at a time, read with getdents64 into a buffer of its
/// depth (a parent's unread entries stay in its own while a sub-folder is read).
class file_lister {
public:
    file_lister(bool recursive, std::vector<std::u16string>& files) : m_recursive(recursive), m_files(files) {}

    /// Lists the open folder `fd`, whose native form with a final "/" is in m_folder and whose
    /// access form with a final "/" is in m_access; closes `fd`.
    void list(sys::fd fd, std::size_t depth) {
        if (m_buffers.size() <= depth)
            m_buffers.push_back(std::make_unique<char[]>(buffer_size));
        char* const buffer = m_buffers[depth].get();
        for (;;) {
            ssize_t const got = sys::retry([&] { return ::getdents64(fd.get(), buffer, buffer_size); });
            if (got < 0)
                throw_from_errno(errno, detail::from_filesystem(m_access));
            if (got == 0)
                return;
            for (ssize_t at = 0; at < got;) {
                auto const* d = reinterpret_cast<struct dirent64 const*>(buffer + at);
                at += d->d_reclen;
                entry(fd.get(), d->d_name, d->d_type, depth);
            }
        }
    }

    std::u16string m_folder;
    std::string m_access;

private:
    static constexpr std::size_t buffer_size = 32768;

    /// m_folder followed by the name. ASCII names are widened in m_scratch, which keeps the
    /// folder in front between entries, so each costs one allocation, that of the result.
    std::u16string full_name(char const* name, std::size_t length) {
        std::size_t const folder_length = m_folder.size();
        if (m_scratch_folder != folder_length || m_scratch.size() < folder_length + length) {
            m_scratch.assign(m_folder);
            m_scratch.resize(folder_length + std::max<std::size_t>(length, 256));
            m_scratch_folder = folder_length;
        }
        if (widen_ascii(m_scratch.data() + folder_length, name, length))
            return std::u16string(m_scratch.data(), folder_length + length);
        std::u16string out = m_folder;
        append_name(out, name, length);
        return out;
    }

    void entry(int folder_fd, char const* name, unsigned char d_type, std::size_t depth) {
        if (sys::is_dot_entry(name))
            return;
        std::size_t const length = std::strlen(name);
        std::uint32_t type = type_of_dirent(d_type);
        if (type == 0)
            type = stat_entry(folder_fd, name, m_access).type(); // gone meanwhile: not listed
        if (type == file_status::regular_file || type == file_status::symlink_file) {
            m_files.push_back(full_name(name, length));
        } else if (type == file_status::directory_file && m_recursive) {
            std::size_t const folder_length = m_folder.size(), access_length = m_access.size();
            append_name(m_folder, name, length);
            int const sub = sys::retry([&] { return ::openat(folder_fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
            if (sub < 0)
                throw_from_errno(errno, m_folder);
            m_folder.push_back(u'/');
            m_access.append(name, length).push_back('/');
            m_scratch_folder = npos; // another folder in front
            list(sys::fd(sub), depth + 1);
            m_folder.resize(folder_length);
            m_access.resize(access_length);
            m_scratch_folder = npos;
        }
    }

    bool const m_recursive;
    std::vector<std::u16string>& m_files;
    std::vector<std::unique_ptr<char[]>> m_buffers;
    static constexpr std::size_t npos = std::size_t(-1);
    std::u16string m_scratch;
    std::size_t m_scratch_folder = npos; // length of the folder m_scratch begins with
};

} // namespace

void list_files(path const& folder, bool recursive, std::vector<std::u16string>& files) {
    file_lister lister(recursive, files);
    lister.m_access = folder.access_form();
    int const fd = open_folder(folder, lister.m_access);
    lister.m_folder = folder.native();
    if (lister.m_folder.back() != u'/')
        lister.m_folder.push_back(u'/');
    if (lister.m_access.back() != '/')
        lister.m_access.push_back('/');
    lister.list(sys::fd(fd), 0);
}

} // namespace vela::filesystem
