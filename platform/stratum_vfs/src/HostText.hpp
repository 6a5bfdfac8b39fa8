#pragma once

#include <stratum/storage/vfs/IRI.hpp>

namespace stratum::storage::vfs::detail {

/// `toAbsoluteIRI` on the UTF-16 text of a host path: pure text work apart from reading the
/// current folder for a relative path.
AbsoluteIRI hostTextToIRI(std::u16string const& scheme, std::u16string const& hostPath);

} // namespace stratum::storage::vfs::detail
