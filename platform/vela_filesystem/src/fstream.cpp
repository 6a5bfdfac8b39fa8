// Path conversion for the file streams: never throws, reports through errno.
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/fstream.hpp>
#include <vela/filesystem/path.hpp>

#include <sys/stat.h>

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

} // namespace vela::filesystem::detail
