// The `file` scheme: the local disk through the host file-system layer. An IRI's decoded path
// is the host path. Links are never followed: a symbolic link is reported as a file. Durable
// renames and write-through output are the host layer's; this file adds the storage contract
// (kinds, the one translation of host failures into storage exceptions).
#include <stratum/storage/vfs/Exception.hpp>

#include "Providers.hpp"

#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/fstream.hpp>
#include <vela/filesystem/operations.hpp>

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace stratum::storage::vfs::detail {

namespace {

namespace fs = vela::filesystem;
using boost::posix_time::ptime;
using provider::FileAttributes;
using provider::FolderEntry;
using provider::ItemKind;

ErrorCode codeForErrno(int number) {
    switch (number) {
    case EROFS: return ErrorCode::ReadOnlyFileSystem;
    case EFBIG: return ErrorCode::FileTooLarge;
    case EAGAIN: return ErrorCode::TryAgain;
    case ENOSPC:
    case EDQUOT: return ErrorCode::NoSpace;
    case ENXIO:
    case ENODEV: return ErrorCode::NoSuchDeviceOrAddress;
    case ENOTRECOVERABLE: return ErrorCode::StateNotRecoverable;
    case EXDEV: return ErrorCode::NotSupported;
    case ESTALE: return ErrorCode::VersionMismatch;
    default: return ErrorCode::IOError;
    }
}

constexpr std::uint32_t ownerWrite = 0200;
constexpr std::uint32_t anyWrite = 0222;

// Called inside a catch handler: throws the storage `Exception` matching the host failure in
// flight, located at `iri` (a storage `Exception` passes unchanged).
[[noreturn]] void translateHostException(AbsoluteIRI const& iri) {
    try {
        throw;
    } catch (Exception const&) {
        throw;
    } catch (fs::AccessDenied const& e) {
        throw Exception(ErrorCode::PermissionDenied, iri, e.what());
    } catch (fs::PathNotFound const& e) {
        throw Exception(ErrorCode::NotFound, iri, e.what());
    } catch (fs::NotDirectoryError const& e) {
        throw Exception(ErrorCode::NotFound, iri, e.what());
    } catch (fs::FileExistsError const& e) {
        throw Exception(ErrorCode::FileExists, iri, e.what());
    } catch (fs::DirectoryNotEmpty const& e) {
        throw Exception(ErrorCode::DirectoryNotEmpty, iri, e.what());
    } catch (fs::InvalidOperation const& e) {
        throw Exception(ErrorCode::NotSupported, iri, e.what());
    } catch (fs::SystemError const& e) {
        throw Exception(codeForErrno(e.error_number()), iri, e.what());
    } catch (std::exception const& e) {
        // FileNameTooLarge, FileIsDirectory, InvalidArgument, FileNameConversionFailure and
        // anything else the host may throw.
        throw Exception(ErrorCode::IOError, iri, e.what());
    } catch (...) {
        throw Exception(ErrorCode::IOError, iri, "unknown host failure");
    }
}

// Runs `work`, turning any host failure into a storage exception at `iri`.
template <class Work>
auto guarded(AbsoluteIRI const& iri, Work&& work) -> decltype(work()) {
    try {
        return work();
    } catch (...) {
        translateHostException(iri);
    }
}

fs::path hostPath(AbsoluteIRI const& iri) { return fs::path(iri.getPath()); }

ItemKind kindOf(fs::file_status const& status) {
    if (status.type() & fs::file_status::file_not_found) {
        return provider::NoItem;
    }
    return (status.type() & fs::file_status::directory_file) ? provider::FolderItem : provider::FileItem;
}

// The host layer's write-through buffer, handed on operation by operation: every write goes to
// the kernel at once and a refused one throws the storage exception for it from that write.
class LocalOutput final : public provider::OutputBuffer {
public:
    LocalOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) {
        std::string const access = fs::detail::stream_access_form(iri.getPath());
        if (access.empty() || !host_.open(access, mode, iri.getPath())) {
            int const error = errno;
            guarded(iri, [&] { fs::throw_from_errno(error, iri.getPath()); });
        }
        host_.set_failure_handler([iri] { translateHostException(iri); });
    }

    void close() override { host_.close(); }

protected:
    std::streamsize xsputn(char const* data, std::streamsize size) override { return host_.sputn(data, size); }
    int_type overflow(int_type c) override {
        return traits_type::eq_int_type(c, traits_type::eof()) ? traits_type::not_eof(c)
                                                               : host_.sputc(traits_type::to_char_type(c));
    }
    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        return host_.pubseekoff(offset, dir, which);
    }
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override { return host_.pubseekpos(pos, which); }

private:
    fs::detail::write_through_buf host_;
};

class LocalProvider final : public provider::StorageProvider {
public:
    ItemKind getKind(AbsoluteIRI const& iri) override {
        return guarded(iri, [&] { return kindOf(fs::symlink_status(hostPath(iri))); });
    }

    FileAttributes getAttributes(AbsoluteIRI const& iri) override {
        fs::file_status status = statusOf(iri, provider::FileItem);
        return FileAttributes(status.size(), status.last_write_time(), (status.permissions() & ownerWrite) != 0);
    }

    std::vector<FolderEntry> listFolder(AbsoluteIRI const& iri) override {
        statusOf(iri, provider::FolderItem);
        return guarded(iri, [&] {
            std::vector<FolderEntry> entries;
            for (fs::directory_iterator it(hostPath(iri)); it.is_open(); ++it) {
                entries.push_back(FolderEntry{it->filename(), (it->status().type() & fs::file_status::directory_file) != 0});
            }
            std::sort(entries.begin(), entries.end(),
                      [](FolderEntry const& a, FolderEntry const& b) { return a.name < b.name; });
            return entries;
        });
    }

    void createFolder(AbsoluteIRI const& iri) override {
        guarded(iri, [&] { fs::create_directory(hostPath(iri)); });
    }

    bool isWritable(AbsoluteIRI const& iri) override {
        return (statusOf(iri, provider::NoItem).permissions() & ownerWrite) != 0;
    }

    void setWritable(AbsoluteIRI const& iri, bool writable) override {
        // Only the write bits move: a 0600 file made writable stays 0600, and read-only
        // clears every write bit (0664 becomes 0444), so no one else keeps write access.
        std::uint32_t bits = statusOf(iri, provider::NoItem).permissions() & fs::file_status::perms_all;
        bits = writable ? bits | ownerWrite : bits & ~anyWrite;
        guarded(iri, [&] { fs::permissions(hostPath(iri), bits); });
    }

    ptime getLastModified(AbsoluteIRI const& iri) override {
        return statusOf(iri, provider::NoItem).last_write_time();
    }

    void setLastModified(AbsoluteIRI const& iri, ptime time) override {
        guarded(iri, [&] { fs::last_write_time(hostPath(iri), time); });
    }

    void removeFile(AbsoluteIRI const& iri) override {
        statusOf(iri, provider::FileItem);
        guarded(iri, [&] { fs::remove(hostPath(iri)); });
    }

    void removeEmptyFolder(AbsoluteIRI const& iri) override {
        statusOf(iri, provider::FolderItem);
        guarded(iri, [&] { fs::remove(hostPath(iri)); });
    }

    void removeTree(AbsoluteIRI const& iri) override {
        statusOf(iri, provider::FolderItem);
        guarded(iri, [&] { fs::remove_all(hostPath(iri)); });
    }

    // The host rename syncs the data, exchanges with an existing `to`, syncs the folders and
    // narrows the incoming modes. A failure is located at the name the host reports it for.
    void rename(AbsoluteIRI const& from, AbsoluteIRI const& to) override {
        fs::path const source = hostPath(from);
        try {
            fs::rename(source, hostPath(to));
        } catch (fs::FsysExceptionBase const& e) {
            translateHostException(e.path() == source.native() ? from : to);
        } catch (...) {
            translateHostException(to);
        }
    }

    std::string getVersionTag(AbsoluteIRI const& iri) override {
        statusOf(iri, provider::FileItem);
        return guarded(iri, [&] { return fs::version_tag(hostPath(iri)); });
    }

    // The host's conditional rename: exchange and check, and exchange back on a mismatch.
    void renameIfVersion(AbsoluteIRI const& from, AbsoluteIRI const& to, std::string const& expected) override {
        fs::path const source = hostPath(from);
        try {
            fs::rename_if_version(source, hostPath(to), expected);
        } catch (fs::FsysExceptionBase const& e) {
            translateHostException(e.path() == source.native() ? from : to);
        } catch (...) {
            translateHostException(to);
        }
    }

    std::unique_ptr<std::streambuf> openInput(AbsoluteIRI const& iri) override {
        if (getKind(iri) != provider::FileItem) {
            return nullptr;
        }
        auto buffer = std::make_unique<std::filebuf>();
        std::string access = fs::detail::stream_access_form(iri.getPath());
        if (access.empty() || buffer->open(access, std::ios_base::in | std::ios_base::binary) == nullptr) {
            return nullptr;
        }
        return buffer;
    }

    std::unique_ptr<provider::OutputBuffer> openOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) override {
        return std::make_unique<LocalOutput>(iri, mode);
    }

    // The host copy creates `to` exclusively (never through a link) and copies the permission
    // bits; a file copy is put in place by `rename`, which makes it durable.
    void copyFile(AbsoluteIRI const& from, AbsoluteIRI const& to) override {
        guarded(to, [&] { fs::copy_file(hostPath(from), hostPath(to), fs::copy_option::fail_if_exists); });
    }

private:
    // The status of an existing item of the `expected` kind (NoItem: any kind); NotFound else.
    fs::file_status statusOf(AbsoluteIRI const& iri, ItemKind expected) {
        fs::file_status status = guarded(iri, [&] { return fs::symlink_status(hostPath(iri)); });
        ItemKind kind = kindOf(status);
        if (kind == provider::NoItem || (expected != provider::NoItem && kind != expected)) {
            throw Exception(ErrorCode::NotFound, iri,
                            kind == provider::NoItem ? "" : kind == provider::FolderItem ? "a folder is not a file"
                                                                                         : "a file is not a folder");
        }
        return status;
    }
};

} // namespace

std::shared_ptr<provider::StorageProvider> makeLocalProvider() { return std::make_shared<LocalProvider>(); }

} // namespace stratum::storage::vfs::detail
