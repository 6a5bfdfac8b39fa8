// Derives a back end from the installed headers, calls every public operation through it and
// checks the error contract, so that a header, symbol or link flag missing from the install
// fails the build or this run.
#include <opc/opc.hpp>

#include <boost/system/error_code.hpp>

#include <cstdio>
#include <sstream>

namespace {

using boost::system::error_code;
using ec_t = boost::system::error_code;
using S = std::u16string const&;
using D = std::string&;

// Every operation fails with "no such file" and says which path it was given.
class Missing final : public opc::FileSystemOps {
    template <class R>
    R fail(S p, D d, ec_t& ec) {
        ec = boost::system::errc::make_error_code(boost::system::errc::no_such_file_or_directory);
        d = "missing " + std::string(p.begin(), p.end());
        return R{};
    }

protected:
    std::u16string doGetTempName(S p, D d, ec_t& ec) override { return fail<std::u16string>(p, d, ec); }
    std::u16string doGetParentPath(S p, D d, ec_t& ec) override { return fail<std::u16string>(p, d, ec); }
    std::u16string doGetFilename(S p, D d, ec_t& ec) override { return fail<std::u16string>(p, d, ec); }
    std::u16string doGetExtension(S p, D d, ec_t& ec) override { return fail<std::u16string>(p, d, ec); }
    std::u16string doAppendPath(S p, S, D d, ec_t& ec) override { return fail<std::u16string>(p, d, ec); }
    std::u16string doNormalizePath(S p, D d, ec_t& ec) override { return fail<std::u16string>(p, d, ec); }
    bool doGetLocalPath(S, std::u16string& out) override {
        out = u"junk";
        return false;
    }
    bool doIsAbsolutePath(S p) override { return !p.empty() && p[0] == u'/'; }
    bool doExists(S p, D d, ec_t& ec) override { return fail<bool>(p, d, ec); }
    bool doIsFile(S p, D d, ec_t& ec) override { return fail<bool>(p, d, ec); }
    bool doIsFolder(S p, D d, ec_t& ec) override { return fail<bool>(p, d, ec); }
    bool doIsSymlink(S p, D d, ec_t& ec) override { return fail<bool>(p, d, ec); }
    opc::Perms::Perms_tag doGetPermissions(S p, D d, ec_t& ec) override {
        fail<int>(p, d, ec);
        return opc::Perms::PermsUnknown;
    }
    void doSetPermissions(S p, opc::Perms::Perms_tag, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    ptime doGetLastModifiedTime(S p, D d, ec_t& ec) override { return fail<ptime>(p, d, ec); }
    void doSetLastModifiedTime(S p, ptime, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    std::uint64_t doGetSizeInBytes(S p, D d, ec_t& ec) override { return fail<std::uint64_t>(p, d, ec); }
    std::u16string doGetLinkTarget(S p, D d, ec_t& ec) override { return fail<std::u16string>(p, d, ec); }
    void doGetFiles(S p, std::vector<std::u16string>&, bool, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    std::shared_ptr<std::istream> doCreateInputStream(S p, unsigned, D d, ec_t& ec) override {
        return fail<std::shared_ptr<std::istream>>(p, d, ec);
    }
    std::shared_ptr<std::ostream> doCreateOutputStream(S p, unsigned, D d, ec_t& ec) override {
        return fail<std::shared_ptr<std::ostream>>(p, d, ec);
    }
    void doCreateFolder(S p, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    void doCreateFolders(S p, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    void doCreateSymlink(S p, S, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    void doCopy(S p, S, opc::ExistsMode, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    void doRename(S p, S, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    void doRemove(S p, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    void doRemoveAll(S p, D d, ec_t& ec) override { fail<int>(p, d, ec); }
    void doReplaceFileWithBackup(S p, opc::FileSystemOps&, S, const opc::CommitOptions&, D d, ec_t& ec) override {
        fail<int>(p, d, ec);
    }
};

int failures = 0;

void expect(bool ok, char const* what) {
    if (!ok) {
        std::fprintf(stderr, "FAILED: %s\n", what);
        ++failures;
    }
}

template <class F>
void expectThrow(F f, char const* name) {
    try {
        f();
        expect(false, name);
    } catch (opc::Exception const& e) {
        std::string const want = std::string(name) + " failed: missing /p";
        expect(e.what() == want && e.code() == boost::system::errc::no_such_file_or_directory, name);
    }
}

template <class F>
void expectCode(F f, char const* name) {
    error_code ec;
    f(ec);
    expect(ec == boost::system::errc::no_such_file_or_directory, name);
}

} // namespace

int main() {
    Missing ops;
    opc::FileSystemOps& o = ops;
    S p = u"/p";
    std::vector<std::u16string> files;
    opc::CommitOptions options;
    auto const t = boost::posix_time::ptime(boost::gregorian::date(2024, 1, 2));

    expectThrow([&] { o.getTempName(p); }, "getTempName");
    expectThrow([&] { o.getParentPath(p); }, "getParentPath");
    expectThrow([&] { o.getFilename(p); }, "getFilename");
    expectThrow([&] { o.getExtension(p); }, "getExtension");
    expectThrow([&] { o.appendPath(p, u"c"); }, "appendPath");
    expectThrow([&] { o.normalizePath(p); }, "normalizePath");
    expectThrow([&] { o.exists(p); }, "exists");
    expectThrow([&] { o.isFile(p); }, "isFile");
    expectThrow([&] { o.isFolder(p); }, "isFolder");
    expectThrow([&] { o.isSymlink(p); }, "isSymlink");
    expectThrow([&] { o.getPermissions(p); }, "getPermissions");
    expectThrow([&] { o.setPermissions(p, opc::Perms::OwnerRead); }, "setPermissions");
    expectThrow([&] { o.getLastModifiedTime(p); }, "getLastModifiedTime");
    expectThrow([&] { o.setLastModifiedTime(p, t); }, "setLastModifiedTime");
    expectThrow([&] { o.getSizeInBytes(p); }, "getSizeInBytes");
    expectThrow([&] { o.getLinkTarget(p); }, "getLinkTarget");
    expectThrow([&] { o.getFiles(p, files, true); }, "getFiles");
    expectThrow([&] { o.createInputStream(p, opc::OpenMode::ReadBinary); }, "createInputStream");
    expectThrow([&] { o.createOutputStream(p, opc::OpenMode::WriteBinary); }, "createOutputStream");
    expectThrow([&] { o.createFolder(p); }, "createFolder");
    expectThrow([&] { o.createFolders(p); }, "createFolders");
    expectThrow([&] { o.createSymlink(p, u"/l"); }, "createSymlink");
    expectThrow([&] { o.copy(p, u"/q", opc::FailIfExists); }, "copy");
    expectThrow([&] { o.rename(p, u"/q"); }, "rename");
    expectThrow([&] { o.remove(p); }, "remove");
    expectThrow([&] { o.removeAll(p); }, "removeAll");
    expectThrow([&] { o.replaceFileWithBackup(p, o, u"/s", options); }, "replaceFileWithBackup");

    expectCode([&](error_code& ec) { o.exists(p, ec); }, "exists/ec");
    expectCode([&](error_code& ec) { o.isFile(p, ec); }, "isFile/ec");
    expectCode([&](error_code& ec) { o.isFolder(p, ec); }, "isFolder/ec");
    expectCode([&](error_code& ec) { o.isSymlink(p, ec); }, "isSymlink/ec");
    expectCode([&](error_code& ec) { expect(o.getPermissions(p, ec) == opc::Perms::PermsUnknown, "perms"); },
               "getPermissions/ec");
    expectCode([&](error_code& ec) { o.setPermissions(p, opc::Perms::AllPerms, ec); }, "setPermissions/ec");
    expectCode([&](error_code& ec) { o.getLastModifiedTime(p, ec); }, "getLastModifiedTime/ec");
    expectCode([&](error_code& ec) { o.setLastModifiedTime(p, t, ec); }, "setLastModifiedTime/ec");
    expectCode([&](error_code& ec) { o.getSizeInBytes(p, ec); }, "getSizeInBytes/ec");
    expectCode([&](error_code& ec) { o.getLinkTarget(p, ec); }, "getLinkTarget/ec");
    expectCode([&](error_code& ec) { o.getFiles(p, files, false, ec); }, "getFiles/ec");
    expectCode([&](error_code& ec) { expect(!o.createInputStream(p, opc::OpenMode::In, ec), "in"); },
               "createInputStream/ec");
    expectCode([&](error_code& ec) { expect(!o.createOutputStream(p, opc::OpenMode::Out, ec), "out"); },
               "createOutputStream/ec");
    expectCode([&](error_code& ec) { o.createFolder(p, ec); }, "createFolder/ec");
    expectCode([&](error_code& ec) { o.createFolders(p, ec); }, "createFolders/ec");
    expectCode([&](error_code& ec) { o.createSymlink(p, u"/l", ec); }, "createSymlink/ec");
    expectCode([&](error_code& ec) { o.copy(p, u"/q", opc::Overwrite, ec); }, "copy/ec");
    expectCode([&](error_code& ec) { o.rename(p, u"/q", ec); }, "rename/ec");
    expectCode([&](error_code& ec) { o.remove(p, ec); }, "remove/ec");
    expectCode([&](error_code& ec) { o.removeAll(p, ec); }, "removeAll/ec");
    expectCode([&](error_code& ec) { o.replaceFileWithBackup(p, o, u"/s", options, ec); },
               "replaceFileWithBackup/ec");

    // Written before version tags existed: both new operations and a conditional commit refuse.
    auto const unsupported = boost::system::errc::make_error_code(boost::system::errc::operation_not_supported);
    error_code tagCode, renameCode;
    expect(o.getVersionTag(p, tagCode).empty() && tagCode == unsupported, "getVersionTag/ec");
    o.renameIfVersion(p, u"/q", "", renameCode);
    expect(renameCode == unsupported, "renameIfVersion/ec");
    opc::CommitOptions conditional;
    conditional.expectedVersion(std::string());
    try {
        opc::replaceFileWithBackup(o, p, o, u"/s", conditional);
        expect(false, "a conditional commit");
    } catch (opc::Exception const& e) {
        expect(e.code() == unsupported, "a conditional commit is not supported");
    }

    std::u16string local = u"stale";
    expect(!o.getLocalPath(p, local) && local.empty(), "getLocalPath empties its output");
    expect(o.isAbsolutePath(p) && !o.isAbsolutePath(u"rel"), "isAbsolutePath");

    options.backupExtension(u".old");
    expect(options.backupExtension() == u".old" && options.removeBackup(), "CommitOptions accessors");

    if (failures == 0)
        std::puts("consumer: every operation behaved");
    return failures == 0 ? 0 : 1;
}
