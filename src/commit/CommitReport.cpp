#include "commit/CommitReport.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>

namespace opc::detail {

void commitAndReport(FileSystemOps& targetOps, const std::u16string& targetPath, FileSystemOps& sourceOps,
                     const std::u16string& sourcePath, const CommitOptions& options, std::string& detail,
                     boost::system::error_code& ec) {
    try {
        replaceFileWithBackup(targetOps, targetPath, sourceOps, sourcePath, options);
    } catch (Exception const& e) {
        detail = e.what();
        ec = e.code();
    }
}

} // namespace opc::detail
