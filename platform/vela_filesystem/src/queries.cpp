// Queries: status, existence, link text, the temporary and current folders.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <fcntl.h>

#include <cstdlib>
#include <vector>

namespace vela::filesystem {

namespace sys {

std::uint32_t type_of_mode(mode_t mode) noexcept {
    switch (mode & S_IFMT) {
    case S_IFREG: return file_status::regular_file;
    case S_IFDIR: return file_status::directory_file;
    case S_IFLNK: return file_status::symlink_file;
    case S_IFIFO: return file_status::fifo_file;
    case S_IFSOCK: return file_status::socket_file;
    case S_IFBLK: return file_status::block_file;
    case S_IFCHR: return file_status::character_file;
    default: return file_status::type_unknown;
    }
}

boost::posix_time::ptime modification_time(struct stat const& st) {
    static boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
    return epoch + boost::posix_time::seconds(st.st_mtim.tv_sec) +
           boost::posix_time::microseconds(st.st_mtim.tv_nsec / 1000);
}

file_status status_of(struct stat const& st) {
    std::uint32_t perms = static_cast<std::uint32_t>(st.st_mode) & file_status::perms_all;
    if (S_ISLNK(st.st_mode))
        perms |= file_status::link_perms;
    return file_status(type_of_mode(st.st_mode), perms, modification_time(st), static_cast<std::uint64_t>(st.st_size));
}

void sync_folder(std::string const& folder_access) {
    fd folder(retry([&] { return ::open(folder_access.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!folder || ::fsync(folder.get()) != 0)
        throw_from_errno(errno, detail::from_filesystem(folder_access));
}

std::string folder_of(std::string const& access) {
    auto end = access.find_last_not_of('/');
    if (end == std::string::npos)
        return "/";
    auto const slash = access.rfind('/', end);
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : access.substr(0, slash);
}

} // namespace sys

file_status symlink_status(path const& p) {
    std::string const access = p.access_form();
    struct stat st;
    if (::lstat(access.c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return file_status(file_status::file_not_found);
        sys::fail(p);
    }
    return sys::status_of(st);
}

bool exists(path const& p) { return !(symlink_status(p).type() & file_status::file_not_found); }

path read_symlink(path const& p) {
    std::string const access = p.access_form();
    std::vector<char> buffer(256);
    for (;;) {
        ssize_t const length = ::readlink(access.c_str(), buffer.data(), buffer.size());
        if (length < 0)
            sys::fail(p);
        if (static_cast<std::size_t>(length) < buffer.size())
            return path(detail::from_filesystem(buffer.data(), static_cast<std::size_t>(length)));
        buffer.resize(buffer.size() * 4); // the text may have been cut: try again with more room
    }
}

std::u16string temp_directory_name() {
    char const* folder = std::getenv("TMPDIR");
    if (folder == nullptr || *folder == '\0')
        folder = "/tmp";
    return detail::from_filesystem(folder, std::char_traits<char>::length(folder));
}

std::u16string get_current_path() {
    std::vector<char> buffer(4096);
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE)
            throw_from_errno(errno, {});
        buffer.resize(buffer.size() * 2);
    }
    return detail::from_filesystem(buffer.data(), std::char_traits<char>::length(buffer.data()));
}

} // namespace vela::filesystem
