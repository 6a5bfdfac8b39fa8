// IRIs from host path objects.
#include <stratum/storage/vfs/IRI.hpp>

#include <vela/filesystem/path.hpp>

#include "HostText.hpp"

namespace stratum::storage::vfs {

AbsoluteIRI toAbsoluteIRI(std::u16string const& scheme, vela::filesystem::path const& hostPath) {
    return detail::hostTextToIRI(scheme, hostPath.native());
}

} // namespace stratum::storage::vfs
