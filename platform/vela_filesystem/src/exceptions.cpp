// The exception types and the one errno mapping.
#include <vela/filesystem/exceptions.hpp>

#include <cerrno>
#include <cstring>

namespace vela::filesystem {

namespace {

std::string errno_text(int error_number) {
    char buffer[256];
    // GNU strerror_r: returns the text, maybe not in `buffer`.
    return ::strerror_r(error_number, buffer, sizeof buffer);
}

} // namespace

FsysExceptionBase::FsysExceptionBase(std::string message_id, std::string const& text, std::u16string path,
                                     std::vector<std::string> arguments)
    : std::runtime_error(text), m_message_id(std::move(message_id)), m_path(std::move(path)),
      m_arguments(std::move(arguments)) {}
FsysExceptionBase::~FsysExceptionBase() = default;

#define VELA_FS_DEFINE_EXCEPTION(Name, errno_value)                                                \
    Name::Name(std::string message_id, std::u16string path, std::vector<std::string> arguments)    \
        : FsysExceptionBase(std::move(message_id), errno_text(errno_value), std::move(path),       \
                            std::move(arguments)) {}                                               \
    Name::Name(std::string message_id, std::string const& text, std::u16string path,               \
               std::vector<std::string> arguments)                                                 \
        : FsysExceptionBase(std::move(message_id), text, std::move(path), std::move(arguments)) {} \
    Name::~Name() = default;

VELA_FS_DEFINE_EXCEPTION(AccessDenied, EACCES)
VELA_FS_DEFINE_EXCEPTION(PathNotFound, ENOENT)
VELA_FS_DEFINE_EXCEPTION(FileExistsError, EEXIST)
VELA_FS_DEFINE_EXCEPTION(FileNameTooLarge, ENAMETOOLONG)
VELA_FS_DEFINE_EXCEPTION(NotDirectoryError, ENOTDIR)
VELA_FS_DEFINE_EXCEPTION(DirectoryNotEmpty, ENOTEMPTY)
VELA_FS_DEFINE_EXCEPTION(FileIsDirectory, EISDIR)
VELA_FS_DEFINE_EXCEPTION(InvalidOperation, EOPNOTSUPP)
VELA_FS_DEFINE_EXCEPTION(InvalidArgument, EINVAL)
VELA_FS_DEFINE_EXCEPTION(FileNameConversionFailure, EILSEQ)

#undef VELA_FS_DEFINE_EXCEPTION

SystemError::SystemError(int error_number, std::u16string path, std::vector<std::string> arguments)
    : FsysExceptionBase("vela:filesystem:SystemError", errno_text(error_number), std::move(path),
                        std::move(arguments)),
      m_error_number(error_number) {}
SystemError::SystemError(std::string message_id, int error_number, std::string const& text, std::u16string path,
                         std::vector<std::string> arguments)
    : FsysExceptionBase(std::move(message_id), text, std::move(path), std::move(arguments)),
      m_error_number(error_number) {}
SystemError::~SystemError() = default;

void throw_from_errno(int error_number, std::u16string const& path, errno_origin origin) {
    std::string const text = errno_text(error_number);
    switch (error_number) {
    case EACCES:
    case EPERM:
        throw AccessDenied("vela:filesystem:AccessDenied", text, path);
    case ENOENT:
        throw PathNotFound("vela:filesystem:PathNotFound", text, path);
    case EEXIST:
        if (origin == errno_origin::remove_directory)
            throw DirectoryNotEmpty("vela:filesystem:DirectoryNotEmpty", errno_text(ENOTEMPTY), path);
        throw FileExistsError("vela:filesystem:FileExistsError", text, path);
    case ENAMETOOLONG:
        throw FileNameTooLarge("vela:filesystem:FileNameTooLarge", text, path);
    case ENOTDIR:
        throw NotDirectoryError("vela:filesystem:NotDirectoryError", text, path);
    case ENOTEMPTY:
        throw DirectoryNotEmpty("vela:filesystem:DirectoryNotEmpty", text, path);
    case EISDIR:
        throw FileIsDirectory("vela:filesystem:FileIsDirectory", text, path);
    case EOPNOTSUPP: // ENOTSUP has the same value on Linux
        throw InvalidOperation("vela:filesystem:InvalidOperation", text, path);
    case EINVAL:
        throw InvalidArgument("vela:filesystem:InvalidArgument", text, path);
    default:
        throw SystemError("vela:filesystem:SystemError", error_number, text, path);
    }
}

} // namespace vela::filesystem
