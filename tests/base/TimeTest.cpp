// Time text against Boost's extended ISO form of generated instants, the reader against
// Boost's time input facet over generated malformed texts (which is where rejected texts are
// checked), and local/UTC conversion in a zone west and a zone east of UTC.
#include <opc/Text.hpp>
#include <opc/Time.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <locale>
#include <random>
#include <sstream>

namespace pt = boost::posix_time;
using boost::gregorian::date;

namespace {

pt::ptime at(unsigned short y, unsigned short mo, unsigned short d, int h, int mi) { return pt::ptime(date(y, mo, d), pt::time_duration(h, mi, 0)); }

struct ScopedTZ {
    explicit ScopedTZ(char const* value) { ::setenv("TZ", value, 1), ::tzset(); }
    ~ScopedTZ() { ::unsetenv("TZ"), ::tzset(); }
};

// The reading that the library's reader must match: the wide input facet with the time format,
// the whole text consumed, and "T" at index 10 in a text longer than a bare date.
pt::ptime facetRead(std::u16string const& text) {
    static std::locale const locale(std::locale(), new pt::wtime_input_facet(L"%Y-%m-%dT%H:%M:%SZ"));
    std::wistringstream in(opc::toWideString(text));
    in.imbue(locale);
    pt::ptime time; // not a date time
    in >> time;
    bool const shape = text.size() <= 11 || (text[10] == u'T' && text.size() >= 19);
    return !in.fail() && in.peek() == WEOF && shape ? time : pt::ptime();
}

// Compares special values too, and times past 9999 that hours beyond 23 can reach.
std::string key(pt::ptime time) { return pt::to_simple_string(time - pt::ptime(date(1400, 1, 1))); }

} // namespace

TEST(TimeText, GeneratedInstantsRoundTrip) {
    std::mt19937 rng(2024);
    for (int i = 0; i < 3000; ++i) {
        auto const y = static_cast<unsigned short>(std::uniform_int_distribution<int>(1400, 9999)(rng));
        date day = date(y, 1, 1) + boost::gregorian::days(std::uniform_int_distribution<int>(0, 365)(rng));
        if (i % 10 == 0 && boost::gregorian::gregorian_calendar::is_leap_year(y)) day = date(y, 2, 29);
        if (day.year() != y) day = date(y, 12, 31);
        pt::ptime const t(day, pt::seconds(std::uniform_int_distribution<long>(0, 86399)(rng)));
        // Fractions of a second are dropped.
        std::u16string const text = opc::convertTimeToString(t + pt::microseconds(i % 1000 * 997));
        ASSERT_EQ(text, opc::toStringFromASCIIStringLiteral((pt::to_iso_extended_string(t) + "Z").c_str()));
        ASSERT_EQ(opc::convertStringToTime(text), t) << opc::toUDEString(text);
    }
}

// Fields in and out of range, cut short and mutated with separators, blanks, signs, and
// special-value names in any case.
TEST(TimeText, ReadsMalformedTextsAsTheFacet) {
    std::mt19937 rng(13);
    auto pick = [&rng](int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); };
    std::u16string const pieces[] = {u"0", u"2", u"9", u"-", u":", u"T", u"Z", u" ", u"\t", u"+", u"x", u"\u00e9",
                                     u"+infinity", u"-INFINITY", u"Minimum-Date-Time", u"maximum-date-time"};
    for (int i = 0; i < 20000; ++i) {
        char fields[64];
        std::snprintf(fields, sizeof fields, pick(2) ? "%04d-%02d-%02dT%02d:%02d:%02dZ" : "%d-%d-%dT%d:%d:%dZ",
                      pick(3) ? 1400 + pick(8600) : pick(10000), pick(14), pick(33), pick(100), pick(100), pick(100));
        std::u16string text = opc::toStringFromASCIIStringLiteral(fields);
        if (pick(2)) text.resize(static_cast<std::size_t>(pick(static_cast<int>(text.size()) + 1)));
        for (int edits = pick(4); edits > 0; --edits) {
            std::size_t const at = static_cast<std::size_t>(pick(static_cast<int>(text.size()) + 1));
            std::u16string const& piece = pieces[pick(std::size(pieces))];
            if (pick(2) && at < text.size()) text.erase(at, 1);
            text.insert(at, pick(3) ? piece.substr(0, 1) : piece);
        }
        ASSERT_EQ(key(opc::convertStringToTime(text)), key(facetRead(text))) << opc::toUDEString(text);
    }
}

TEST(TimeText, SpecialValuesSurrogatesAndTheClock) {
    for (pt::ptime const special : {pt::ptime(pt::not_a_date_time), pt::ptime(pt::pos_infin), pt::ptime(pt::neg_infin)})
        EXPECT_EQ(opc::convertTimeToString(special), u"");
    // A pair or a lone lead surrogate is one separator character, and "x" followed by a lone
    // trail two.
    std::u16string const lead(1, char16_t(0xD800)), trail(1, char16_t(0xDC00));
    for (std::u16string const& date : {std::u16string(u"2024-03\U0001F60009"), u"2024-03" + lead + u"09"})
        EXPECT_EQ(opc::convertStringToTime(date), at(2024, 3, 9, 0, 0));
    EXPECT_TRUE(opc::convertStringToTime(u"2024-03x" + trail + u"09").is_not_a_date_time());
    pt::ptime const before = pt::second_clock::universal_time(), now = opc::getCurrentTime();
    EXPECT_LE(before, now);
    EXPECT_LE(now, pt::second_clock::universal_time());
    EXPECT_EQ(now.time_of_day().fractional_seconds(), 0);
}

// The wall time follows TZ as it is at each call, in a zone west and a zone east of UTC, and a
// missing local time moves forward. The transitions and repeated hours are the host layer's
// tests' to check.
TEST(LocalTime, FollowsTheZoneOfEachCall) {
    for (auto const& [zone, offset] : {std::pair{"America/New_York", -5}, {"Europe/Berlin", 1}}) {
        ScopedTZ const guard(zone);
        EXPECT_EQ(opc::convertToLocalTime(at(2024, 1, 15, 12, 0)), at(2024, 1, 15, 12 + offset, 0)) << zone;
        EXPECT_EQ(opc::convertToUTCTime(at(2024, 1, 15, 12, 0)), at(2024, 1, 15, 12 - offset, 0)) << zone;
    }
    ScopedTZ const guard("Europe/Berlin");
    EXPECT_EQ(opc::convertToUTCTime(at(2024, 3, 31, 2, 30)), at(2024, 3, 31, 1, 30)); // in the gap
    EXPECT_TRUE(opc::convertToLocalTime(pt::ptime(pt::not_a_date_time)).is_not_a_date_time());
}
