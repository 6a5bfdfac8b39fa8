// The virtual back end's one error translation: every kind of exception in flight, every row
// of the storage error table, and the row that leaves a cleared code cleared.
#include "../../src/fs/VirtualTranslate.hpp"

#include <opc/Text.hpp>

#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/Exception.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;

struct Outcome {
    std::string detail;
    error_code ec;
};

// Throws with `raise`, translates inside the handler, starting from `detail` and `ec`.
Outcome translate(std::function<void()> const& raise, std::string detail = "previous text",
                  error_code ec = error_code()) {
    try {
        raise();
        ADD_FAILURE() << "nothing was thrown";
    } catch (...) {
        detail::translateStorageException(detail, ec);
    }
    return {detail, ec};
}

vfs::AbsoluteIRI const& location() {
    static vfs::AbsoluteIRI const iri(u"memory:///reports/q%C3%A9 3.pkg");
    return iri;
}

struct StorageRow {
    int storageCode;
    errc::errc_t expected;
};

class StorageCodes : public ::testing::TestWithParam<StorageRow> {};

TEST_P(StorageCodes, MapToTheirGenericCodeWithMessageAndLocation) {
    auto const row = GetParam();
    vfs::Exception const thrown(static_cast<vfs::ErrorCode>(row.storageCode), location());
    auto const out = translate([&] { throw thrown; });
    EXPECT_EQ(out.ec, error_code(row.expected, boost::system::generic_category()));
    EXPECT_EQ(out.detail, thrown.getMessage() + ": " + toUDEString(location().toString()));
    EXPECT_NE(out.detail.find("q\xC3\xA9"), std::string::npos) << "location not in UTF-8: " << out.detail;
}

INSTANTIATE_TEST_SUITE_P(
    EveryKnownCode, StorageCodes,
    ::testing::Values(StorageRow{0, errc::directory_not_empty}, StorageRow{1, errc::no_such_device_or_address},
                      StorageRow{2, errc::permission_denied}, StorageRow{3, errc::file_exists},
                      StorageRow{4, errc::no_such_file_or_directory}, StorageRow{5, errc::read_only_file_system},
                      StorageRow{6, errc::file_too_large}, StorageRow{7, errc::resource_unavailable_try_again},
                      StorageRow{8, errc::no_space_on_device}, StorageRow{9, errc::io_error},
                      StorageRow{10, errc::state_not_recoverable}, StorageRow{11, errc::operation_not_supported}),
    [](auto const& info) { return "code" + std::to_string(info.param.storageCode); });

class UnknownStorageCodes : public ::testing::TestWithParam<int> {};

TEST_P(UnknownStorageCodes, WriteTheDetailButLeaveTheCodeAlone) {
    vfs::Exception const thrown(static_cast<vfs::ErrorCode>(GetParam()), location());
    std::string const expectedDetail = thrown.getMessage() + ": " + toUDEString(location().toString());

    auto const cleared = translate([&] { throw thrown; });
    EXPECT_FALSE(cleared.ec.failed());
    EXPECT_EQ(cleared.ec, error_code());
    EXPECT_EQ(cleared.detail, expectedDetail);

    error_code const earlier(errc::interrupted, boost::system::generic_category());
    auto const kept = translate([&] { throw thrown; }, "", earlier);
    EXPECT_EQ(kept.ec, earlier);
    EXPECT_EQ(kept.detail, expectedDetail);
}

INSTANTIATE_TEST_SUITE_P(TwelveAndAbove, UnknownStorageCodes, ::testing::Values(12, 13, 64, 255));

TEST(StorageTranslation, InvalidIRIGivesBadAddressWithTheText) {
    std::u16string const text = u"memory:relative/p\u00E9";
    vfs::InvalidIRIException const* caught = nullptr;
    try {
        vfs::AbsoluteIRI const iri(text);
        FAIL() << "accepted a relative path";
    } catch (vfs::InvalidIRIException const& e) {
        caught = &e;
        std::string detail = "old";
        error_code ec;
        detail::translateStorageException(detail, ec);
        EXPECT_EQ(ec, error_code(errc::bad_address, boost::system::generic_category()));
        EXPECT_EQ(detail, std::string(e.what()) + ": " + toUDEString(e.getInvalidIRIString()));
        EXPECT_EQ(e.getInvalidIRIString(), text);
    }
    EXPECT_NE(caught, nullptr);
}

TEST(StorageTranslation, UnknownSchemeGivesAddressFamilyWithTheScheme) {
    bool seen = false;
    try {
        vfs::AbsoluteIRI const iri(u"gopher:///a/b");
    } catch (vfs::UnsupportedIRISchemeException const& e) {
        seen = true;
        std::string detail;
        error_code ec;
        detail::translateStorageException(detail, ec);
        EXPECT_EQ(ec, error_code(errc::address_family_not_supported, boost::system::generic_category()));
        EXPECT_EQ(detail, std::string(e.what()) + ": gopher");
    }
    EXPECT_TRUE(seen);
}

TEST(StorageTranslation, OtherExceptionsGiveIoError) {
    struct Case {
        char const* name;
        std::function<void()> raise;
        std::string detail;
    };
    std::vector<Case> const cases = {
        {"runtime_error", [] { throw std::runtime_error("disk on fire"); }, "disk on fire"},
        {"derived runtime_error", [] { throw std::overflow_error("too big"); }, "too big"},
        {"logic_error", [] { throw std::logic_error("not a runtime error"); }, "Unknown error"},
        {"int", [] { throw 42; }, "Unknown error"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        auto const out = translate(c.raise, "stale detail", error_code(errc::interrupted, boost::system::generic_category()));
        EXPECT_EQ(out.ec, error_code(errc::io_error, boost::system::generic_category()));
        EXPECT_EQ(out.detail, c.detail);
    }
}

TEST(StorageTranslation, GuardedReturnsTheFailureValueOnlyWhenSomethingIsThrown) {
    std::string detail;
    error_code ec;
    EXPECT_EQ(detail::guarded(detail, ec, -1, [] { return 7; }), 7);
    EXPECT_FALSE(ec.failed());
    EXPECT_TRUE(detail.empty());
    EXPECT_EQ(detail::guarded(detail, ec, -1, []() -> int { throw std::runtime_error("x"); }), -1);
    EXPECT_EQ(ec, error_code(errc::io_error, boost::system::generic_category()));
    EXPECT_EQ(detail, "x");
}

} // namespace
} // namespace opc::test
