#pragma once

#include <vela/filesystem/export.hpp>

#include <cstdio>
#include <string>

/// Temporary names and files.
namespace vela::filesystem {

/// A fresh candidate name: `folder` + "/" + `prefix` + 16 random characters of [a-z0-9]
/// (over 80 bits from getrandom) + `extension`. Creates nothing, checks nothing: the caller
/// must still create the file exclusively or check that the name is free. An empty folder
/// gives a name relative to the current folder (no leading "/").
VELA_FS_API std::u16string tmpnam(std::u16string const& folder, std::u16string const& prefix,
                                  std::u16string const& extension);

/// Creates a new empty file named as `tmpnam` makes names, with mode 0600 and
/// O_CREAT|O_EXCL|O_NOFOLLOW|O_CLOEXEC (so a file or a planted link at the name is never
/// opened: another name is tried), writes its path into `name` and returns it open for
/// reading and writing. Returns null (with `errno` set and `name` untouched) when no file can
/// be created, e.g. a missing or read-only folder.
VELA_FS_API std::FILE* tmpfile(std::u16string& name, std::u16string const& folder, std::u16string const& prefix,
                               std::u16string const& extension);

} // namespace vela::filesystem
