// The path text helpers over generated paths against std::filesystem (the back ends' tables
// of path text are in the file-system tests).
#include "support/ThroughOps.hpp"

#include <opc/Path.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace {

using namespace opc::detail;

// ASCII paths over an alphabet rich in separators and dots: where std::filesystem and these
// helpers agree by design (everything but the root's parent and leading-dot names'
// extensions), they must give the same answers.
TEST(PathHelpers, GeneratedAgreeWithStdFilesystem) {
    std::mt19937 rng(42);
    std::string const alphabet = "///..ab c";
    auto narrow = [](std::u16string const& s) { return std::string(s.begin(), s.end()); };
    for (int i = 0; i < 4000; ++i) {
        std::string text;
        for (int n = int(rng() % 14); n > 0; --n) text += alphabet[rng() % alphabet.size()];
        SCOPED_TRACE(text);
        std::u16string const in(text.begin(), text.end());
        std::string const normalized = narrow(normalizePath(in));
        EXPECT_EQ(normalized.find("//"), std::string::npos);
        EXPECT_EQ(normalizePath(normalizePath(in)), normalizePath(in));
        EXPECT_EQ(makeNativePath(in), normalized);
        std::filesystem::path const oracle(normalized);
        EXPECT_EQ(narrow(getFilename(in)), oracle.filename().string());
        if (normalized != "/") {
            EXPECT_EQ(narrow(getParentPath(in)), oracle.parent_path().string());
        }
        std::string const name = oracle.filename().string();
        if (!(name.size() > 1 && name[0] == '.' && name.find('.', 1) == std::string::npos)) {
            EXPECT_EQ(narrow(getExtension(in)), oracle.extension().string());
        }
    }
}

TEST(PathHelpers, NativePathIsUtf8AndRefusesBadText) {
    EXPECT_EQ(makeNativePath(u"/caf\u00e9//\U0001F600"), "/caf\xC3\xA9/\xF0\x9F\x98\x80");
    // Host-layer failures pass through as they are: an opc::Exception would stop in thrown().
    for (std::u16string const& bad : {std::u16string{u'a', char16_t(0xDC00)}, std::u16string(u"a\0b", 3)})
        EXPECT_THROW(opc::test::thrown([&] { makeNativePath(bad); }), std::runtime_error);
}

} // namespace
