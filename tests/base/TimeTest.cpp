#include <opc/Text.hpp>
#include <opc/Time.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

namespace pt = boost::posix_time;
using boost::gregorian::date;

namespace {

pt::ptime at(int y, int mo, int d, int h, int mi, int s = 0) {
    return pt::ptime(date(static_cast<unsigned short>(y), static_cast<unsigned short>(mo), static_cast<unsigned short>(d)),
                     pt::time_duration(h, mi, s));
}

/// The expected time text built field by field with printf.
std::u16string expectedText(pt::ptime const& t) {
    auto const d = t.date();
    auto const tod = t.time_of_day();
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02dZ", int(d.year()), int(d.month()),
                  int(d.day()), int(tod.hours()), int(tod.minutes()), int(tod.seconds()));
    return opc::toStringFromASCIIStringLiteral(buffer);
}

class ScopedTZ {
public:
    explicit ScopedTZ(char const* value) {
        if (char const* old = std::getenv("TZ")) m_old = old, m_had = true;
        ::setenv("TZ", value, 1);
        ::tzset();
    }
    ~ScopedTZ() {
        if (m_had) ::setenv("TZ", m_old.c_str(), 1); else ::unsetenv("TZ");
        ::tzset();
    }

private:
    std::string m_old;
    bool m_had = false;
};

} // namespace

TEST(TimeText, GeneratedInstantsRoundTrip) {
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> year(1400, 9999);
    std::uniform_int_distribution<long> second(0, 86399);
    std::uniform_int_distribution<int> dayOfYear(0, 365);
    for (int i = 0; i < 3000; ++i) {
        int const y = year(rng);
        date const first(static_cast<unsigned short>(y), 1, 1);
        date day = first + boost::gregorian::days(dayOfYear(rng));
        if (i % 10 == 0 && boost::gregorian::gregorian_calendar::is_leap_year(static_cast<unsigned short>(y))) {
            day = date(static_cast<unsigned short>(y), 2, 29);
        }
        if (day.year() != y) day = date(static_cast<unsigned short>(y), 12, 31);
        pt::ptime const t(day, pt::seconds(second(rng)));

        std::u16string const text = opc::convertTimeToString(t + pt::microseconds(i % 1000 * 997));
        ASSERT_EQ(text, expectedText(t));
        ASSERT_EQ(opc::convertStringToTime(text), t) << opc::toUDEString(text);
    }
    for (int y : {1600, 2000, 2024, 9996}) {
        pt::ptime const leap = at(y, 2, 29, 23, 59, 59);
        EXPECT_EQ(opc::convertStringToTime(opc::convertTimeToString(leap)), leap);
    }
}

TEST(TimeText, ExamplesAndSpecialValues) {
    EXPECT_EQ(opc::convertTimeToString(at(2024, 3, 9, 7, 5, 1) + pt::milliseconds(250)), u"2024-03-09T07:05:01Z");
    EXPECT_EQ(opc::convertTimeToString(pt::ptime(pt::not_a_date_time)), u"");
    EXPECT_EQ(opc::convertTimeToString(pt::ptime(pt::pos_infin)), u"");
    EXPECT_EQ(opc::convertTimeToString(pt::ptime(pt::neg_infin)), u"");
    EXPECT_EQ(opc::convertStringToTime(u"2024-03-09T07:05:01Z"), at(2024, 3, 9, 7, 5, 1));
}

TEST(TimeText, RejectedTexts) {
    for (std::u16string const text : {
             u"",
             u"2024-03-09T07:05:01Z ",  // input left over
             u"2024-03-09 07:05:01Z",   // no T at index 10
             u"2024-03-09T07:05Z",      // longer than a date, shorter than a full time
             u"2024-03-09T07:05:01Zx",
             u"2024-13-09T07:05:01Z",   // month out of range
             u"2023-02-29T00:00:00Z",   // not a leap year
             u"garbage",
             u"2024-03-09T07:05:01Z\u00E9",
         }) {
        EXPECT_TRUE(opc::convertStringToTime(text).is_not_a_date_time()) << opc::toUDEString(text);
    }
}

TEST(Clock, CurrentTimeIsWholeSecondsUtc) {
    pt::ptime const before = pt::second_clock::universal_time();
    pt::ptime const now = opc::getCurrentTime();
    pt::ptime const after = pt::second_clock::universal_time();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
    EXPECT_EQ(now.time_of_day().fractional_seconds(), 0);
}

struct ZoneRow {
    char const* zone;
    pt::ptime utc;
    pt::ptime local;
};

TEST(LocalTime, BothTransitionsInTwoZones) {
    ZoneRow const rows[] = {
        {"America/New_York", at(2024, 1, 15, 12, 0), at(2024, 1, 15, 7, 0)},
        {"America/New_York", at(2024, 3, 10, 6, 59), at(2024, 3, 10, 1, 59)},
        {"America/New_York", at(2024, 3, 10, 7, 0), at(2024, 3, 10, 3, 0)},
        {"America/New_York", at(2024, 11, 3, 5, 59), at(2024, 11, 3, 1, 59)},
        {"America/New_York", at(2024, 11, 3, 6, 30), at(2024, 11, 3, 1, 30)},
        {"Europe/Berlin", at(2024, 3, 31, 0, 59), at(2024, 3, 31, 1, 59)},
        {"Europe/Berlin", at(2024, 3, 31, 1, 0), at(2024, 3, 31, 3, 0)},
        {"Europe/Berlin", at(2024, 10, 27, 0, 30), at(2024, 10, 27, 2, 30)},
        {"Europe/Berlin", at(2024, 10, 27, 1, 30), at(2024, 10, 27, 2, 30)},
    };
    for (ZoneRow const& r : rows) {
        ScopedTZ const guard(r.zone);
        EXPECT_EQ(opc::convertToLocalTime(r.utc), r.local) << r.zone << ' ' << r.utc;
    }
    {
        ScopedTZ const guard("America/New_York");
        EXPECT_EQ(opc::convertToUTCTime(at(2024, 7, 4, 12, 0)), at(2024, 7, 4, 16, 0));
        EXPECT_EQ(opc::convertToUTCTime(at(2024, 11, 3, 1, 30)), at(2024, 11, 3, 5, 30)); // earlier of two
        EXPECT_EQ(opc::convertToUTCTime(at(2024, 3, 10, 2, 30)), at(2024, 3, 10, 7, 30)); // in the gap
    }
    {
        ScopedTZ const guard("Europe/Berlin");
        EXPECT_EQ(opc::convertToUTCTime(at(2024, 1, 15, 12, 0)), at(2024, 1, 15, 11, 0));
        EXPECT_EQ(opc::convertToUTCTime(at(2024, 10, 27, 2, 30)), at(2024, 10, 27, 0, 30));
        EXPECT_EQ(opc::convertToUTCTime(at(2024, 3, 31, 2, 30)), at(2024, 3, 31, 1, 30));
    }
    EXPECT_TRUE(opc::convertToLocalTime(pt::ptime(pt::not_a_date_time)).is_not_a_date_time());
}
