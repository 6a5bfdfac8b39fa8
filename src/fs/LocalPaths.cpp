// LocalFileSystemOps: construction and path text.

#include <opc/LocalFileSystemOps.hpp>
#include <opc/Path.hpp>
#include <opc/util/Temp.hpp>

#include "fs/LocalTranslate.hpp"

#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/path.hpp>

namespace opc {

namespace host = vela::filesystem;
using detail::guardedHostCall;

LocalFileSystemOps::LocalFileSystemOps() = default;
LocalFileSystemOps::~LocalFileSystemOps() = default;

std::u16string LocalFileSystemOps::doGetTempName(const std::u16string& folder, std::string& detail,
                                                 error_code& ec) {
    // Empty prefix and extension: the temporary-name defaults ("." and ".tmp") apply.
    return guardedHostCall(std::u16string(), detail, ec, [&] {
        std::u16string name = util::getTempName(folder, std::u16string(), std::u16string());
        // Inside a commit of this back end the first name handed out is its temporary file.
        host::staged_rename_scope::stage(host::path(name));
        // If that commit fails before its rename, whatever its copy left there goes.
        host::staged_rename_scope::on_abandon([name] { host::remove_all(host::path(name)); });
        return name;
    });
}

std::u16string LocalFileSystemOps::doGetParentPath(const std::u16string& path, std::string& detail,
                                                   error_code& ec) {
    return guardedHostCall(std::u16string(), detail, ec, [&] { return detail::getParentPath(path); });
}

// The three pure helpers below let their exceptions reach the frame unchanged.
std::u16string LocalFileSystemOps::doGetFilename(const std::u16string& path, std::string&, error_code&) {
    return detail::getFilename(path);
}

std::u16string LocalFileSystemOps::doGetExtension(const std::u16string& path, std::string&, error_code&) {
    return detail::getExtension(path);
}

std::u16string LocalFileSystemOps::doNormalizePath(const std::u16string& path, std::string&, error_code&) {
    return detail::normalizePath(path);
}

std::u16string LocalFileSystemOps::doAppendPath(const std::u16string& path, const std::u16string& child,
                                                std::string& detail, error_code& ec) {
    return guardedHostCall(std::u16string(), detail, ec, [&] {
        host::path joined(path); // empty text: empty path, no native-form call
        if (!child.empty() && child.front() == u'/') {
            // Exactly one leading "/" is dropped; "/" alone leaves the base as it is.
            if (child.size() > 1)
                joined = host::detail::concatenate_pathname(joined, child.substr(1));
        } else if (!child.empty()) {
            joined = host::detail::concatenate_pathname(joined, child);
        }
        return joined.generic_string();
    });
}

bool LocalFileSystemOps::doGetLocalPath(const std::u16string& path, std::u16string& localPath) {
    localPath = path;
    return true;
}

bool LocalFileSystemOps::doIsAbsolutePath(const std::u16string& path) {
    return host::detail::is_absolute(host::path(path));
}

} // namespace opc
