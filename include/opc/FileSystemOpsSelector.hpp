#pragma once

#include <opc/Export.hpp>
#include <opc/FileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <memory>
#include <string>

namespace opc {

/// Picks the back end for a path: a path with an IRI scheme prefix known to the storage library
/// goes to the virtual back end, any other path to the local one.
///
/// A selector owns one back end of each kind (the virtual one only when it was given a storage
/// system) in one record shared by all its copies: copies hand out the very same objects, and
/// the returned references stay valid while any copy lives. The set of back ends never changes
/// after construction; the getters only read, so a selector may be queried from several threads.
class OPC_API FileSystemOpsSelector {
public:
    struct Impl;

    /// A local back end only; asking for the virtual one throws.
    FileSystemOpsSelector();
    /// A local back end and a virtual back end over a copy of `storage`.
    explicit FileSystemOpsSelector(stratum::storage::vfs::StorageSystemReference const& storage);

    /// The virtual back end when the storage library sees an IRI prefix, else the local one.
    /// Nothing else about the path is looked at. Throws as `getVirtual` does.
    FileSystemOps& getForPath(std::u16string const& path) const;
    /// The virtual back end; without one throws `opc::Exception` with a cleared code.
    FileSystemOps& getVirtual() const;
    /// The local back end.
    FileSystemOps& getPhysical() const;
    /// The local back end (the same object as `getPhysical`).
    FileSystemOps& getLocal() const;

private:
    std::shared_ptr<Impl> m_impl;
};

} // namespace opc
