#pragma once

// The back ends under test, what each supports, and a fixture that gives each test a fresh root on
// its back end; a scheme joins with one line where a suite is instantiated.
#include "support/HostFolder.hpp"
#include "support/ThroughOps.hpp"

#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/S3Settings.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <sstream>

namespace opc::test {

namespace errc = boost::system::errc;
namespace fs = std::filesystem;
namespace vfs = stratum::storage::vfs;
using boost::system::error_code;
using P = std::u16string const&;
using vfs::StorageSystemReference;
constexpr std::size_t MiB = std::size_t(1) << 20;

inline std::string env(char const* name) { return std::getenv(name) ? std::getenv(name) : ""; }

/// The environment's object storage, with 5 MiB parts and part-wise copies above 6 MiB.
inline vfs::S3Settings objectStorage() {
    vfs::S3Settings settings = vfs::S3Settings::fromEnvironment();
    settings.partSize = 5 * MiB;
    settings.copyPartThreshold = 6 * MiB;
    return settings;
}

/// What a back end supports; a switch that is off skips or relaxes the cases that need it.
struct Capabilities {
    bool symlinks = true;             ///< links are made, seen, listed and copied as links
    bool posixPermissions = true;     ///< all nine bits round-trip (else only 0644/0444)
    bool preciseErrors = true;        ///< failures carry the exact POSIX number
    bool folderCopyModes = true;      ///< NoOverwrite copies a folder into an existing one
    bool lenientRemoval = true;       ///< removeAll of a missing path succeeds
    bool unknownValuesIgnored = true; ///< PermsUnknown and not-a-date-time change nothing
    bool visibleBeforeClose = true;   ///< written bytes can be read while the stream is open
    bool explicitFolders = true;      ///< an item needs its parent folder (else any prefix but a file will do)
};

// Storage: no links or pipes, only writable/read-only, coarser errors, no merging folder copy, strict
// removal, and PermsUnknown and not-a-date-time mean nothing special.
Capabilities const storage{false, false, false, false, false, false};
// Object storage also publishes a write only at close, and its folders are the prefixes of its keys.
Capabilities const objects{false, false, false, false, false, false, false, false};

/// The local back end (no scheme), or the virtual one on a host folder ("file"), on object storage ("s3":
/// a fresh folder of the bucket the environment names, skipped without one) or "<scheme>:///conformance".
struct BackEnd {
    std::string name;
    Capabilities caps;
    std::u16string scheme;
};

class BackEndTest : public ::testing::TestWithParam<BackEnd> {
protected:
    void SetUp() override {
        auto const& scheme = GetParam().scheme;
        bool const onHost = scheme.empty() || scheme == u"file";
        m_ops = scheme.empty() ? std::unique_ptr<FileSystemOps>(std::make_unique<LocalFileSystemOps>())
                               : std::make_unique<VirtualFileSystemOps>(m_storage);
        m_root = onHost ? m_ops->normalizePath(m_folder.path16()) : scheme + u":///conformance";
        if (scheme == u"s3") {
            if (env("AWS_ENDPOINT_URL").empty() || env("S3_BUCKET").empty())
                GTEST_SKIP() << "no S3 server: AWS_ENDPOINT_URL and S3_BUCKET are not both set "
                                "(eval \"$(scripts/s3-server.sh start)\" sets them)";
            m_key = "conformance-" + std::to_string(std::random_device{}());
            m_root = toString("s3://" + env("S3_BUCKET") + "/" + m_key, true);
        }
        m_hostRoot = onHost ? m_folder.path().string() : "";
        if (caps().explicitFolders) m_ops->createFolders(m_root); // else the first item makes it
    }
    void TearDown() override { // object storage outlives the test
        error_code ec;
        if (!m_key.empty()) m_ops->removeAll(m_root, ec);
    }
    FileSystemOps& ops() { return *m_ops; }
    Capabilities const& caps() const { return GetParam().caps; }
    /// `relative` ("a/b/c.txt") appended element by element to the root.
    std::u16string at(std::string const& relative) {
        std::u16string path = m_root;
        std::stringstream elements(relative);
        for (std::string element; std::getline(elements, element, '/');)
            path = ops().appendPath(path, toString(element, true));
        return path;
    }
    std::string host(std::string const& relative) const { return m_hostRoot + "/" + relative; }
    void write(P path, std::string const& bytes) { writeThrough(ops(), path, bytes); }
    std::string read(P path) { return readThrough(ops(), path); }
    /// getFiles of `folder` (checked to append), and what it should hold (relative to the root), normalised and sorted.
    std::vector<std::u16string> listing(P folder, bool recursive = true) {
        std::vector<std::u16string> files = {u"kept"};
        ops().getFiles(folder, files, recursive);
        EXPECT_EQ(files.front(), u"kept");
        return normal({files.begin() + 1, files.end()});
    }
    std::vector<std::u16string> expected(std::vector<std::string> const& relatives) {
        std::vector<std::u16string> paths;
        for (auto const& relative : relatives) paths.push_back(at(relative));
        return normal(paths);
    }
    std::vector<std::u16string> normal(std::vector<std::u16string> paths) {
        for (auto& path : paths) path = ops().normalizePath(path);
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    HostFolder m_folder;
    StorageSystemReference m_storage{objectStorage()};
    std::unique_ptr<FileSystemOps> m_ops;
    std::u16string m_root;
    std::string m_hostRoot; ///< the host folder behind the root, or ""
    std::string m_key;      ///< the root's key in the bucket, or ""
};

} // namespace opc::test
