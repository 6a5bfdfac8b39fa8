// Version tags: what tells one state of a file from the next, for writers that must not
// replace a file someone else changed meanwhile.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <cstdio>

namespace vela::filesystem {

namespace sys {

namespace {

// Who the file is and what its content last did; the change time comes after it, apart.
std::string identity_of(struct stat const& st) {
    char text[96];
    std::snprintf(text, sizeof text, "%llx.%llx.%llx.%llx.%lx", static_cast<unsigned long long>(st.st_dev),
                  static_cast<unsigned long long>(st.st_ino), static_cast<unsigned long long>(st.st_size),
                  static_cast<unsigned long long>(st.st_mtim.tv_sec), static_cast<unsigned long>(st.st_mtim.tv_nsec));
    return text;
}

std::string change_of(struct stat const& st) {
    char text[48];
    std::snprintf(text, sizeof text, "%llx.%lx", static_cast<unsigned long long>(st.st_ctim.tv_sec),
                  static_cast<unsigned long>(st.st_ctim.tv_nsec));
    return text;
}

} // namespace

std::string version_of(struct stat const& st) { return identity_of(st) + "-" + change_of(st); }

bool has_version(struct stat const& st, std::string const& tag, bool with_change_time) {
    if (!S_ISREG(st.st_mode))
        return false;
    if (with_change_time)
        return tag == version_of(st);
    std::string const identity = identity_of(st) + "-";
    return tag.compare(0, identity.size(), identity) == 0;
}

} // namespace sys

std::string version_tag(path const& p) {
    std::string const access = p.access_form();
    struct stat st;
    if (::lstat(access.c_str(), &st) != 0)
        sys::fail(p);
    if (!S_ISREG(st.st_mode))
        throw_from_errno(EISDIR, p.native());
    return sys::version_of(st);
}

} // namespace vela::filesystem
