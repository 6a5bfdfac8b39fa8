#pragma once

#include <opc/FileSystemOps.hpp>

#include <memory>
#include <string>

namespace opc::detail {

/// True when both back ends are objects of the same dynamic type, so that one of them can
/// work on the other's paths directly.
bool sameBackEndType(const FileSystemOps& a, const FileSystemOps& b);

/// Two virtual back ends of one type over different storage systems would copy the source's
/// IRI within the target's storage, that is another file. For such a source this gives a view
/// of it of another type, through which the commit streams the right bytes across; null when
/// the source can be used as it is.
std::unique_ptr<FileSystemOps> sourceFromOtherStorage(const FileSystemOps& target, const FileSystemOps& source);

/// The commit asks about the target again and again by design (exists, permissions, before and
/// after the rename). For a virtual back end this gives a view of the target for the one commit
/// whose storage handle remembers what the commit learns, where each question is a round trip
/// (see `StorageSystemReference::remembering`); it is dropped when the commit returns. Null for
/// other back ends and for subclasses, whose own operations must run.
std::unique_ptr<FileSystemOps> rememberingTarget(const FileSystemOps& target);

/// Copies file `from` of `fromOps` to file `to` of `toOps`, replacing an existing destination.
/// Same back-end type: `toOps.copy(from, to, Overwrite)`. Otherwise the bytes go through a
/// binary input stream of `fromOps` and a binary output stream of `toOps`; both are released
/// before returning, and a short copy is not reported (the streams carry no error state the
/// back ends promise to keep).
void copyAcross(FileSystemOps& fromOps, const std::u16string& from, FileSystemOps& toOps,
                const std::u16string& to);

/// Copies as the stream copy of `copyAcross` does, whatever the back ends, calling `progress`
/// with the bytes copied and the source's size (0 when it cannot tell) after every MiB, and
/// last with both the number of bytes copied, before the destination is closed. When it
/// returns false the copy stops and throws `opc::Exception` with `CommitOptions::canceled()`;
/// the destination stream is then dropped unclosed (an object store's upload is aborted).
/// Unlike `copyAcross`, a failed read is reported (`io_error`).
void copyCounting(FileSystemOps& fromOps, const std::u16string& from, FileSystemOps& toOps,
                  const std::u16string& to, const CommitOptions::ProgressFcn& progress);

/// Moves file `from` of `fromOps` onto `to` of `toOps`: one `toOps.rename` for the same
/// back-end type, otherwise `copyAcross` followed by `fromOps.remove(from)`.
void moveAcross(FileSystemOps& fromOps, const std::u16string& from, FileSystemOps& toOps,
                const std::u16string& to);

} // namespace opc::detail
