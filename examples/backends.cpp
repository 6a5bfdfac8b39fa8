// Getting each back end: the local disk, storage named by IRIs (memory: and file:), and the
// selector that picks one by the path.
#include <opc/opc.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <iostream>

int main() {
    // The local disk: paths are host paths as UTF-16 text.
    opc::LocalFileSystemOps local;
    std::u16string const tmp = opc::util::getTempDir();
    std::cout << "local: " << local.isFolder(tmp) << '\n';

    // Storage named by IRIs. A default-constructed reference is a new storage system serving
    // file: (the local disk) and memory: (a tree inside this process, shared by every copy of
    // the reference, gone with the last one).
    stratum::storage::vfs::StorageSystemReference storage;
    opc::VirtualFileSystemOps iris(storage);
    iris.createFolders(u"memory:///reports/2024");
    std::cout << "memory: " << iris.isFolder(u"memory:///reports/2024") << '\n';
    std::u16string const tmpIri = iris.normalizePath(tmp); // a local path becomes a file: IRI
    std::cout << "file: " << iris.isFolder(tmpIri) << '\n';

    // The selector: IRIs go to the virtual back end, other paths to the local one. Without the
    // storage reference it has no virtual back end, and asking for one throws.
    opc::FileSystemOpsSelector selector(storage);
    opc::FileSystemOps& forIri = selector.getForPath(u"memory:///reports/2024");
    opc::FileSystemOps& forPath = selector.getForPath(tmp);
    std::cout << "selector: " << forIri.isFolder(u"memory:///reports/2024") << forPath.isFolder(tmp) << '\n';
    return &forPath == &selector.getLocal() ? 0 : 1;
}
