// IRI text: tables of input and canonical output and of malformed input, and hostile names and
// escaped separators and dots generated at random, checked against an independent percent-decoder.
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include <gtest/gtest.h>
#include <unicode/unistr.h>

#include <random>

namespace stratum::storage::vfs {
namespace {

using namespace std::string_literals;

// Text through ICU, so that the checks share no code with the layer.
std::u16string u16(std::string const& utf8) {
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
    return std::u16string(reinterpret_cast<char16_t const*>(text.getBuffer()), std::size_t(text.length()));
}

std::string u8(std::u16string const& text) {
    std::string out;
    return icu::UnicodeString(text.data(), int32_t(text.size())).toUTF8String(out);
}

// Dot segments, separators and the plain joins are the library's path tests' to check. s3 keeps
// and compares the bucket and takes keys literally: empty segments kept, dots refused.
TEST(Iri, ParsesToCanonicalText) {
    struct Row {
        char const *input, *canonical, *key, *name;
        std::size_t segments;
    } const rows[] = {
        // clang-format off
        {"memory:///", "memory:///", "", "", 0}, {"memory:///../../x/..", "memory:///", "", "", 0},
        {"MeMoRy:///a/%2e%2E/b%2e", "MeMoRy:///b.", "b.", "b.", 1}, {"memory:///%41%62", "memory:///Ab", "Ab", "Ab", 1},
        {"memory:///a?b#c", "memory:///a%3Fb%23c", "a?b#c", "a?b#c", 1}, {"memory:///x%3fy%23z", "memory:///x%3Fy%23z", "x?y#z", "x?y#z", 1},
        {"memory:///caf%C3%A9", "memory:///caf\xC3\xA9", "caf\xC3\xA9", "caf\xC3\xA9", 1}, {"memory:///t\tx\x7F", "memory:///t%09x%7F", "t\tx\x7F", "t\tx\x7F", 1},
        {"memory:///.%2E/a/%2e", "memory:///a", "a", "a", 1}, {"s3://bkt", "s3://bkt/", "", "", 0},
        {"S3://my.bucket-1/", "S3://my.bucket-1/", "", "", 0}, {"s3://z.a-09/", "s3://z.a-09/", "", "", 0},
        {"s3://bkt/a//b", "s3://bkt/a//b", "a//b", "b", 3}, {"s3://bkt/reports/", "s3://bkt/reports", "reports", "reports", 1},
        {"s3://bkt/a//", "s3://bkt/a//", "a/", "", 2}, {"s3://bkt//", "s3://bkt//", "", "", 1},
        {"s3://bkt/a%2Fb%20c", "s3://bkt/a/b%20c", "a/b c", "b c", 2},
        // clang-format on
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.input);
        AbsoluteIRI iri(u16(row.input));
        EXPECT_EQ(u8(iri.toString()), row.canonical);
        EXPECT_EQ(u8(iri.getKey()), row.key);
        EXPECT_EQ(u8(iri.getName()), row.name);
        EXPECT_EQ(iri.getSegments().size(), row.segments);
        EXPECT_EQ(iri.hasParent(), row.segments > 0);
        EXPECT_EQ(AbsoluteIRI(iri.toString()), iri); // canonical text names the same place
    }
}

TEST(Iri, MalformedTextIsRefusedWithTheTextAndUnknownSchemesWithTheScheme) {
    std::string const longest(1024, 'k'); // the longest s3 key
    // clang-format off
    std::vector<std::u16string> malformed = {
        u"", u"memory:", u"memory:/x", u"memory://", u"memory://host/x", u"memory:x", u"1memory:///x", u":///x", u"/x",
        u"memory:///%", u"memory:///%4", u"memory:///%zz", u"memory:///%00", u"memory:///%C3", u"memory:///%FF",
        u"memory:///%ED%A0%80", u"memory:///a\0b"s, u"memory:///\xDC00x", u"file:///a\xD800/b",
        u"MeMoRy:///a%2fb", u"file:///tmp/x/..%2F..%2Fetc%2Fpasswd", u"memory:///%2F", u"file:///a/%2E%2E%2F"};
    for (std::string const& bad : {"s3://"s, "s3:///key"s, "s3://ab/k"s, "s3://Bucket/k"s, "s3://-bkt/k"s, "s3://bkt-/k"s, "s3://b_k/k"s, "s3:/bkt/k"s,
                                   "s3://bkt/a/./b"s, "s3://bkt/a/.."s, "s3://" + std::string(64, 'b') + "/k", "s3://bkt/" + longest + "k",
                                   "s3://bkt/\xC3\xA9" + longest.substr(1)})
        malformed.push_back(u16(bad));
    // clang-format on
    for (std::u16string const& bad : malformed) {
        try {
            AbsoluteIRI iri(bad);
            ADD_FAILURE() << "accepted " << u8(iri.toString());
        } catch (InvalidIRIException const& e) {
            EXPECT_EQ(e.getInvalidIRIString(), bad);
            EXPECT_STREQ(e.what(), "Invalid IRI");
        }
    }
    EXPECT_EQ(AbsoluteIRI(u16("s3://bkt/" + longest)).getKey().size(), 1024u);
    EXPECT_EQ(AbsoluteIRI(u16("s3://" + std::string(63, 'b') + "/k")).getKey(), u"k"); // the longest bucket
    for (std::u16string scheme : {u"http", u"x+y.z-1", u"files", u"memor", u"Z", u"z9", u"A", u"a"}) {
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
    EXPECT_THROW(toAbsoluteIRI(u"s3", u"/bkt/x"), InvalidIRIException); // a host path names no bucket
    EXPECT_THROW(toAbsoluteIRI(u"file", u"/a\xD800/x"s), InvalidIRIException);
}

TEST(Iri, ChildrenRelativeTextAndContainment) {
    AbsoluteIRI const iri(u"FILE:///");
    EXPECT_EQ(iri.getParent(), iri); // the root is its own parent
    EXPECT_TRUE(AbsoluteIRI(u"memory:///a/b").isWithin(AbsoluteIRI(u"MEMORY:///a")));
    EXPECT_FALSE(AbsoluteIRI(u"memory:///ab").isWithin(AbsoluteIRI(u"memory:///a")));
    EXPECT_FALSE(AbsoluteIRI(u"file:///a/b").isWithin(AbsoluteIRI(u"memory:///a")));
    for (std::u16string const& bad : {u""s, u"."s, u".."s, u"a/b"s, u"a\0"s})
        EXPECT_THROW(iri.getChild(bad), InvalidIRIException) << u8(bad);
    EXPECT_EQ(u8(iri.getChild(u"50%").toString()), "FILE:///50%25");
    EXPECT_EQ(u8(AbsoluteIRI(iri, u"a/../../b/./c%20d").toString()), "FILE:///b/c%20d");
    EXPECT_THROW(AbsoluteIRI(iri, u"%G0"), InvalidIRIException);
    EXPECT_THROW(AbsoluteIRI(iri, u"\xDBFF"s), InvalidIRIException);
    // s3: a key never grows past its longest, nor takes a dot segment, as a child or as text.
    AbsoluteIRI const root(u"s3://bkt/");
    EXPECT_THROW(root.getChild(std::u16string(1025, u'k')), InvalidIRIException);
    EXPECT_THROW(AbsoluteIRI(root, std::u16string(1025, u'k')), InvalidIRIException);
    EXPECT_THROW(AbsoluteIRI(root, u"a/../b"), InvalidIRIException);
    EXPECT_EQ(u8(AbsoluteIRI(root, u"x//y/").toString()), "s3://bkt/x//y");
    EXPECT_EQ(u8(root.getChild(u"q").getParent().toString()), "s3://bkt/");
    EXPECT_FALSE(AbsoluteIRI(u"s3://bkt/a") == AbsoluteIRI(u"s3://other/a"));
    EXPECT_TRUE(AbsoluteIRI(u"s3://bkt/a//b").isWithin(AbsoluteIRI(u"s3://bkt/a")));
    EXPECT_FALSE(AbsoluteIRI(u"s3://bkt/a/b").isWithin(AbsoluteIRI(u"s3://other/a")));
    EXPECT_TRUE(hasIRIPrefix(u"S3://bkt/x"));
}

// An independent reading of canonical path text: split on "/", percent-decode to bytes, UTF-8
// to UTF-16 through ICU. Also checks that nothing that must be escaped stands bare.
std::vector<std::u16string> decodeCanonicalPath(std::string const& text) {
    std::vector<std::u16string> names;
    std::string bytes;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        unsigned char const c = i < text.size() ? text[i] : '/';
        EXPECT_FALSE(c < 0x20 || c == 0x7F || c == ' ' || c == '#' || c == '?') << "bare character in " << text;
        if (c == '/' && !bytes.empty()) names.push_back(u16(bytes));
        if (c == '/')
            bytes.clear();
        else if (c == '%') {
            EXPECT_EQ(text.substr(i + 1, 2).find_first_not_of("0123456789ABCDEF"), std::string::npos) << text;
            bytes += char(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else
            bytes += char(c);
    }
    return names;
}

// Hostile names: spaces, escapes, IRI delimiters, controls, non-ASCII and astral characters,
// the last character of all (its low half is the highest there is), leading "-" and ".".
TEST(Iri, HostilePathsRoundTripAndPrintCanonically) {
    static std::u16string const pieces[] = {u"a", u"Z", u"0", u" ", u"%", u"%41", u"#",
                                            u"?", u"-", u".", u"\t", u"\x7F", u"\x01", u"+",
                                            u":", u"[", u"]", u"@", u"!", u"~", u"'",
                                            u"\\", u"=", u"&", u"\u00E9", u"\u4E2D", u"\U0001F600", u"\U0010FFFF"};
    std::mt19937 random(20261123);
    for (int round = 0; round < 400; ++round) {
        std::vector<std::u16string> names(1 + random() % 5);
        std::u16string hostPath;
        for (auto& name : names) {
            for (std::size_t length = 1 + random() % 8; length > 0; --length)
                name += pieces[random() % std::size(pieces)];
            if (name == u"." || name == u"..") name += u"x";
            hostPath += u"/" + name;
        }
        AbsoluteIRI iri = toAbsoluteIRI(u"file", hostPath);
        ASSERT_EQ(fromAbsoluteIRI(iri), hostPath);
        EXPECT_EQ(iri.getName(), names.back());
        std::u16string const text = iri.toString();
        ASSERT_EQ(text.substr(0, 8), u"file:///");
        EXPECT_EQ(decodeCanonicalPath(u8(text.substr(7))), names);
        EXPECT_EQ(AbsoluteIRI(text).toString(), text);
        EXPECT_EQ(AbsoluteIRI(text), iri);
        // Appending a name as relative text (escaped, as IRI text must be) finds the same child.
        EXPECT_EQ(AbsoluteIRI(iri.getParent(), text.substr(text.rfind(u'/') + 1)), iri);
    }
}

// Random IRIs: a plain prefix (names, "." and "..") naming a folder, then segments made of
// names, dots and separators in plain and escaped spellings (either case of hex). Escapes never
// add a separator nor a dot segment: a segment decoding to a name holding "/" or NUL is refused
// with the whole text, any other segment adds exactly one level below the folder, and a segment
// spelling "." or ".." in escapes resolves exactly as the plain one. Appending the same text to
// the folder gives the same IRI, and the canonical text parses to itself.
TEST(Iri, EscapesNeverLeaveTheFolderTheirPlainPrefixNames) {
    static std::u16string const pieces[] = {u"a", u"b.", u".", u"..", u"%2E", u"%2e", u"%2F", u"%2f", u"%00", u"%25", u"%41", u"\u00E9"};
    static std::u16string const plain[] = {u"d", u".", u"..", u"d%20e"};
    std::mt19937 random(20261125);
    auto decoded = [](std::string const& text, std::string bytes = "") { // each escape on its own
        for (std::size_t i = 0; i < text.size(); i += text[i] == '%' ? 3 : 1)
            bytes += text[i] == '%' ? char(std::stoi(text.substr(i + 1, 2), nullptr, 16)) : text[i];
        return bytes;
    };
    int refusedCount = 0, climbed = 0;
    for (int round = 0; round < 3000; ++round) {
        std::u16string const scheme = round % 2 ? u"file" : u"memory";
        std::u16string prefix = scheme + u"://";
        for (auto n = random() % 4; n > 0; --n) prefix += u"/" + plain[random() % std::size(plain)];
        AbsoluteIRI const folder(prefix + u"/");
        std::u16string tail, plainTail;
        bool refused = false, dots = false;
        std::size_t names = 0;
        for (auto n = 1 + random() % 5; n > 0; --n) {
            std::u16string segment;
            for (auto length = 1 + random() % 4; length > 0; --length) segment += pieces[random() % std::size(pieces)];
            std::string const name = decoded(u8(segment));
            bool const dot = name == "." || name == "..";
            dots |= dot;
            refused |= name.find_first_of(std::string("/\0", 2)) != std::string::npos;
            names += !dot;
            tail += u"/" + segment;
            plainTail += u"/" + (dot ? u16(name) : segment);
        }
        if (random() % 4 == 0) tail += u"/", plainTail += u"/";
        std::u16string const text = prefix + tail;
        SCOPED_TRACE(u8(text));
        try {
            AbsoluteIRI const iri(text);
            EXPECT_FALSE(refused);
            EXPECT_EQ(AbsoluteIRI(iri.toString()).toString(), iri.toString());
            EXPECT_EQ(AbsoluteIRI(folder, tail), iri);
            EXPECT_EQ(AbsoluteIRI(prefix + plainTail), iri);
            climbed += dots;
            if (dots) continue;
            std::u16string const path = scheme == u"file" ? fromAbsoluteIRI(iri) : iri.getPath();
            EXPECT_EQ(path.rfind(folder.hasParent() ? folder.getPath() + u"/" : u"/", 0), 0u) << u8(path);
            EXPECT_EQ(iri.getSegments().size(), folder.getSegments().size() + names);
        } catch (InvalidIRIException const& e) {
            EXPECT_TRUE(refused);
            EXPECT_EQ(e.getInvalidIRIString(), text);
            EXPECT_THROW(AbsoluteIRI(folder, tail), InvalidIRIException);
            ++refusedCount;
        }
    }
    EXPECT_GT(refusedCount, 300); // the generator reaches every outcome
    EXPECT_GT(climbed, 100);
}

} // namespace
} // namespace stratum::storage::vfs
