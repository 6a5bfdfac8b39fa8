#pragma once

#include <opc/CommitOptions.hpp>
#include <opc/FileSystemOps.hpp>

#include <string>

namespace opc::detail {

/// Runs the commit with `targetOps` as the target back end, as a back end's
/// `doReplaceFileWithBackup` does: the commit's own `opc::Exception` comes back as detail and
/// code unchanged (a cleared code and its category included); any other exception propagates
/// to the back end's translation. A source that is a folder or missing is refused first, with
/// nothing written.
void commitAndReport(FileSystemOps& targetOps, const std::u16string& targetPath, FileSystemOps& sourceOps,
                     const std::u16string& sourcePath, const CommitOptions& options, std::string& detail,
                     boost::system::error_code& ec);

} // namespace opc::detail
