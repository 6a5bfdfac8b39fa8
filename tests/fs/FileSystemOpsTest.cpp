// The calling frame of FileSystemOps, checked for every public member at once over the
// scriptable back end.
#include "support/ScriptedOps.hpp"

#include <opc/Exception.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <sstream>

namespace opc::test {
namespace {

using boost::system::error_code;
namespace errc = boost::system::errc;
using ptime = boost::posix_time::ptime;

// One operation family: its back-end operation, a result the back end can hand back, and
// calls of its throwing form and (where there is one) its error-code form.
struct Family {
    Op op;
    Value sample;
    std::function<Value(FileSystemOps&)> throwing;
    std::function<Value(FileSystemOps&, error_code&)> withCode; // empty for throwing-only families
};

void PrintTo(Family const& f, std::ostream* os) { *os << publicName(f.op); }

std::vector<std::u16string> g_files;
CommitOptions const g_options;

template <class T>
Value wrap(T v) { return Value(std::move(v)); }

std::vector<Family> families() {
    auto const p = u"/a/b";
    auto const q = u"/c/d";
    auto const t = boost::posix_time::time_from_string("2024-03-09 07:05:01");
    auto in = std::make_shared<std::istringstream>("x");
    auto out = std::make_shared<std::ostringstream>();
    std::vector<Family> f = {
        {Op::GetTempName, wrap(std::u16string(u"tmp")), [=](FileSystemOps& o) { return wrap(o.getTempName(p)); }, {}},
        {Op::GetParentPath, wrap(std::u16string(u"/a")), [=](FileSystemOps& o) { return wrap(o.getParentPath(p)); }, {}},
        {Op::GetFilename, wrap(std::u16string(u"b")), [=](FileSystemOps& o) { return wrap(o.getFilename(p)); }, {}},
        {Op::GetExtension, wrap(std::u16string(u".x")), [=](FileSystemOps& o) { return wrap(o.getExtension(p)); }, {}},
        {Op::AppendPath, wrap(std::u16string(u"/a/b/c")), [=](FileSystemOps& o) { return wrap(o.appendPath(p, u"c")); }, {}},
        {Op::NormalizePath, wrap(std::u16string(u"/a/b")), [=](FileSystemOps& o) { return wrap(o.normalizePath(p)); }, {}},
        {Op::Exists, wrap(true), [=](FileSystemOps& o) { return wrap(o.exists(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.exists(p, ec)); }},
        {Op::IsFile, wrap(true), [=](FileSystemOps& o) { return wrap(o.isFile(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.isFile(p, ec)); }},
        {Op::IsFolder, wrap(true), [=](FileSystemOps& o) { return wrap(o.isFolder(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.isFolder(p, ec)); }},
        {Op::IsSymlink, wrap(true), [=](FileSystemOps& o) { return wrap(o.isSymlink(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.isSymlink(p, ec)); }},
        {Op::GetPermissions, wrap(Perms::Perms_tag(0644)), [=](FileSystemOps& o) { return wrap(o.getPermissions(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.getPermissions(p, ec)); }},
        {Op::SetPermissions, {}, [=](FileSystemOps& o) { o.setPermissions(p, Perms::OwnerRead); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.setPermissions(p, Perms::OwnerRead, ec); return Value{}; }},
        {Op::GetLastModifiedTime, wrap(t), [=](FileSystemOps& o) { return wrap(o.getLastModifiedTime(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.getLastModifiedTime(p, ec)); }},
        {Op::SetLastModifiedTime, {}, [=](FileSystemOps& o) { o.setLastModifiedTime(p, t); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.setLastModifiedTime(p, t, ec); return Value{}; }},
        {Op::GetSizeInBytes, wrap(std::uint64_t(1) << 40), [=](FileSystemOps& o) { return wrap(o.getSizeInBytes(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.getSizeInBytes(p, ec)); }},
        {Op::GetLinkTarget, wrap(std::u16string(u"/t")), [=](FileSystemOps& o) { return wrap(o.getLinkTarget(p)); },
         [=](FileSystemOps& o, error_code& ec) { return wrap(o.getLinkTarget(p, ec)); }},
        {Op::GetFiles, {}, [=](FileSystemOps& o) { o.getFiles(p, g_files, true); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.getFiles(p, g_files, true, ec); return Value{}; }},
        {Op::CreateInputStream, Value(std::shared_ptr<std::istream>(in)),
         [=](FileSystemOps& o) { return Value(o.createInputStream(p, OpenMode::ReadBinary)); },
         [=](FileSystemOps& o, error_code& ec) { return Value(o.createInputStream(p, OpenMode::ReadBinary, ec)); }},
        {Op::CreateOutputStream, Value(std::shared_ptr<std::ostream>(out)),
         [=](FileSystemOps& o) { return Value(o.createOutputStream(p, OpenMode::WriteBinary)); },
         [=](FileSystemOps& o, error_code& ec) { return Value(o.createOutputStream(p, OpenMode::WriteBinary, ec)); }},
        {Op::CreateFolder, {}, [=](FileSystemOps& o) { o.createFolder(p); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.createFolder(p, ec); return Value{}; }},
        {Op::CreateFolders, {}, [=](FileSystemOps& o) { o.createFolders(p); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.createFolders(p, ec); return Value{}; }},
        {Op::CreateSymlink, {}, [=](FileSystemOps& o) { o.createSymlink(p, q); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.createSymlink(p, q, ec); return Value{}; }},
        {Op::Copy, {}, [=](FileSystemOps& o) { o.copy(p, q, Overwrite); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.copy(p, q, Overwrite, ec); return Value{}; }},
        {Op::Rename, {}, [=](FileSystemOps& o) { o.rename(p, q); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.rename(p, q, ec); return Value{}; }},
        {Op::Remove, {}, [=](FileSystemOps& o) { o.remove(p); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.remove(p, ec); return Value{}; }},
        {Op::RemoveAll, {}, [=](FileSystemOps& o) { o.removeAll(p); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.removeAll(p, ec); return Value{}; }},
        {Op::ReplaceFileWithBackup, {}, [=](FileSystemOps& o) { o.replaceFileWithBackup(p, o, q, g_options); return Value{}; },
         [=](FileSystemOps& o, error_code& ec) { o.replaceFileWithBackup(p, o, q, g_options, ec); return Value{}; }},
    };
    return f;
}

std::string prefixOf(Op op) { return std::string(publicName(op)) + " failed: "; }

// A category that declares every value but 0 and 1 not to be a failure.
class LenientCategory : public boost::system::error_category {
public:
    char const* name() const noexcept override { return "lenient"; }
    std::string message(int ev) const override { return "lenient " + std::to_string(ev); }
    bool failed(int ev) const noexcept override { return ev == 1; }
};
LenientCategory const g_lenient;

class Frame : public ::testing::TestWithParam<Family> {
protected:
    ScriptedOps ops;
};

TEST_P(Frame, SuccessReturnsTheBackEndResultAndPassesAFreshDetailAndCode) {
    auto const& f = GetParam();
    ops.enqueue(f.op, Reply::ok(f.sample));
    EXPECT_EQ(f.throwing(ops), f.sample);
    ASSERT_EQ(ops.calls().size(), 1u);
    EXPECT_EQ(ops.calls()[0].op, f.op);
    EXPECT_EQ(ops.calls()[0].paths.at(0), u"/a/b");
}

TEST_P(Frame, FailureThrowsPrefixAndDetailWithTheWholeCode) {
    auto const& f = GetParam();
    error_code const code(errc::file_exists, boost::system::generic_category());
    ops.enqueue(f.op, Reply::fail(code, "Destination exists: /c/d", f.sample));
    try {
        f.throwing(ops);
        FAIL() << "no exception from " << publicName(f.op);
    } catch (Exception const& e) {
        EXPECT_EQ(std::string(e.what()), prefixOf(f.op) + "Destination exists: /c/d");
        EXPECT_EQ(e.code(), code);
        EXPECT_EQ(&e.code().category(), &boost::system::generic_category());
    }
}

TEST_P(Frame, EmptyDetailGivesThePrefixAlone) {
    auto const& f = GetParam();
    ops.enqueue(f.op, Reply::fail(errc::io_error));
    try {
        f.throwing(ops);
        FAIL() << "no exception from " << publicName(f.op);
    } catch (Exception const& e) {
        EXPECT_EQ(std::string(e.what()), prefixOf(f.op));
    }
}

TEST_P(Frame, DetailWithoutFailedCodeIsDropped) {
    auto const& f = GetParam();
    ops.enqueue(f.op, Reply::fail(error_code(), "ignored", f.sample));
    EXPECT_EQ(f.throwing(ops), f.sample);
}

TEST_P(Frame, CodeWhoseCategorySaysNoFailureDoesNotThrow) {
    auto const& f = GetParam();
    ops.enqueue(f.op, Reply::fail(error_code(7, g_lenient), "not a failure", f.sample));
    EXPECT_EQ(f.throwing(ops), f.sample);
    ops.enqueue(f.op, Reply::fail(error_code(1, g_lenient), "a failure"));
    EXPECT_THROW(f.throwing(ops), Exception);
}

TEST_P(Frame, CodeFormClearsAStaleErrorOnSuccess) {
    auto const& f = GetParam();
    if (!f.withCode)
        GTEST_SKIP() << "throwing form only";
    error_code ec(errc::io_error, boost::system::generic_category());
    ops.enqueue(f.op, Reply::ok(f.sample));
    EXPECT_EQ(f.withCode(ops, ec), f.sample);
    EXPECT_FALSE(ec.failed());
    EXPECT_EQ(ec, error_code());
}

TEST_P(Frame, CodeFormReturnsTheBackEndValueAndCodeOnFailure) {
    auto const& f = GetParam();
    if (!f.withCode)
        GTEST_SKIP() << "throwing form only";
    error_code ec(errc::io_error, boost::system::generic_category());
    error_code const code(errc::permission_denied, boost::system::generic_category());
    ops.enqueue(f.op, Reply::fail(code, "denied", f.sample));
    EXPECT_EQ(f.withCode(ops, ec), f.sample);
    EXPECT_EQ(ec, code);
}

TEST_P(Frame, CodeFormHandsTheBackEndAClearedCode) {
    auto const& f = GetParam();
    if (!f.withCode)
        GTEST_SKIP() << "throwing form only";
    error_code ec(errc::io_error, boost::system::generic_category());
    // The back end reports success by leaving the code alone: the caller must see it cleared.
    ops.enqueue(f.op, Reply::fail(error_code(), "detail without failure"));
    f.withCode(ops, ec);
    EXPECT_EQ(ec, error_code());
}

using FrameDeathTest = Frame;

TEST_P(FrameDeathTest, ExceptionEscapingTheCodeFormEndsTheProcess) {
    auto const& f = GetParam();
    if (!f.withCode)
        GTEST_SKIP() << "throwing form only";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Reply r;
    r.effect = [](Call const&) { throw std::runtime_error("back end broke its promise"); };
    ops.enqueue(f.op, r);
    error_code ec;
    EXPECT_DEATH(f.withCode(ops, ec), "");
}

std::string familyName(::testing::TestParamInfo<Family> const& info) { return publicName(info.param.op); }

INSTANTIATE_TEST_SUITE_P(AllFamilies, Frame, ::testing::ValuesIn(families()), familyName);
INSTANTIATE_TEST_SUITE_P(AllFamilies, FrameDeathTest, ::testing::ValuesIn(families()), familyName);

TEST(FrameArguments, EveryArgumentReachesTheBackEnd) {
    ScriptedOps ops;
    auto const t = boost::posix_time::time_from_string("2001-02-03 04:05:06");
    std::vector<std::u16string> files;
    ops.setPermissions(u"p", Perms::Perms_tag(0640));
    ops.setLastModifiedTime(u"p", t);
    ops.getFiles(u"f", files, true);
    ops.createInputStream(u"i", 12);
    ops.createOutputStream(u"o", 20);
    ops.copy(u"s", u"d", FailIfExists);
    ops.createSymlink(u"target", u"link");
    auto const& c = ops.calls();
    ASSERT_EQ(c.size(), 7u);
    EXPECT_EQ(c[0].number, 0640u);
    EXPECT_EQ(c[1].time, t);
    EXPECT_EQ(c[2].number, 1u);
    EXPECT_EQ(c[3].number, 12u);
    EXPECT_EQ(c[4].number, 20u);
    EXPECT_EQ(c[5].number, static_cast<std::uint64_t>(FailIfExists));
    EXPECT_EQ(c[5].paths, (std::vector<std::u16string>{u"s", u"d"}));
    EXPECT_EQ(c[6].paths, (std::vector<std::u16string>{u"target", u"link"}));
}

TEST(FrameGetFiles, NeverClearsTheCallersVector) {
    ScriptedOps ops;
    std::vector<std::u16string> files{u"kept"};
    Reply r = Reply::fail(errc::no_such_file_or_directory, "gone");
    r.files = {u"partial"};
    ops.enqueue(Op::GetFiles, r);
    error_code ec;
    ops.getFiles(u"/f", files, false, ec);
    EXPECT_TRUE(ec.failed());
    EXPECT_EQ(files, (std::vector<std::u16string>{u"kept", u"partial"}));
    Reply more = Reply::ok();
    more.files = {u"next"};
    ops.enqueue(Op::GetFiles, more);
    ops.getFiles(u"/f", files, false);
    EXPECT_EQ(files.size(), 3u);
}

TEST(FrameLocalPath, FalseEmptiesTheOutputWhateverTheBackEndLeft) {
    ScriptedOps ops;
    std::u16string out = u"previous text";
    Reply no = Reply::ok(false);
    no.files = {u"left behind"};
    ops.enqueue(Op::GetLocalPath, no);
    EXPECT_FALSE(ops.getLocalPath(u"memory:///x", out));
    EXPECT_TRUE(out.empty());

    Reply yes = Reply::ok(true);
    yes.files = {u"/local/x"};
    ops.enqueue(Op::GetLocalPath, yes);
    EXPECT_TRUE(ops.getLocalPath(u"file:///local/x", out));
    EXPECT_EQ(out, u"/local/x");
}

TEST(FrameIsAbsolute, ReturnsTheBackEndAnswer) {
    ScriptedOps ops;
    ops.enqueue(Op::IsAbsolutePath, Reply::ok(true));
    ops.enqueue(Op::IsAbsolutePath, Reply::ok(false));
    EXPECT_TRUE(ops.isAbsolutePath(u"/x"));
    EXPECT_FALSE(ops.isAbsolutePath(u"x"));
    EXPECT_EQ(ops.count(Op::IsAbsolutePath), 2u);
}

TEST(ExceptionValue, CopyKeepsMessageValueAndCategory) {
    Exception const original("boom", error_code(17, boost::system::generic_category()));
    Exception const copy = original; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_STREQ(copy.what(), "boom");
    EXPECT_EQ(copy.code().value(), 17);
    EXPECT_EQ(&copy.code().category(), &boost::system::generic_category());

    Exception const cleared("message kept", error_code());
    EXPECT_FALSE(cleared.code().failed());
    EXPECT_STREQ(cleared.what(), "message kept");

    Exception const lenient("lenient", error_code(7, g_lenient));
    Exception lenientCopy(lenient);
    EXPECT_EQ(&lenientCopy.code().category(), &g_lenient);
    EXPECT_FALSE(lenientCopy.code().failed());
}

} // namespace
} // namespace opc::test
