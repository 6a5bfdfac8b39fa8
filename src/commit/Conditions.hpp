#pragma once

#include <opc/FileSystemOps.hpp>

#include <string>

namespace opc::detail {

/// Throws `opc::Exception` with `CommitOptions::versionMismatch()` unless the file at `path` is
/// what `expected` says: the file with that version tag or, when empty, nothing at all. Only
/// reads. A back end's failure to tell (other than a missing file) is thrown as it is.
void requireExpectedVersion(FileSystemOps& ops, const std::u16string& path, const std::string& expected);

/// The text of a version mismatch at `path`, for the back ends and the commit alike.
std::string versionMismatchText(const std::string& why, const std::string& path);

} // namespace opc::detail
