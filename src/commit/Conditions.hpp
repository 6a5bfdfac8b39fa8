#pragma once

#include <opc/FileSystemOps.hpp>

#include <string>
#include <vector>

namespace opc::detail {

/// Throws `opc::Exception` with `CommitOptions::versionMismatch()` unless the file at `path` is
/// what `expected` says: the file with that version tag or, when empty, nothing at all. Only
/// reads. A back end's failure to tell (other than a missing file) is thrown as it is.
void requireExpectedVersion(FileSystemOps& ops, const std::u16string& path, const std::string& expected);

/// The text of a version mismatch at `path`, for the back ends and the commit alike.
std::string versionMismatchText(const std::string& why, const std::string& path);

/// Removes what a failed commit made itself, ignoring any failure: the one in flight is the report.
void removeQuietly(FileSystemOps& ops, const std::u16string& path);

/// The names of `candidates` at which nothing is now (one that cannot be checked counts as taken).
std::vector<std::u16string> freeNames(FileSystemOps& ops, std::vector<std::u16string> candidates);

/// True when `names` holds `name`.
bool holds(const std::vector<std::u16string>& names, const std::u16string& name);

} // namespace opc::detail
