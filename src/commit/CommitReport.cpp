#include "commit/CommitReport.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/Text.hpp>

namespace opc::detail {

namespace {

namespace errc = boost::system::errc;

// A folder given as the new package would be copied beside the target as a folder, and a
// missing one would fail only at the copy: both are refused before anything is written,
// naming the source.
void requireSourceFile(FileSystemOps& ops, const std::u16string& path) {
    if (ops.isFile(path)) // one question in the usual case: a round trip on an object store
        return;
    if (ops.isFolder(path))
        throw Exception("The new package is a folder, not a file: " + toUDEString(path),
                        errc::make_error_code(errc::is_a_directory));
    if (!ops.exists(path))
        throw Exception("The new package does not exist: " + toUDEString(path),
                        errc::make_error_code(errc::no_such_file_or_directory));
}

} // namespace

void commitAndReport(FileSystemOps& targetOps, const std::u16string& targetPath, FileSystemOps& sourceOps,
                     const std::u16string& sourcePath, const CommitOptions& options, std::string& detail,
                     boost::system::error_code& ec) {
    try {
        requireSourceFile(sourceOps, sourcePath);
    } catch (Exception const& e) {
        // Reported as the commit reports its own failures.
        detail = std::string("Could not commit changes:  ") + e.what() + " " + e.code().message();
        ec = e.code();
        return;
    }
    try {
        replaceFileWithBackup(targetOps, targetPath, sourceOps, sourcePath, options);
    } catch (Exception const& e) {
        detail = e.what();
        ec = e.code();
    }
}

} // namespace opc::detail
