// opc::Exception keeps its message and the whole code (value and category) through copies,
// also when the code is cleared or comes from a category other than the generic one.
#include <opc/Exception.hpp>

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using boost::system::error_code;

TEST(Exception, CopyAndThrowKeepMessageValueAndCategory) {
    error_code const codes[] = {
        error_code(EACCES, boost::system::generic_category()),
        error_code(EACCES, boost::system::system_category()),
        error_code(),
    };
    for (auto const& code : codes) {
        opc::Exception const original("copy failed: /a/b", code);
        opc::Exception copy = original;
        EXPECT_STREQ(copy.what(), "copy failed: /a/b");
        EXPECT_EQ(copy.code().value(), code.value());
        EXPECT_EQ(&copy.code().category(), &code.category());
        try {
            throw copy;
        } catch (std::runtime_error const& e) {
            auto const* caught = dynamic_cast<opc::Exception const*>(&e);
            ASSERT_NE(caught, nullptr);
            EXPECT_STREQ(caught->what(), original.what());
            EXPECT_EQ(caught->code(), code);
        }
    }
}

} // namespace
