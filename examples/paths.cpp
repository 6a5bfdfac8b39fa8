// Paths are UTF-16 text. Converting from and to UTF-8, handing a path to a C library, and the
// local path behind a file: IRI.
#include <opc/opc.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <cstdio>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    opc::util::TempdirGuard scratch(u"", u"paths-", u"");
    opc::LocalFileSystemOps local;

    // UTF-8 (a command line, a configuration file) to UTF-16. Strict: invalid UTF-8 throws
    // opc::Exception; false would replace it by U+FFFD.
    std::u16string const name = opc::detail::toStringFromUTF8String(argc > 1 ? argv[1] : "Bericht über Q3.txt", true);
    std::u16string const path = local.appendPath(scratch.getDirectoryName(), name);

    // UTF-16 to UTF-8, for printing or any narrow API.
    std::cout << opc::detail::toUTF8String(path, true) << '\n';

    // A C library takes the native path: the narrow bytes the host's file calls take.
    std::string const native = opc::detail::makeNativePath(path);
    std::FILE* file = std::fopen(native.c_str(), "w");
    if (!file || std::fputs("hello\n", file) < 0 || std::fclose(file) != 0)
        return 1;
    std::cout << local.getSizeInBytes(path) << " bytes\n";

    // In storage a path is an IRI. A file: IRI has a local path; a memory: one has none.
    opc::VirtualFileSystemOps iris{stratum::storage::vfs::StorageSystemReference()};
    std::u16string const iri = iris.normalizePath(path);
    std::u16string back;
    std::cout << opc::toUDEString(iri) << '\n';
    if (!iris.getLocalPath(iri, back) || back != path || iris.getLocalPath(u"memory:///a.txt", back))
        return 1;
    return 0;
}
