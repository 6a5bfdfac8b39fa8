#pragma once

// Internal to the `file` provider: its one translation of host failures and the helpers its
// parts (queries, output, rename) share.
#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include <ios>
#include <memory>
#include <string>

namespace stratum::storage::vfs::detail {

/// Called inside a catch handler: throws the storage `Exception` matching the host failure in
/// flight, located at `iri` (a storage `Exception` passes unchanged).
[[noreturn]] void translateHostException(AbsoluteIRI const& iri);

/// Throws the storage `Exception` for a failed system call's `number`, located at `iri`,
/// through the host layer's one errno mapping and the translation above.
[[noreturn]] void throwHostErrno(int number, AbsoluteIRI const& iri);

/// Runs `work`, turning any host failure into a storage exception at `iri`.
template <class Work>
auto guarded(AbsoluteIRI const& iri, Work&& work) -> decltype(work()) {
    try {
        return work();
    } catch (...) {
        translateHostException(iri);
    }
}

/// The host's access form of the IRI's path, for system calls; throws when it has none.
std::string accessPath(AbsoluteIRI const& iri);

/// A write-through buffer on a descriptor opened for `mode` (a valid `std::fstream`
/// combination holding `out`): each write is one write(2) loop, retried on EINTR and continued
/// after a short count; a refusal (ENOSPC, EFBIG, EIO, EDQUOT) throws from that write.
std::unique_ptr<provider::OutputBuffer> openLocalOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode);

/// Renames `from` to `to` so that the result survives a crash and never widens permissions:
/// syncs `from`'s data, narrows its permission bits to those of a replaced file, renames
/// (exchanging with an existing `to`), syncs the folder(s); any failure leaves `to` as it was.
void renameDurably(AbsoluteIRI const& from, AbsoluteIRI const& to);

} // namespace stratum::storage::vfs::detail
