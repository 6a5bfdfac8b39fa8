// Writing and reading files through standard streams from a back end, and the copy loop that
// moves bytes between any two streams (files, memory, other back ends).
#include <opc/opc.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <iostream>
#include <vector>

int main() {
    opc::util::TempdirGuard scratch(u"", u"streams-", u"");
    opc::LocalFileSystemOps fs;
    std::u16string const path = fs.appendPath(scratch.getDirectoryName(), u"part.xml");

    // A stream from any back end; the file closes when the last holder lets go. A write the
    // storage refuses (a full disk) throws opc::Exception "write failed: ..." right there.
    {
        auto out = fs.createOutputStream(path, opc::OpenMode::WriteBinary | opc::OpenMode::Truncate);
        *out << "<part/>\n";
    }

    // The copy loop: any InputStream into any OutputStream; here a file into a byte vector.
    std::vector<unsigned char> bytes;
    {
        auto in = fs.createInputStream(path, opc::OpenMode::ReadBinary);
        opc::StdIStreamAdaptor source(*in);
        opc::ByteArrayOutAdaptor sink(bytes);
        if (!opc::StreamHelper::copyStreamToStream(source, sink))
            return 1;
    }

    // And from the vector into a file of another back end (a standard stream as the sink).
    opc::VirtualFileSystemOps iris{stratum::storage::vfs::StorageSystemReference()};
    {
        auto out = iris.createOutputStream(u"memory:///part.xml", opc::OpenMode::WriteBinary);
        opc::ByteArrayInAdaptor source(bytes);
        if (!opc::StreamHelper::copyStreamToStream(source, *out))
            return 1;
    }
    std::cout << bytes.size() << " bytes, in memory " << iris.getSizeInBytes(u"memory:///part.xml") << '\n';
    return iris.getSizeInBytes(u"memory:///part.xml") == bytes.size() ? 0 : 1;
}
