// The `file` provider's rename: the moved data is durable before its new name is, the new name
// is durable before the rename returns, and a replaced file's permissions are never widened.
#include "LocalHost.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace stratum::storage::vfs::detail {

namespace {

// An open descriptor, closed on every path out.
class Descriptor {
public:
    Descriptor(std::string const& path, int flags, AbsoluteIRI const& iri) {
        do {
            fd_ = ::open(path.c_str(), flags | O_CLOEXEC);
        } while (fd_ < 0 && errno == EINTR);
        if (fd_ < 0) {
            throwHostErrno(errno, iri);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    // Opened only to sync or change modes, never written: its close has nothing to report.
    ~Descriptor() { ::close(fd_); }
    int get() const { return fd_; }

private:
    int fd_;
};

// Whether something is at `path` (a link counts, dangling or not).
bool present(std::string const& path, AbsoluteIRI const& iri) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        throwHostErrno(errno, iri);
    }
    return false;
}

// Syncs the data of the regular file `from` and narrows its permission bits to those of the
// file at `to` (a link there is followed to read them), so it never arrives with more.
void prepareIncoming(std::string const& from, AbsoluteIRI const& fromIri, std::string const& to,
                     AbsoluteIRI const& toIri) {
    struct stat incoming {};
    if (::lstat(from.c_str(), &incoming) != 0) {
        throwHostErrno(errno, fromIri);
    }
    if (!S_ISREG(incoming.st_mode) && !S_ISDIR(incoming.st_mode)) {
        return;  // a link (or a fifo, a device) has no data of its own to sync here
    }
    // Write access suffices to sync and narrow a file its owner may not read (mode 0200).
    bool const writeOnly = S_ISREG(incoming.st_mode) && !(incoming.st_mode & S_IRUSR) && (incoming.st_mode & S_IWUSR);
    int const access = writeOnly ? O_WRONLY : O_RDONLY;
    Descriptor file(from, access | O_NOFOLLOW, fromIri);
    if (::fdatasync(file.get()) != 0) {
        throwHostErrno(errno, fromIri);
    }
    struct stat replaced {};
    if (S_ISDIR(incoming.st_mode)) {
        return;  // a folder never replaces a file here: the caller removed it first
    }
    if (::stat(to.c_str(), &replaced) != 0) {
        if (errno != ENOENT) {
            throwHostErrno(errno, toIri);  // bits that cannot be read cannot be kept within
        }
        return;  // nothing is replaced (or only a dangling link)
    }
    if (!S_ISREG(replaced.st_mode)) {
        return;
    }
    mode_t const narrowed = incoming.st_mode & replaced.st_mode & 07777;
    if (narrowed != (incoming.st_mode & 07777) && ::fchmod(file.get(), narrowed) != 0) {
        throwHostErrno(errno, fromIri);
    }
}

// Makes the entries of the folder at `iri` durable.
void syncFolder(AbsoluteIRI const& iri) {
    Descriptor folder(accessPath(iri), O_RDONLY | O_DIRECTORY, iri);
    if (::fsync(folder.get()) != 0) {
        throwHostErrno(errno, iri);
    }
}

void syncFolders(AbsoluteIRI const& from, AbsoluteIRI const& to) {
    syncFolder(to.getParent());
    if (!(from.getParent() == to.getParent())) {
        syncFolder(from.getParent());
    }
}

} // namespace

void renameDurably(AbsoluteIRI const& from, AbsoluteIRI const& to) {
    std::string const source = accessPath(from);
    std::string const target = accessPath(to);
    prepareIncoming(source, from, target, to);
    if (present(target, to)) {
        // Exchange, so that until the folder is synced the old file can still come back.
        if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
            try {
                syncFolders(from, to);
                if (::unlink(source.c_str()) != 0) {  // the old file, now under the source name
                    throwHostErrno(errno, from);
                }
            } catch (...) {
                // Put the old file back. Should even that fail, the failure reported is still
                // the first one: the new file is then at `to` and the old one at `from`.
                if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
                    try {
                        syncFolders(from, to);
                    } catch (...) {
                        // Best effort: the first failure is the one to report.
                    }
                }
                throw;
            }
            return;
        }
        if (errno != EINVAL && errno != ENOSYS) {
            throwHostErrno(errno, to);
        }
        // The file system cannot exchange (some network and FUSE file systems): a plain rename
        // follows, after which a failed folder sync is reported but the old file is gone.
    }
    bool const created = !present(target, to);
    if (::rename(source.c_str(), target.c_str()) != 0) {
        throwHostErrno(errno, to);
    }
    try {
        syncFolders(from, to);
    } catch (...) {
        // A new name that may not survive a crash is taken back, so `to` is missing as before.
        // Should taking it back fail too, the sync failure is still the one to report.
        if (created) {
            ::renameat2(AT_FDCWD, target.c_str(), AT_FDCWD, source.c_str(), RENAME_NOREPLACE);
        }
        throw;
    }
}

} // namespace stratum::storage::vfs::detail
