#include "commit/CrossCopy.hpp"

#include <opc/Exception.hpp>
#include <opc/Streams.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/Streams.hpp>

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <typeinfo>
#include <vector>

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

// A binary input stream of the source and a binary output stream of the destination.
struct Streams {
    Streams(FileSystemOps& fromOps, const std::u16string& from, FileSystemOps& toOps, const std::u16string& to)
        : in(fromOps.createInputStream(from, OpenMode::ReadBinary)) {
        if (!in)
            noStream("createInputStream");
        out = toOps.createOutputStream(to, OpenMode::WriteBinary);
        if (!out)
            noStream("createOutputStream");
    }

    // A storage stream that publishes only when closed (an object store's upload) reports a
    // failed publication from an explicit close alone: its release would drop the failure.
    // Any other destination closes (and flushes) when its last holder lets go.
    void release() {
        if (auto* storage = dynamic_cast<stratum::storage::vfs::ofstream*>(out.get()))
            storage->close();
        out.reset();
        in.reset();
    }

    std::shared_ptr<std::istream> in;
    std::shared_ptr<std::ostream> out;
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

std::unique_ptr<FileSystemOps> rememberingTarget(const FileSystemOps& target) {
    if (typeid(target) != typeid(VirtualFileSystemOps))
        return nullptr;
    return std::make_unique<VirtualFileSystemOps>(
        static_cast<const VirtualFileSystemOps&>(target).getStorageSystem().remembering());
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
    Streams streams(fromOps, from, toOps, to);
    StreamHelper::copyStreamToStream(*streams.in, *streams.out);
    streams.release();
}

void copyCounting(FileSystemOps& fromOps, const std::u16string& from, FileSystemOps& toOps,
                  const std::u16string& to, const CommitOptions::ProgressFcn& progress) {
    boost::system::error_code unknown;
    std::uint64_t const total = fromOps.getSizeInBytes(from, unknown);
    Streams streams(fromOps, from, toOps, to);
    std::istream& in = *streams.in;
    std::ostream& out = *streams.out;
    auto report = [&](std::uint64_t done, std::uint64_t whole) {
        if (!progress(done, whole))
            throw Exception("cancelled by the progress function after " + std::to_string(done) + " of " +
                                std::to_string(whole) + " bytes",
                            CommitOptions::canceled());
    };
    std::vector<char> chunk(std::size_t(1) << 20);
    std::uint64_t done = 0;
    while (in.read(chunk.data(), std::streamsize(chunk.size())), in.gcount() > 0) {
        if (!out.write(chunk.data(), in.gcount()))
            throw Exception("writing " + toUTF8String(to, false) + " failed",
                            boost::system::errc::make_error_code(boost::system::errc::io_error));
        done += std::uint64_t(in.gcount());
        if (done != total)
            report(done, total);
    }
    if (in.bad())
        throw Exception("reading " + toUTF8String(from, false) + " failed",
                        boost::system::errc::make_error_code(boost::system::errc::io_error));
    report(done, done);
    streams.release();
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
