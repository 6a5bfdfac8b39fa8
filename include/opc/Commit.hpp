#pragma once

#include <opc/CommitOptions.hpp>
#include <opc/Export.hpp>
#include <opc/FileSystemOps.hpp>

#include <string>

namespace opc {

/// Puts the file `sourcePath` of `sourceOps` in the place of `targetPath` of `targetOps` (which
/// need not exist), so that the target never holds a half-written file.
///
/// The new content is first copied to a temporary file beside the target (named by
/// `targetOps.getTempName` of the target's folder, or the target path + ".tmp" when the path has
/// no folder part) and then renamed over the target: the replacement itself is one `rename` of
/// the target's back end, as atomic and durable as that back end makes it. Between back ends of
/// the same dynamic type files are copied by the target back end's `copy`; otherwise through
/// `createInputStream` / `createOutputStream`. The source is only read.
///
/// With `options.removeBackup()` false and an existing target, the old package is first copied
/// (not moved) to the target path + `backupExtension()` (then + "2" ... "5" when copying to a
/// name fails); that backup keeps the old modification time and permissions, stays after the
/// commit, and its path is handed to `backupCreatedFcn()` once the new package is in place.
/// The new package gets the old package's permissions (mode 0644 when there was none), and a
/// read-only target is made writable only while it is replaced.
///
/// Failure: throws `opc::Exception` with "Could not commit changes:  " + the inner message + " " +
/// the text of its code, and the inner code. Until the rename succeeds the target keeps its old
/// content, and its permissions when they were changed (except when no temporary name could be
/// found); a failed rename removes the temporary file, a failed copy of the new content leaves
/// whatever part of it was written. A backup once made is never removed on failure. After the
/// rename the new package stays even when its permissions cannot be set. Exceptions other than
/// `opc::Exception` (from a back end, a stream or the callback) pass through unchanged.
///
/// With `options.expectedVersion()` set, the target is checked before anything is written and
/// the rename is `targetOps.renameIfVersion`; with `options.progressFcn()` set, the new content
/// is copied through the streams and counted. A failed condition (`CommitOptions::versionMismatch()`)
/// or a cancellation (`CommitOptions::canceled()`) leaves no temporary file and takes back a
/// backup this commit made under a name that was free before.
///
/// Holds no state and takes no locks; other writers of the same paths are not excluded, except
/// as an expected version does.
OPC_API void replaceFileWithBackup(FileSystemOps& targetOps, const std::u16string& targetPath,
                                   FileSystemOps& sourceOps, const std::u16string& sourcePath,
                                   const CommitOptions& options);

} // namespace opc
