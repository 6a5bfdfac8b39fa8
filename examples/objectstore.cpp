// Packages in object storage: s3://bucket/key IRIs through the same virtual back end, a local
// package committed into a bucket with a kept backup, and read back. Without a configured
// object store (AWS_ENDPOINT_URL and S3_BUCKET unset) it says so and does nothing.
#include <opc/opc.hpp>

#include <stratum/storage/vfs/S3Settings.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include <cstdlib>
#include <iostream>
#include <iterator>
#include <string>

int main() {
    char const* const bucket = std::getenv("S3_BUCKET");
    if (!std::getenv("AWS_ENDPOINT_URL") || !bucket) {
        std::cout << "no object store configured: set AWS_ENDPOINT_URL and S3_BUCKET\n";
        return 0;
    }
    // Settings as every S3 tool reads them (AWS_ENDPOINT_URL, AWS_REGION, AWS_ACCESS_KEY_ID,
    // AWS_SECRET_ACCESS_KEY, AWS_PROFILE and ~/.aws); any field can be set in code instead.
    stratum::storage::vfs::S3Settings settings = stratum::storage::vfs::S3Settings::fromEnvironment();
    settings.partSize = 16 << 20; // larger parts for large packages
    stratum::storage::vfs::StorageSystemReference storage(settings);
    opc::VirtualFileSystemOps s3(storage);

    // Folders are the prefixes of keys: nothing needs making before a file is written below one.
    std::u16string const folder = u"s3://" + opc::detail::toStringFromUTF8String(bucket, true) + u"/reports/2024";
    std::u16string const target = s3.appendPath(folder, u"q3.pkg");
    {
        // An object becomes visible when its stream is closed: here, when the last holder lets go.
        auto out = s3.createOutputStream(target, opc::OpenMode::WriteBinary);
        *out << "the old package";
    }

    // A package made on the local disk, committed over the object with a kept backup: readers
    // of the bucket see the whole old or the whole new package at every moment.
    opc::LocalFileSystemOps local;
    opc::util::TempfileGuard draft(opc::util::getTempDir(), u".draft-", u".pkg");
    *local.createOutputStream(draft.getFileName(), opc::OpenMode::WriteBinary) << "the new package";
    opc::CommitOptions options;
    options.removeBackup(false);
    s3.replaceFileWithBackup(target, local, draft.getFileName(), options);

    auto in = s3.createInputStream(target, opc::OpenMode::ReadBinary);
    std::cout << opc::detail::toUTF8String(target, false) << ": " << std::string(std::istreambuf_iterator<char>(*in), {}) << '\n';
    std::vector<std::u16string> files;
    s3.getFiles(folder, files, false);
    for (std::u16string const& name : files)
        std::cout << "  " << opc::detail::toUTF8String(name, false) << " " << s3.getSizeInBytes(name) << " bytes\n";
    s3.removeAll(s3.getParentPath(folder));
}
