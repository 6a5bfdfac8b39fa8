// What only the virtual back end does, on both storage schemes: permissions reduced to
// writable or read-only, listings of generated trees, failure values and codes of every
// operation, failed streams, storage failures injected in flight, and copies across schemes.
#include "support/FaultyProvider.hpp"
#include "support/HostFolder.hpp"

#include <opc/Exception.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <random>
#include <set>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;

error_code generic(errc::errc_t e) { return error_code(e, boost::system::generic_category()); }

// Opens the protected operations, to see the detail text the frame drops.
class ExposedOps : public VirtualFileSystemOps {
public:
    using VirtualFileSystemOps::VirtualFileSystemOps;
    using VirtualFileSystemOps::doCreateInputStream;
    using VirtualFileSystemOps::doCreateOutputStream;
    using VirtualFileSystemOps::doExists;
    using VirtualFileSystemOps::doGetPermissions;
};

// One test folder, on `file:` (a host folder) or on `memory:`.
class VirtualStorage : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (onFile()) {
            m_root = ops.normalizePath(m_host.path16());
        } else {
            m_root = u"memory:///work";
            ops.createFolders(m_root);
        }
    }
    bool onFile() const { return GetParam(); }
    std::u16string at(std::u16string const& relative) { return ops.appendPath(m_root, relative); }
    void write(std::u16string const& path, std::string const& bytes) {
        auto out = ops.createOutputStream(path, OpenMode::WriteBinary);
        ASSERT_TRUE(out);
        *out << bytes;
    }
    std::string hostPath(std::u16string const& iri) {
        std::u16string local;
        EXPECT_TRUE(ops.getLocalPath(iri, local));
        return std::string(local.begin(), local.end()); // ASCII names only in these tests
    }

    HostFolder m_host;
    vfs::StorageSystemReference storage;
    ExposedOps ops{storage};
    std::u16string m_root;
};

TEST_P(VirtualStorage, AnyWriteBitMakesWritableAndNothingElseCounts) {
    auto const file = at(u"p");
    write(file, "data");
    ops.createFolder(at(u"d"));
    std::mt19937 rng(11);
    for (std::uint32_t bits = 0; bits <= 0777; ++bits) {
        // Bits above the nine permission bits are ignored as well.
        auto const perms = Perms::Perms_tag(bits | ((rng() % 16) << 12));
        bool const writable = (bits & 0222) != 0;
        for (auto const& item : {file, at(u"d")}) {
            ops.setPermissions(item, perms);
            ASSERT_EQ(ops.getPermissions(item), writable ? 0644u : 0444u) << std::oct << bits;
        }
        if (onFile()) {
            struct stat st {};
            ASSERT_EQ(::stat(hostPath(file).c_str(), &st), 0);
            ASSERT_EQ((st.st_mode & S_IWUSR) != 0, writable) << std::oct << bits;
        }
    }
    error_code ec;
    EXPECT_EQ(ops.getPermissions(at(u"missing"), ec), Perms::PermsUnknown);
    EXPECT_EQ(ec, generic(errc::no_such_file_or_directory));
}

TEST_P(VirtualStorage, ModificationTimeAgreesWithTheHost) {
    if (!onFile())
        GTEST_SKIP() << "the host sees only file: items";
    auto const file = at(u"t");
    write(file, "x");
    auto const when = boost::posix_time::time_from_string("2021-06-30 23:59:58.250000");
    ops.setLastModifiedTime(file, when);
    struct stat st {};
    ASSERT_EQ(::stat(hostPath(file).c_str(), &st), 0);
    boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
    EXPECT_EQ(epoch + boost::posix_time::seconds(st.st_mtim.tv_sec) +
                  boost::posix_time::microseconds(st.st_mtim.tv_nsec / 1000),
              when);
    EXPECT_EQ(ops.getLastModifiedTime(file), when);
}

TEST_P(VirtualStorage, ListingsOfGeneratedTreesMatchWhatWasMade) {
    std::mt19937 rng(GetParam() ? 3 : 4);
    for (int round = 0; round < 5; ++round) {
        auto const top = at(u"tree" + std::u16string(1, char16_t(u'0' + round)));
        ops.createFolder(top);
        std::vector<std::u16string> folders = {top};
        std::set<std::u16string> direct, all;
        for (int i = 0; i < 40; ++i) {
            auto const parent = folders[rng() % folders.size()];
            std::u16string name = u"n";
            name += char16_t(u'a' + rng() % 26);
            name += std::u16string(1, char16_t(u'0' + i % 10)) + char16_t(u'A' + i / 10) + u" x";
            auto const path = ops.appendPath(parent, name);
            if (rng() % 3 == 0) {
                ops.createFolder(path);
                folders.push_back(path);
            } else {
                write(path, std::string(rng() % 100, 'z'));
                all.insert(path);
                if (parent == top)
                    direct.insert(path);
            }
        }
        for (bool recursive : {false, true}) {
            std::vector<std::u16string> files = {u"kept"};
            ops.getFiles(top, files, recursive);
            ASSERT_FALSE(files.empty());
            EXPECT_EQ(files.front(), u"kept");
            std::multiset<std::u16string> const got(files.begin() + 1, files.end());
            auto const& want = recursive ? all : direct;
            EXPECT_EQ(got, std::multiset<std::u16string>(want.begin(), want.end())) << "recursive " << recursive;
        }
    }
    ops.createFolders(at(u"only/folders/here"));
    std::vector<std::u16string> none;
    ops.getFiles(at(u"only"), none, true);
    EXPECT_TRUE(none.empty());

    write(at(u"plain"), "x");
    for (auto const& notAFolder : {at(u"plain"), at(u"missing")}) {
        error_code ec;
        ops.getFiles(notAFolder, none, false, ec);
        EXPECT_EQ(ec, generic(errc::no_such_file_or_directory));
    }
}

TEST_P(VirtualStorage, InvalidIRIsFailEveryOperationWithItsFailureValue) {
    using Probe = std::function<bool(FileSystemOps&, std::u16string const&, error_code&)>;
    std::vector<std::pair<char const*, Probe>> const probes = {
        {"exists", [](auto& o, auto const& p, auto& ec) { return !o.exists(p, ec); }},
        {"isFile", [](auto& o, auto const& p, auto& ec) { return !o.isFile(p, ec); }},
        {"isFolder", [](auto& o, auto const& p, auto& ec) { return !o.isFolder(p, ec); }},
        {"getPermissions",
         [](auto& o, auto const& p, auto& ec) { return o.getPermissions(p, ec) == Perms::PermsUnknown; }},
        {"setPermissions", [](auto& o, auto const& p, auto& ec) { return o.setPermissions(p, Perms::AllPerms, ec), true; }},
        {"getLastModifiedTime",
         [](auto& o, auto const& p, auto& ec) { return o.getLastModifiedTime(p, ec).is_not_a_date_time(); }},
        {"setLastModifiedTime",
         [](auto& o, auto const& p, auto& ec) {
             return o.setLastModifiedTime(p, boost::posix_time::second_clock::universal_time(), ec), true;
         }},
        {"getSizeInBytes", [](auto& o, auto const& p, auto& ec) { return o.getSizeInBytes(p, ec) == 0; }},
        {"getFiles",
         [](auto& o, auto const& p, auto& ec) {
             std::vector<std::u16string> f;
             o.getFiles(p, f, true, ec);
             return f.empty();
         }},
        {"createInputStream", [](auto& o, auto const& p, auto& ec) { return !o.createInputStream(p, 12, ec); }},
        {"createOutputStream", [](auto& o, auto const& p, auto& ec) { return !o.createOutputStream(p, 20, ec); }},
        {"createFolder", [](auto& o, auto const& p, auto& ec) { return o.createFolder(p, ec), true; }},
        {"createFolders", [](auto& o, auto const& p, auto& ec) { return o.createFolders(p, ec), true; }},
        {"copy from", [this](auto& o, auto const& p, auto& ec) { return o.copy(p, at(u"c"), Overwrite, ec), true; }},
        {"copy to", [this](auto& o, auto const& p, auto& ec) { return o.copy(at(u"f"), p, Overwrite, ec), true; }},
        {"rename from", [this](auto& o, auto const& p, auto& ec) { return o.rename(p, at(u"r"), ec), true; }},
        {"rename to", [this](auto& o, auto const& p, auto& ec) { return o.rename(at(u"f"), p, ec), true; }},
        {"remove", [](auto& o, auto const& p, auto& ec) { return o.remove(p, ec), true; }},
        {"removeAll", [](auto& o, auto const& p, auto& ec) { return o.removeAll(p, ec), true; }},
        {"getParentPath", [](auto& o, auto const& p, auto& ec) {
             try {
                 o.getParentPath(p);
             } catch (Exception const& e) {
                 ec = e.code();
             }
             return true;
         }},
    };
    write(at(u"f"), "source");
    struct Bad {
        std::u16string text;
        errc::errc_t code;
    } const bad[] = {
        {u"relative/path", errc::bad_address},
        {u"memory:no-slashes", errc::bad_address},
        {u"memory:///bad%escape", errc::bad_address},
        {u"gopher:///a/b", errc::address_family_not_supported},
    };
    for (auto const& [name, probe] : probes) {
        for (auto const& b : bad) {
            SCOPED_TRACE(std::string(name) + " " + std::string(b.text.begin(), b.text.end()));
            error_code ec(errc::interrupted, boost::system::generic_category());
            EXPECT_TRUE(probe(ops, b.text, ec)) << "not the failure value";
            EXPECT_EQ(ec, generic(b.code));
        }
    }
    EXPECT_EQ(ops.getParentPath(at(u"f")), m_root) << "the source must be untouched";
    EXPECT_TRUE(ops.isFile(at(u"f")));
}

TEST_P(VirtualStorage, ThrowingFormsNameTheOperationTheStorageTextAndTheIRI) {
    try {
        ops.getSizeInBytes(at(u"missing"));
        FAIL();
    } catch (Exception const& e) {
        EXPECT_EQ(e.code(), generic(errc::no_such_file_or_directory));
        std::string const what = e.what();
        EXPECT_EQ(what.rfind("getSizeInBytes failed: ", 0), 0u) << what;
        auto const iri = at(u"missing");
        std::string const tail = ": " + std::string(iri.begin(), iri.end());
        EXPECT_EQ(what.substr(what.size() - tail.size()), tail) << what;
    }
    try {
        ops.exists(u"relative");
        FAIL();
    } catch (Exception const& e) {
        EXPECT_STREQ(e.what(), "exists failed: Invalid IRI: relative");
    }
}

TEST_P(VirtualStorage, AStreamThatOpensFailedGivesIoErrorAndKeepsTheDetail) {
    std::string detail = "earlier text";
    error_code ec;
    EXPECT_FALSE(ops.doCreateInputStream(at(u"missing"), OpenMode::ReadBinary, detail, ec));
    EXPECT_EQ(ec, generic(errc::io_error));
    EXPECT_EQ(detail, "earlier text");

    // Keeping the content needs an existing file: "in|out" on a missing one opens failed too.
    ec.clear();
    EXPECT_FALSE(ops.doCreateOutputStream(at(u"missing"), OpenMode::In | OpenMode::Out, detail, ec));
    EXPECT_EQ(ec, generic(errc::io_error));
    EXPECT_EQ(detail, "earlier text");
    EXPECT_FALSE(ops.exists(at(u"missing")));
}

TEST_P(VirtualStorage, ModesGoToTheStorageAsGiven) {
    auto const file = at(u"m");
    write(file, "0123456789");
    {
        // In|Out without Truncate overwrites in place: the tail survives.
        auto out = ops.createOutputStream(file, OpenMode::In | OpenMode::Out | OpenMode::Binary);
        ASSERT_TRUE(out);
        *out << "ab";
    }
    auto in = ops.createInputStream(file, OpenMode::ReadBinary | OpenMode::AtEnd);
    ASSERT_TRUE(in);
    EXPECT_EQ(in->tellg(), std::streampos(10)) << "at end starts at the end";
    in->seekg(0);
    std::string content(std::istreambuf_iterator<char>(*in), {});
    EXPECT_EQ(content, "ab23456789");

    ops.setPermissions(file, Perms::Perms_tag(0444));
    error_code ec;
    EXPECT_FALSE(ops.createOutputStream(file, OpenMode::WriteBinary, ec));
    EXPECT_EQ(ec, generic(errc::permission_denied));
    ops.setPermissions(file, Perms::Perms_tag(0644));
}

TEST_P(VirtualStorage, AStreamOutlivesTheBackEnd) {
    auto const file = at(u"s");
    std::shared_ptr<std::ostream> out;
    {
        VirtualFileSystemOps shortLived(storage);
        out = shortLived.createOutputStream(file, OpenMode::WriteBinary);
    }
    ASSERT_TRUE(out);
    *out << "late";
    out.reset();
    auto in = ops.createInputStream(file, OpenMode::ReadBinary);
    ASSERT_TRUE(in);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), "late");
}

INSTANTIATE_TEST_SUITE_P(Schemes, VirtualStorage, ::testing::Values(false, true),
                         [](auto const& info) { return info.param ? "file" : "memory"; });

// ---- Failures injected into the memory provider ----

class InjectedFaults : public ::testing::Test {
protected:
    void SetUp() override {
        faulty = std::make_shared<FaultyProvider>(storage.getProvider(u"memory"));
        storage.setProvider(u"memory", faulty);
        ops.createFolders(u"memory:///f");
        auto out = ops.createOutputStream(u"memory:///f/file", OpenMode::WriteBinary);
        ASSERT_TRUE(out);
        *out << "x";
    }

    vfs::StorageSystemReference storage;
    std::shared_ptr<FaultyProvider> faulty;
    ExposedOps ops{storage};
};

TEST_F(InjectedFaults, EveryStorageCodeReachesTheCallerThroughAnOperation) {
    vfs::AbsoluteIRI const where(u"memory:///f/file");
    for (int code = 0; code <= 14; ++code) {
        SCOPED_TRACE(code);
        faulty->failNext(std::make_exception_ptr(vfs::Exception(static_cast<vfs::ErrorCode>(code), where)));
        error_code ec;
        EXPECT_EQ(ops.getPermissions(u"memory:///f/file", ec), Perms::PermsUnknown);
        // Twelve and above: the detail is written but the cleared code stays cleared, so the
        // operation counts as successful with its failure value.
        EXPECT_EQ(ec.failed(), code < 12);
        if (code >= 12) {
            faulty->failNext(std::make_exception_ptr(vfs::Exception(static_cast<vfs::ErrorCode>(code), where)));
            std::string detail;
            error_code cleared;
            EXPECT_EQ(ops.doGetPermissions(u"memory:///f/file", detail, cleared), Perms::PermsUnknown);
            EXPECT_FALSE(cleared.failed());
            EXPECT_NE(detail.find("memory:///f/file"), std::string::npos) << detail;

            faulty->failNext(std::make_exception_ptr(vfs::Exception(static_cast<vfs::ErrorCode>(code), where)));
            EXPECT_FALSE(ops.exists(u"memory:///f/file")) << "throwing form must not throw";
        }
    }
    EXPECT_EQ(ops.getPermissions(u"memory:///f/file"), 0644u) << "the fault was not one-shot";
}

TEST_F(InjectedFaults, ForeignExceptionsBecomeIoError) {
    faulty->failNext(std::make_exception_ptr(std::runtime_error("cable cut")));
    try {
        ops.getLastModifiedTime(u"memory:///f/file");
        FAIL();
    } catch (Exception const& e) {
        EXPECT_STREQ(e.what(), "getLastModifiedTime failed: cable cut");
        EXPECT_EQ(e.code(), generic(errc::io_error));
    }
    faulty->failNext(std::make_exception_ptr(42));
    std::string detail;
    error_code ec;
    EXPECT_FALSE(ops.doExists(u"memory:///f/file", detail, ec));
    EXPECT_EQ(detail, "Unknown error");
    EXPECT_EQ(ec, generic(errc::io_error));
}

TEST_F(InjectedFaults, AFailedListingKeepsWhatWasAppended) {
    std::vector<std::u16string> files = {u"mine"};
    faulty->failNext(std::make_exception_ptr(vfs::Exception(vfs::ErrorCode::TryAgain, vfs::AbsoluteIRI(u"memory:///f"))));
    error_code ec;
    ops.getFiles(u"memory:///f", files, true, ec);
    EXPECT_EQ(ec, generic(errc::resource_unavailable_try_again));
    ASSERT_FALSE(files.empty());
    EXPECT_EQ(files.front(), u"mine");
}

// ---- One back end, two schemes ----

TEST(VirtualAcrossSchemes, CopyAndRenameBetweenMemoryAndTheDisk) {
    HostFolder host;
    vfs::StorageSystemReference storage;
    VirtualFileSystemOps ops(storage);
    auto const disk = ops.normalizePath(host.path16());

    ops.createFolders(u"memory:///src/inner");
    for (auto const& [name, bytes] : {std::pair<std::u16string, std::string>{u"memory:///src/a", "alpha"},
                                      {u"memory:///src/inner/b", std::string(70000, 'b')}}) {
        auto out = ops.createOutputStream(name, OpenMode::WriteBinary);
        ASSERT_TRUE(out);
        *out << bytes;
    }
    ops.copy(u"memory:///src", ops.appendPath(disk, u"tree"), NoOverwrite);
    std::ifstream b(host.path() / "tree" / "inner" / "b", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(b), {}), std::string(70000, 'b'));

    ops.rename(ops.appendPath(disk, u"tree/a"), u"memory:///moved");
    EXPECT_FALSE(std::filesystem::exists(host.path() / "tree" / "a"));
    auto in = ops.createInputStream(u"memory:///moved", OpenMode::ReadBinary);
    ASSERT_TRUE(in);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), "alpha");
}

} // namespace
} // namespace opc::test
