// Temporary names from getrandom, and exclusively created temporary files.
#include "sys.hpp"

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/path.hpp>
#include <vela/filesystem/temp.hpp>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace vela::filesystem {

namespace {

constexpr int random_length = 16; // 16 of 36 symbols: about 82 bits

std::u16string random_part() {
    static constexpr char16_t alphabet[] = u"abcdefghijklmnopqrstuvwxyz0123456789";
    std::uint64_t bits[random_length];
    std::size_t got = 0;
    auto* bytes = reinterpret_cast<unsigned char*>(bits);
    while (got < sizeof bits) {
        ssize_t const n = ::getrandom(bytes + got, sizeof bits - got, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            throw_from_errno(errno, {});
        }
        got += static_cast<std::size_t>(n);
    }
    std::u16string out(random_length, u'a');
    for (int i = 0; i < random_length; ++i)
        out[std::size_t(i)] = alphabet[bits[i] % 36]; // the bias of 2^64 mod 36 is negligible
    return out;
}

} // namespace

std::u16string tmpnam(std::u16string const& folder, std::u16string const& prefix, std::u16string const& extension) {
    std::u16string name = folder;
    if (!name.empty() && name.back() != u'/')
        name.push_back(u'/');
    name += prefix;
    name += random_part();
    name += extension;
    return name;
}

std::FILE* tmpfile(std::u16string& name, std::u16string const& folder, std::u16string const& prefix,
                   std::u16string const& extension) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::u16string candidate;
        std::string access;
        try {
            candidate = tmpnam(folder, prefix, extension);
            access = detail::make_native_access_form_with_cleanup_i18n(candidate);
        } catch (FsysExceptionBase const&) {
            errno = EINVAL;
            return nullptr;
        }
        int const fd = ::open(access.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST || errno == EINTR)
                continue; // taken (maybe by a planted link): try another name
            return nullptr;
        }
        std::FILE* file = ::fdopen(fd, "w+");
        if (file == nullptr) {
            int const error = errno;
            ::close(fd);
            ::unlink(access.c_str()); // our own empty file; errno from fdopen is the report
            errno = error;
            return nullptr;
        }
        name = std::move(candidate);
        return file;
    }
    errno = EEXIST;
    return nullptr;
}

namespace sys {

fd create_beside(std::string const& target_access, std::string& created) {
    std::string const folder = folder_of(target_access) + "/.";
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::string const candidate = folder + detail::to_filesystem(random_part()) + ".tmp";
        fd file(retry(
            [&] { return ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600); }));
        if (file) {
            created = candidate;
            return file;
        }
        if (errno != EEXIST)
            throw_from_errno(errno, detail::from_filesystem(target_access));
    }
    throw_from_errno(EEXIST, detail::from_filesystem(target_access));
}

} // namespace sys

} // namespace vela::filesystem
