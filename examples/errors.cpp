// The two forms of every fallible operation: one throws opc::Exception, the other reports
// through a boost::system::error_code and never throws.
#include <opc/opc.hpp>

#include <boost/system/error_code.hpp>

#include <iostream>

int main() {
    // Any back end will do: a LocalFileSystemOps, a VirtualFileSystemOps, or the one a
    // FileSystemOpsSelector picks with getForPath(path).
    opc::LocalFileSystemOps local;
    opc::FileSystemOps& fs = local;
    std::u16string const missing = u"/no/such/folder/report.docx";

    // Throwing form: the message is "<operation> failed: <detail>"; code() is the error code.
    try {
        fs.getSizeInBytes(missing);
        return 1;
    } catch (opc::Exception const& e) {
        std::cout << e.what() << " [" << e.code().message() << "]\n";
    }

    // Error-code form: clears ec first, never throws, returns the failure value (here 0).
    boost::system::error_code ec;
    std::uint64_t const size = fs.getSizeInBytes(missing, ec);
    if (ec.failed())
        std::cout << "size " << size << ": " << ec.message() << '\n';
    return ec == boost::system::errc::no_such_file_or_directory ? 0 : 1;
}
