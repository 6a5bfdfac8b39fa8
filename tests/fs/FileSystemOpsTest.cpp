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

// One operation family: its back-end operation, a result the back end can hand back, and a
// call that takes the error code when given one (empty `hasCode`: throwing form only).
struct Family {
    Op op;
    Value sample;
    std::function<Value(FileSystemOps&, error_code*)> call;
    bool hasCode = true;
};

void PrintTo(Family const& f, std::ostream* os) { *os << publicName(f.op); }

std::vector<std::u16string> g_files;
CommitOptions const g_options;
std::u16string const p = u"/a/b", q = u"/c/d";

// Both forms from one generic body: `f(o, ec...)` with or without the code.
template <class F>
std::function<Value(FileSystemOps&, error_code*)> both(F f) {
    return [f](FileSystemOps& o, error_code* ec) { return ec ? f(o, *ec) : f(o); };
}
#define RETURNS(expr) both([](FileSystemOps& o, auto&... ec) { return Value(expr); })
#define NOVALUE(expr) both([](FileSystemOps& o, auto&... ec) { expr; return Value{}; })
#define TEXT(expr) [](FileSystemOps& o, error_code*) { return Value(expr); }

std::vector<Family> families() {
    auto const t = boost::posix_time::time_from_string("2024-03-09 07:05:01");
    std::shared_ptr<std::istream> in = std::make_shared<std::istringstream>("x");
    std::shared_ptr<std::ostream> out = std::make_shared<std::ostringstream>();
    return {
        {Op::GetTempName, std::u16string(u"tmp"), TEXT(o.getTempName(p)), false},
        {Op::GetParentPath, std::u16string(u"/a"), TEXT(o.getParentPath(p)), false},
        {Op::GetFilename, std::u16string(u"b"), TEXT(o.getFilename(p)), false},
        {Op::GetExtension, std::u16string(u".x"), TEXT(o.getExtension(p)), false},
        {Op::AppendPath, std::u16string(u"/a/b/c"), TEXT(o.appendPath(p, u"c")), false},
        {Op::NormalizePath, std::u16string(u"/a/b"), TEXT(o.normalizePath(p)), false},
        {Op::Exists, true, RETURNS(o.exists(p, ec...))},
        {Op::IsFile, true, RETURNS(o.isFile(p, ec...))},
        {Op::IsFolder, true, RETURNS(o.isFolder(p, ec...))},
        {Op::IsSymlink, true, RETURNS(o.isSymlink(p, ec...))},
        {Op::GetPermissions, Perms::Perms_tag(0644), RETURNS(o.getPermissions(p, ec...))},
        {Op::SetPermissions, {}, NOVALUE(o.setPermissions(p, Perms::OwnerRead, ec...))},
        {Op::GetLastModifiedTime, t, RETURNS(o.getLastModifiedTime(p, ec...))},
        {Op::SetLastModifiedTime, {}, both([t](FileSystemOps& o, auto&... ec) {
             o.setLastModifiedTime(p, t, ec...);
             return Value{};
         })},
        {Op::GetSizeInBytes, std::uint64_t(1) << 40, RETURNS(o.getSizeInBytes(p, ec...))},
        {Op::GetLinkTarget, std::u16string(u"/t"), RETURNS(o.getLinkTarget(p, ec...))},
        {Op::GetFiles, {}, NOVALUE(o.getFiles(p, g_files, true, ec...))},
        {Op::CreateInputStream, in, RETURNS(o.createInputStream(p, OpenMode::ReadBinary, ec...))},
        {Op::CreateOutputStream, out, RETURNS(o.createOutputStream(p, OpenMode::WriteBinary, ec...))},
        {Op::CreateFolder, {}, NOVALUE(o.createFolder(p, ec...))},
        {Op::CreateFolders, {}, NOVALUE(o.createFolders(p, ec...))},
        {Op::CreateSymlink, {}, NOVALUE(o.createSymlink(p, q, ec...))},
        {Op::Copy, {}, NOVALUE(o.copy(p, q, Overwrite, ec...))},
        {Op::Rename, {}, NOVALUE(o.rename(p, q, ec...))},
        {Op::Remove, {}, NOVALUE(o.remove(p, ec...))},
        {Op::RemoveAll, {}, NOVALUE(o.removeAll(p, ec...))},
        {Op::ReplaceFileWithBackup, {}, NOVALUE(o.replaceFileWithBackup(p, o, q, g_options, ec...))},
    };
}

// A category that declares every value but 1 not to be a failure.
class LenientCategory : public boost::system::error_category {
public:
    char const* name() const noexcept override { return "lenient"; }
    std::string message(int ev) const override { return "lenient " + std::to_string(ev); }
    bool failed(int ev) const noexcept override { return ev == 1; }
};
LenientCategory const g_lenient;

class Frame : public ::testing::TestWithParam<Family> {
protected:
    // The message of the throwing form, or "<none>" when it returned.
    std::string thrown(error_code* code = nullptr) {
        try {
            GetParam().call(ops, nullptr);
        } catch (Exception const& e) {
            if (code)
                *code = e.code();
            return e.what();
        }
        return "<none>";
    }

    ScriptedOps ops;
};

TEST_P(Frame, ThrowingFormPassesResultsAndThrowsPrefixedDetail) {
    auto const& f = GetParam();
    std::string const prefix = std::string(publicName(f.op)) + " failed: ";
    ops.enqueue(f.op, Reply::ok(f.sample));
    EXPECT_EQ(f.call(ops, nullptr), f.sample);
    ASSERT_EQ(ops.calls().size(), 1u);
    EXPECT_EQ(ops.calls()[0].op, f.op);
    EXPECT_EQ(ops.calls()[0].paths.at(0), p);

    error_code const code(errc::file_exists, boost::system::generic_category());
    error_code got;
    ops.enqueue(f.op, Reply::fail(code, "Destination exists: /c/d", f.sample));
    EXPECT_EQ(thrown(&got), prefix + "Destination exists: /c/d");
    EXPECT_EQ(got, code);
    EXPECT_EQ(&got.category(), &boost::system::generic_category());

    ops.enqueue(f.op, Reply::fail(errc::io_error)); // empty detail: the prefix alone
    EXPECT_EQ(thrown(), prefix);
    ops.enqueue(f.op, Reply::fail(error_code(), "ignored", f.sample)); // detail without failure
    EXPECT_EQ(f.call(ops, nullptr), f.sample);
    ops.enqueue(f.op, Reply::fail(error_code(7, g_lenient), "not a failure", f.sample));
    EXPECT_EQ(f.call(ops, nullptr), f.sample);
    ops.enqueue(f.op, Reply::fail(error_code(1, g_lenient), "a failure"));
    EXPECT_EQ(thrown(), prefix + "a failure");
}

TEST_P(Frame, CodeFormClearsStaleCodesAndReturnsTheValueOnFailure) {
    auto const& f = GetParam();
    if (!f.hasCode)
        GTEST_SKIP() << "throwing form only";
    error_code const stale(errc::io_error, boost::system::generic_category());
    error_code ec = stale;
    ops.enqueue(f.op, Reply::ok(f.sample));
    EXPECT_EQ(f.call(ops, &ec), f.sample);
    EXPECT_EQ(ec, error_code());

    // The back end reports success by leaving the code alone: the caller must see it cleared.
    ec = stale;
    ops.enqueue(f.op, Reply::fail(error_code(), "detail without failure"));
    f.call(ops, &ec);
    EXPECT_EQ(ec, error_code());

    error_code const code(errc::permission_denied, boost::system::generic_category());
    ec = stale;
    ops.enqueue(f.op, Reply::fail(code, "denied", f.sample));
    EXPECT_EQ(f.call(ops, &ec), f.sample);
    EXPECT_EQ(ec, code);
}

using FrameDeathTest = Frame;

TEST_P(FrameDeathTest, ExceptionEscapingTheCodeFormEndsTheProcess) {
    auto const& f = GetParam();
    if (!f.hasCode)
        GTEST_SKIP() << "throwing form only";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Reply r;
    r.effect = [](Call const&) { throw std::runtime_error("back end broke its promise"); };
    ops.enqueue(f.op, r);
    error_code ec;
    EXPECT_DEATH(f.call(ops, &ec), "");
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
    auto const& c = ops.calls();
    ASSERT_EQ(c.size(), 6u);
    EXPECT_EQ(c[0].number, 0640u);
    EXPECT_EQ(c[1].time, t);
    EXPECT_EQ(c[2].number, 1u);
    EXPECT_EQ(c[3].number, 12u);
    EXPECT_EQ(c[4].number, 20u);
    EXPECT_EQ(c[5].number, static_cast<std::uint64_t>(FailIfExists));
    EXPECT_EQ(c[5].paths, (std::vector<std::u16string>{u"s", u"d"}));
}

TEST(FrameOutputs, GetFilesNeverClearsAndGetLocalPathEmptiesOnFalse) {
    ScriptedOps ops;
    std::vector<std::u16string> files{u"kept"};
    Reply r = Reply::fail(errc::no_such_file_or_directory, "gone");
    r.files = {u"partial"};
    ops.enqueue(Op::GetFiles, r);
    error_code ec;
    ops.getFiles(u"/f", files, false, ec);
    EXPECT_TRUE(ec.failed());
    EXPECT_EQ(files, (std::vector<std::u16string>{u"kept", u"partial"}));

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

} // namespace
} // namespace opc::test
