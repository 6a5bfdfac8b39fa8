// Directory iteration: one readdir per entry, an lstat only when the type is not given.
#include "sys.hpp"

#include <vela/filesystem/directory_iterator.hpp>

#include <dirent.h>
#include <fcntl.h>

#include <unicode/ustring.h>

namespace vela::filesystem {

struct directory_iterator::state {
    DIR* dir = nullptr;
    std::u16string folder;      // as given, with a "/" appended when it had none
    std::string folder_access;  // the same in access form, for error reports
    directory_entry entry;
    bool open = false;

    ~state() {
        if (dir != nullptr)
            ::closedir(dir); // a folder opened for reading: closing it cannot lose anything
    }
};

namespace {

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

file_status stat_entry(DIR* dir, std::string const& name, std::string const& folder_access) {
    struct stat st;
    if (::fstatat(::dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return file_status(file_status::file_not_found);
        throw_from_errno(errno, detail::from_filesystem(folder_access + name));
    }
    return sys::status_of(st);
}

} // namespace

file_status const& directory_entry::status() const { return m_status; }

file_status const& directory_entry::symlink_status() const {
    if (!m_status_complete) {
        auto const* s = static_cast<directory_iterator::state const*>(m_owner);
        m_status = stat_entry(s->dir, m_name, s->folder_access);
        m_status_complete = true;
    }
    return m_status;
}

std::u16string directory_entry::full_pathname() const {
    auto const* s = static_cast<directory_iterator::state const*>(m_owner);
    // Convert the name straight onto the end of the folder: one allocation per entry.
    std::u16string out;
    out.resize(s->folder.size() + m_name.size());
    std::copy(s->folder.begin(), s->folder.end(), out.begin());
    // ASCII names, the usual case, widen byte by byte; the Unicode library's call costs more
    // than the conversion of a short name.
    unsigned char seen = 0;
    char16_t* const name = out.data() + s->folder.size();
    for (std::size_t i = 0; i < m_name.size(); ++i) {
        auto const byte = static_cast<unsigned char>(m_name[i]);
        seen |= byte;
        name[i] = byte;
    }
    if (seen < 0x80)
        return out;
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(out.data() + s->folder.size(), static_cast<int32_t>(m_name.size()), &length, m_name.data(),
                  static_cast<int32_t>(m_name.size()), &status);
    if (U_FAILURE(status))
        throw FileNameConversionFailure("vela:filesystem:FileNameConversionFailure",
                                        "File name is not valid UTF-8: " + m_name, s->folder);
    out.resize(s->folder.size() + static_cast<std::size_t>(length));
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
    if (s.folder_access.empty())
        throw_from_errno(ENOENT, folder.native());
    int const fd = sys::retry([&] { return ::open(s.folder_access.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0)
        sys::fail(folder);
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
        char const* name = d->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        s.entry.m_name.assign(name);
        std::uint32_t const type = type_of_dirent(d->d_type);
        if (type != 0) {
            s.entry.m_status = file_status(type);
            s.entry.m_status_complete = false;
        } else {
            s.entry.m_status = stat_entry(s.dir, s.entry.m_name, s.folder_access);
            s.entry.m_status_complete = true;
        }
        return *this;
    }
}

} // namespace vela::filesystem
