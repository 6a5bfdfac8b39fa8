#pragma once

#include <vela/filesystem/export.hpp>

#include <stdexcept>
#include <string>
#include <vector>

/// Failures of the host file-system layer.
///
/// Every failure is thrown as one of the types below, all derived from `FsysExceptionBase`.
/// `what()` is a readable text (for a failed system call, the `strerror` text of its errno);
/// the path concerned is carried apart as UTF-16 (it may be empty) so that callers can spell
/// it as they like. Every operation funnels its errno through `throw_from_errno`.
namespace vela::filesystem {

class VELA_FS_API FsysExceptionBase : public std::runtime_error {
public:
    /// `message_id` names the failure ("vela:filesystem:PathNotFound"); `text` is `what()`.
    FsysExceptionBase(std::string message_id, std::string const& text, std::u16string path = {},
                      std::vector<std::string> arguments = {});
    ~FsysExceptionBase() override;

    /// The message identifier, such as "vela:filesystem:PathNotFound".
    std::string const& message_id() const noexcept { return m_message_id; }
    /// The path concerned, UTF-16; empty when none applies.
    std::u16string const& path() const noexcept { return m_path; }
    /// Further message arguments (may be empty).
    std::vector<std::string> const& arguments() const noexcept { return m_arguments; }

private:
    std::string m_message_id;
    std::u16string m_path;
    std::vector<std::string> m_arguments;
};

// Each type below has two constructors:
//   T(message_id = "vela:filesystem:T", path = {}, arguments = {})  -- what() is the type's
//     own text (the strerror text of its errno, e.g. "No such file or directory");
//   T(message_id, text, path = {}, arguments = {})                 -- what() is `text`.
// So `PathNotFound()` and `InvalidArgument("vela:filesystem:InvalidArgument",
// "Empty path not permitted")` are both fine.
#define VELA_FS_DECLARE_EXCEPTION(Name)                                                            \
    class VELA_FS_API Name : public FsysExceptionBase {                                            \
    public:                                                                                        \
        explicit Name(std::string message_id = "vela:filesystem:" #Name, std::u16string path = {}, \
                      std::vector<std::string> arguments = {});                                    \
        Name(std::string message_id, std::string const& text, std::u16string path = {},            \
             std::vector<std::string> arguments = {});                                             \
        ~Name() override;                                                                          \
    }

/// EACCES, EPERM: the caller may not do this.
VELA_FS_DECLARE_EXCEPTION(AccessDenied);
/// ENOENT: the path, or a folder on the way, does not exist.
VELA_FS_DECLARE_EXCEPTION(PathNotFound);
/// EEXIST: the destination is already there.
VELA_FS_DECLARE_EXCEPTION(FileExistsError);
/// ENAMETOOLONG: an element over 255 bytes or a path over 4095 bytes.
VELA_FS_DECLARE_EXCEPTION(FileNameTooLarge);
/// ENOTDIR: a folder was expected.
VELA_FS_DECLARE_EXCEPTION(NotDirectoryError);
/// ENOTEMPTY (and EEXIST from removing a folder): the folder still holds entries.
VELA_FS_DECLARE_EXCEPTION(DirectoryNotEmpty);
/// EISDIR: a file was expected and a folder was found.
VELA_FS_DECLARE_EXCEPTION(FileIsDirectory);
/// EOPNOTSUPP: the host cannot do this (e.g. change a link's own permissions on Linux), or a
/// misuse such as reading an ended directory iterator.
VELA_FS_DECLARE_EXCEPTION(InvalidOperation);
/// EINVAL, and bad arguments such as an empty path or an embedded NUL.
VELA_FS_DECLARE_EXCEPTION(InvalidArgument);
/// A path that cannot be converted between UTF-16 and the host's UTF-8 (a lone surrogate).
VELA_FS_DECLARE_EXCEPTION(FileNameConversionFailure);

#undef VELA_FS_DECLARE_EXCEPTION

/// Any other errno; carries the number.
class VELA_FS_API SystemError : public FsysExceptionBase {
public:
    /// what() is `strerror(error_number)`.
    explicit SystemError(int error_number, std::u16string path = {}, std::vector<std::string> arguments = {});
    SystemError(std::string message_id, int error_number, std::string const& text, std::u16string path = {},
                std::vector<std::string> arguments = {});
    ~SystemError() override;

    int error_number() const noexcept { return m_error_number; }

private:
    int m_error_number;
};

/// Where an errno came from, when that changes its meaning.
enum class errno_origin {
    general,
    /// From rmdir: EEXIST then means "not empty", as ENOTEMPTY.
    remove_directory,
};

/// The one mapping of an errno to an exception: throws the type that fits `error_number`
/// with its `strerror` text and `path`. EACCES/EPERM AccessDenied, ENOENT PathNotFound,
/// EEXIST FileExistsError (DirectoryNotEmpty for `remove_directory`), ENAMETOOLONG
/// FileNameTooLarge, ENOTDIR NotDirectoryError, ENOTEMPTY DirectoryNotEmpty, EISDIR
/// FileIsDirectory, EOPNOTSUPP InvalidOperation, EINVAL InvalidArgument, else SystemError.
[[noreturn]] VELA_FS_API void throw_from_errno(int error_number, std::u16string const& path,
                                               errno_origin origin = errno_origin::general);

} // namespace vela::filesystem
