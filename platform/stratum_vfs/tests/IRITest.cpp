// IRI text: tables of input and canonical output, malformed input, and properties over
// generated hostile names checked against an independent percent-decoder.
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include "TestText.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include <random>

namespace stratum::storage::vfs {
namespace {

using test::u16;
using test::u8;

struct Canonical {
    char const* input;
    char const* canonical;
    char const* path;
    char const* name;
};

class CanonicalTable : public ::testing::TestWithParam<Canonical> {};

TEST_P(CanonicalTable, ParsesToCanonicalText) {
    Canonical const& row = GetParam();
    AbsoluteIRI iri(u16(row.input));
    EXPECT_EQ(u8(iri.toString()), row.canonical);
    EXPECT_EQ(u8(iri.getPath()), row.path);
    EXPECT_EQ(u8(iri.getName()), row.name);
    EXPECT_EQ(iri.hasParent(), std::string(row.path) != "/");
    // Canonical text is stable and names the same place.
    AbsoluteIRI again(iri.toString());
    EXPECT_EQ(again.toString(), iri.toString());
    EXPECT_EQ(again, iri);
}

INSTANTIATE_TEST_SUITE_P(
    Iri, CanonicalTable,
    ::testing::Values(Canonical{"memory:///", "memory:///", "/", ""},
                      Canonical{"memory:///a/b", "memory:///a/b", "/a/b", "b"},
                      Canonical{"memory:///a//b/", "memory:///a/b", "/a/b", "b"},
                      Canonical{"memory:///a/./b/../c", "memory:///a/c", "/a/c", "c"},
                      Canonical{"memory:///../../x/..", "memory:///", "/", ""},
                      Canonical{"FILE:///x", "FILE:///x", "/x", "x"},
                      Canonical{"MeMoRy:///a%2fb", "MeMoRy:///a/b", "/a/b", "b"},
                      Canonical{"memory:///a b", "memory:///a%20b", "/a b", "a b"},
                      Canonical{"memory:///%41%62", "memory:///Ab", "/Ab", "Ab"},
                      Canonical{"memory:///x%3fy%23z", "memory:///x%3Fy%23z", "/x?y#z", "x?y#z"},
                      Canonical{"memory:///a?b#c", "memory:///a%3Fb%23c", "/a?b#c", "a?b#c"},
                      Canonical{"memory:///caf%C3%A9", "memory:///caf\xC3\xA9", "/caf\xC3\xA9", "caf\xC3\xA9"},
                      Canonical{"memory:///t\tx\x7F", "memory:///t%09x%7F", "/t\tx\x7F", "t\tx\x7F"},
                      Canonical{"memory:///.%2E/a/%2e", "memory:///a", "/a", "a"}));

class MalformedTable : public ::testing::TestWithParam<std::u16string> {};

TEST_P(MalformedTable, RaisesInvalidIRIWithTheText) {
    try {
        AbsoluteIRI iri(GetParam());
        ADD_FAILURE() << "accepted " << u8(iri.toString());
    } catch (InvalidIRIException const& e) {
        EXPECT_EQ(e.getInvalidIRIString(), GetParam());
        EXPECT_STREQ(e.what(), "Invalid IRI");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Iri, MalformedTable,
    ::testing::Values(u"", u"memory:", u"memory:/x", u"memory://", u"memory://host/x", u"memory:x", u"1memory:///x",
                      u":///x", u"/x", u"memory:///%", u"memory:///%4", u"memory:///%zz", u"memory:///%00",
                      u"memory:///%C3", u"memory:///%FF", u"memory:///%ED%A0%80", std::u16string(u"memory:///a\0b", 13),
                      std::u16string(u"memory:///\xDC00x"), std::u16string(u"file:///a\xD800/b")));

TEST(IriScheme, UnknownSchemesAreUnsupportedWithTheSchemeAsWritten) {
    for (std::u16string scheme : {u"http", u"x+y.z-1", u"files", u"memor"}) {
        try {
            AbsoluteIRI iri(scheme + u":///x");
            ADD_FAILURE() << "accepted " << u8(scheme);
        } catch (UnsupportedIRISchemeException const& e) {
            EXPECT_EQ(e.getScheme(), scheme);
            EXPECT_STREQ(e.what(), "Unsupported IRI scheme");
        }
    }
    EXPECT_THROW(toAbsoluteIRI(u"http", u"/x"), UnsupportedIRISchemeException);
    EXPECT_THROW(fromAbsoluteIRI(AbsoluteIRI(u"memory:///x")), UnsupportedIRISchemeException);
}

TEST(IriRelative, AppendsChildSegmentsAndResolvesDots) {
    AbsoluteIRI base(u"memory:///a/b");
    struct Row {
        std::u16string relative;
        std::string expected;
    };
    for (Row const& row : {Row{u"/c", "memory:///a/b/c"}, Row{u"//c/", "memory:///a/b/c"}, Row{u"../c", "memory:///a/c"},
                           Row{u"../../../../c", "memory:///c"}, Row{u"c/./d/..", "memory:///a/b/c"},
                           Row{u"x%20y z", "memory:///a/b/x%20y%20z"}, Row{u"", "memory:///a/b"}}) {
        EXPECT_EQ(u8(AbsoluteIRI(base, row.relative).toString()), row.expected) << u8(row.relative);
    }
    EXPECT_THROW(AbsoluteIRI(base, u"%G0"), InvalidIRIException);
    EXPECT_THROW(AbsoluteIRI(base, std::u16string(u"\xDBFF")), InvalidIRIException);
}

TEST(IriParent, WalksUpToTheRootWhichIsItsOwnParent) {
    AbsoluteIRI iri(u"FILE:///a/b/c");
    std::vector<std::string> seen;
    for (; iri.hasParent(); seen.push_back(u8(iri.toString()))) iri = iri.getParent();
    EXPECT_EQ(seen, (std::vector<std::string>{"FILE:///a/b", "FILE:///a", "FILE:///"}));
    EXPECT_EQ(iri.getParent(), iri);
    EXPECT_TRUE(AbsoluteIRI(u"memory:///a/b").isWithin(AbsoluteIRI(u"MEMORY:///a")));
    EXPECT_FALSE(AbsoluteIRI(u"memory:///ab").isWithin(AbsoluteIRI(u"memory:///a")));
    EXPECT_FALSE(AbsoluteIRI(u"file:///a/b").isWithin(AbsoluteIRI(u"memory:///a")));
    for (std::u16string const& bad : std::vector<std::u16string>{u"", u".", u"..", u"a/b", std::u16string(u"a\0", 2)}) {
        EXPECT_THROW(iri.getChild(bad), InvalidIRIException) << u8(bad);
    }
    EXPECT_EQ(u8(iri.getChild(u"50%").toString()), "FILE:///50%25");
}

// Hostile names: spaces, escapes, IRI delimiters, controls, non-ASCII and astral characters,
// leading "-" and ".". Never "." or "..", never "/" or NUL.
std::u16string randomName(std::mt19937& random) {
    static std::vector<std::u16string> const pieces = {
        u"a", u"Z", u"0", u" ", u"%", u"%41", u"#", u"?", u"-", u".", u"\t", u"\x7F", u"\x01", u"+", u":",
        u"\u00E9", u"\u4E2D", u"\U0001F600", u"[", u"]", u"@", u"!", u"~", u"'", u"\\", u"=", u"&"};
    std::u16string name;
    std::size_t length = 1 + random() % 8;
    for (std::size_t i = 0; i < length; ++i) {
        name += pieces[random() % pieces.size()];
    }
    return name == u"." || name == u".." ? name + u"x" : name;
}

// An independent reading of canonical text: split on "/", percent-decode to bytes, UTF-8 to
// UTF-16 through ICU. Also checks that nothing that must be escaped stands bare.
std::vector<std::u16string> decodeCanonicalPath(std::u16string const& text) {
    std::string utf8 = u8(text);
    std::vector<std::u16string> names;
    std::string bytes;
    auto flush = [&] {
        if (!bytes.empty()) names.push_back(u16(bytes));
        bytes.clear();
    };
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(utf8[i]);
        EXPECT_FALSE(c < 0x20 || c == 0x7F || c == ' ' || c == '#' || c == '?') << "bare character in " << utf8;
        if (c == '/') {
            flush();
        } else if (c == '%') {
            std::string hex = utf8.substr(i + 1, 2);
            EXPECT_EQ(hex.find_first_not_of("0123456789ABCDEF"), std::string::npos) << utf8;
            bytes += static_cast<char>(std::stoi(hex, nullptr, 16));
            i += 2;
        } else {
            bytes += static_cast<char>(c);
        }
    }
    flush();
    return names;
}

TEST(IriProperties, HostilePathsRoundTripAndPrintCanonically) {
    std::mt19937 random(20261123);
    for (int round = 0; round < 400; ++round) {
        std::vector<std::u16string> names(1 + random() % 5);
        std::u16string hostPath;
        for (auto& name : names) {
            name = randomName(random);
            hostPath += u"/" + name;
        }
        AbsoluteIRI iri = toAbsoluteIRI(u"file", hostPath);
        ASSERT_EQ(fromAbsoluteIRI(iri), hostPath);
        EXPECT_EQ(iri.getName(), names.back());
        std::u16string text = iri.toString();
        ASSERT_EQ(text.substr(0, 8), u"file:///");
        EXPECT_EQ(decodeCanonicalPath(text.substr(7)), names);
        AbsoluteIRI reparsed(text);
        EXPECT_EQ(reparsed.toString(), text);
        EXPECT_EQ(reparsed, iri);
        // Appending a name as relative text (escaped, as IRI text must be) finds the same child.
        AbsoluteIRI parent = iri.getParent();
        EXPECT_EQ(AbsoluteIRI(parent, text.substr(text.rfind(u'/') + 1)), iri);
    }
}

TEST(IriProperties, DotSegmentsNeverEscapeTheRoot) {
    std::mt19937 random(7);
    static std::vector<std::u16string> const steps = {u"a", u"b", u".", u"..", u"", u"c%2F.."};
    for (int round = 0; round < 500; ++round) {
        std::u16string text = u"memory://";
        std::vector<std::u16string> model;
        std::size_t count = random() % 10;
        for (std::size_t i = 0; i < count; ++i) {
            std::u16string const& step = steps[random() % steps.size()];
            text += u"/" + step;
            if (step == u".." && !model.empty()) {
                model.pop_back();
            } else if (step == u"a" || step == u"b") {
                model.push_back(step);
            }
            // "c%2F.." decodes to "c/..": a child then a step back, which leaves the model alone.
        }
        text += u"/";
        AbsoluteIRI iri(text);
        EXPECT_EQ(iri.getSegments(), model) << u8(text);
    }
}

TEST(IriHost, RelativePathsResolveAgainstTheCurrentFolder) {
    std::u16string cwd = u16(std::filesystem::current_path().string());
    EXPECT_EQ(fromAbsoluteIRI(toAbsoluteIRI(u"file", u"a b/./c")), cwd + u"/a b/c");
    EXPECT_EQ(fromAbsoluteIRI(toAbsoluteIRI(u"FILE", u"")), cwd);
    EXPECT_THROW(toAbsoluteIRI(u"file", std::u16string(u"/a\0b", 4)), InvalidIRIException);
}

TEST(StorageException, MessageCodeAndLocationCombineInWhat) {
    Exception plain(ErrorCode::NotFound, AbsoluteIRI(u"memory:///a b"));
    EXPECT_STREQ(plain.what(), "Not found: memory:///a%20b");
    EXPECT_EQ(plain.getErrorCode(), ErrorCode::NotFound);
    EXPECT_STREQ(Exception(ErrorCode::IOError, AbsoluteIRI(), "disk on fire").what(), "Input/output error (disk on fire)");
    EXPECT_STREQ(describeErrorCode(static_cast<ErrorCode>(12)), "Unknown storage error");
}

} // namespace
} // namespace stratum::storage::vfs
