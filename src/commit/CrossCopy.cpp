#include "commit/CrossCopy.hpp"

#include <opc/Exception.hpp>
#include <opc/Streams.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/Streams.hpp>

#include <boost/system/error_code.hpp>

#include <istream>
#include <memory>
#include <ostream>
#include <typeinfo>

namespace opc::detail {

namespace {

// A back end that reports success but hands out no stream breaks its contract; say so instead
// of dereferencing nothing.
[[noreturn]] void noStream(char const* operation) {
    throw Exception(std::string(operation) + " returned no stream",
                    boost::system::errc::make_error_code(boost::system::errc::io_error));
}

// The source's own storage seen through a type of its own: no longer the target's type.
class OtherStorageOps final : public VirtualFileSystemOps {
public:
    using VirtualFileSystemOps::VirtualFileSystemOps;
};

} // namespace

std::unique_ptr<FileSystemOps> sourceFromOtherStorage(const FileSystemOps& target, const FileSystemOps& source) {
    auto const* to = dynamic_cast<const VirtualFileSystemOps*>(&target);
    auto const* from = dynamic_cast<const VirtualFileSystemOps*>(&source);
    if (to == nullptr || from == nullptr || !sameBackEndType(*to, *from) ||
        to->getStorageSystem() == from->getStorageSystem())
        return nullptr;
    return std::make_unique<OtherStorageOps>(from->getStorageSystem());
}

bool sameBackEndType(const FileSystemOps& a, const FileSystemOps& b) {
    return typeid(a).hash_code() == typeid(b).hash_code();
}

void copyAcross(FileSystemOps& fromOps, const std::u16string& from, FileSystemOps& toOps,
                const std::u16string& to) {
    if (sameBackEndType(fromOps, toOps)) {
        toOps.copy(from, to, Overwrite);
        return;
    }
    std::shared_ptr<std::istream> in = fromOps.createInputStream(from, OpenMode::ReadBinary);
    if (!in)
        noStream("createInputStream");
    std::shared_ptr<std::ostream> out = toOps.createOutputStream(to, OpenMode::WriteBinary);
    if (!out)
        noStream("createOutputStream");
    StreamHelper::copyStreamToStream(*in, *out);
    // A storage stream that publishes only when closed (an object store's upload) reports a
    // failed publication from an explicit close alone: its release would drop the failure.
    if (auto* storage = dynamic_cast<stratum::storage::vfs::ofstream*>(out.get()))
        storage->close();
    // The destination closes (and flushes) when its last holder lets go.
    out.reset();
    in.reset();
}

void moveAcross(FileSystemOps& fromOps, const std::u16string& from, FileSystemOps& toOps,
                const std::u16string& to) {
    if (sameBackEndType(fromOps, toOps)) {
        toOps.rename(from, to);
        return;
    }
    copyAcross(fromOps, from, toOps, to);
    fromOps.remove(from);
}

} // namespace opc::detail
