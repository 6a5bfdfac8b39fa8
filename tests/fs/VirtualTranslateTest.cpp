// The virtual back end's one error translation: every row of the storage error table, the rows
// that leave a cleared code cleared, and every other kind of exception in flight.
#include "../../src/fs/VirtualTranslate.hpp"

#include <opc/Text.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;

error_code generic(errc::errc_t e) { return error_code(e, boost::system::generic_category()); }

struct Outcome {
    std::string detail;
    error_code ec;
};

// Throws with `raise` and translates inside the handler, starting from `detail` and `ec`.
Outcome translate(std::function<void()> const& raise, error_code ec = error_code(),
                  std::string detail = "previous text") {
    try {
        raise();
        ADD_FAILURE() << "nothing was thrown";
    } catch (...) {
        detail::translateStorageException(detail, ec);
    }
    return {detail, ec};
}

TEST(StorageTranslation, EveryStorageCodeMapsWithMessageAndLocation) {
    vfs::AbsoluteIRI const where(u"memory:///reports/q%C3%A9 3.pkg");
    errc::errc_t const table[] = {
        errc::directory_not_empty,   errc::no_such_device_or_address,     errc::permission_denied,
        errc::file_exists,           errc::no_such_file_or_directory,     errc::read_only_file_system,
        errc::file_too_large,        errc::resource_unavailable_try_again, errc::no_space_on_device,
        errc::io_error,              errc::state_not_recoverable,          errc::operation_not_supported};
    error_code const earlier = generic(errc::interrupted);
    for (int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 64, 255}) {
        SCOPED_TRACE(code);
        vfs::Exception const thrown(static_cast<vfs::ErrorCode>(code), where);
        std::string const detail = thrown.getMessage() + ": " + toUDEString(where.toString());
        EXPECT_NE(detail.find("q\xC3\xA9"), std::string::npos) << "location not in UTF-8: " << detail;
        auto const cleared = translate([&] { throw thrown; });
        auto const kept = translate([&] { throw thrown; }, earlier);
        EXPECT_EQ(cleared.detail, detail);
        EXPECT_EQ(kept.detail, detail);
        if (code < 12) {
            EXPECT_EQ(cleared.ec, generic(table[code]));
            EXPECT_EQ(kept.ec, generic(table[code]));
        } else {
            // Twelve and above: the detail is written, the code left as it was.
            EXPECT_EQ(cleared.ec, error_code());
            EXPECT_EQ(kept.ec, earlier);
        }
    }
}

TEST(StorageTranslation, IRIFailuresAndOtherExceptions) {
    std::u16string const text = u"memory:relative/p\u00E9";
    struct Case {
        char const* name;
        std::function<void()> raise;
        error_code code;
        std::string detail;
    } const cases[] = {
        {"invalid IRI", [&] { vfs::AbsoluteIRI{text}; }, generic(errc::bad_address),
         "Invalid IRI: memory:relative/p\xC3\xA9"},
        {"unknown scheme", [] { vfs::AbsoluteIRI{u"gopher:///a/b"}; }, generic(errc::address_family_not_supported),
         "Unsupported IRI scheme: gopher"},
        {"runtime_error", [] { throw std::runtime_error("disk on fire"); }, generic(errc::io_error), "disk on fire"},
        {"derived runtime_error", [] { throw std::overflow_error("too big"); }, generic(errc::io_error), "too big"},
        {"logic_error", [] { throw std::logic_error("not runtime"); }, generic(errc::io_error), "Unknown error"},
        {"int", [] { throw 42; }, generic(errc::io_error), "Unknown error"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        auto const out = translate(c.raise, generic(errc::interrupted));
        EXPECT_EQ(out.ec, c.code);
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
    EXPECT_EQ(ec, generic(errc::io_error));
    EXPECT_EQ(detail, "x");
}

} // namespace
} // namespace opc::test
