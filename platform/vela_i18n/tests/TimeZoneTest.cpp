// Zone conversions against the C library's own reading of TZ, around both transitions in a
// zone west and a zone east of UTC.
#include <vela/i18n/time_zone.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdlib>
#include <ctime>
#include <random>
#include <stdexcept>

namespace tz = vela::i18n::time_zone;
namespace pt = boost::posix_time;
using boost::gregorian::date;

namespace {

pt::ptime at(int y, int mo, int d, int h, int mi, int s = 0) {
    return pt::ptime(date(static_cast<unsigned short>(y), static_cast<unsigned short>(mo), static_cast<unsigned short>(d)),
                     pt::time_duration(h, mi, s));
}

/// Sets TZ for the lifetime of the guard and restores the previous value.
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

class Zones : public ::testing::TestWithParam<char const*> {};

TEST_P(Zones, FromUtcAgreesWithTheCLibraryOverGeneratedInstants) {
    ScopedTZ const guard(GetParam());
    tz::timezone const zone(GetParam());
    EXPECT_EQ(tz::timezone("").id(), GetParam());  // an empty name follows TZ
    std::mt19937_64 rng(42);
    // 1971 to 2037, where both zone databases agree: random instants, plus every half hour
    // of the weeks of March, April, October and November in which the transitions fall.
    std::uniform_int_distribution<std::time_t> pick(31536000, 2145916800);
    pt::ptime const epoch(date(1970, 1, 1));
    std::vector<std::time_t> instants;
    for (int i = 0; i < 3000; ++i) instants.push_back(pick(rng));
    for (int year = 1977; year <= 2036; year += 3) {
        for (int month : {3, 4, 10, 11}) {
            std::time_t const first = (pt::ptime(date(static_cast<unsigned short>(year), static_cast<unsigned short>(month), 1)) - epoch).total_seconds();
            for (std::time_t t = first; t < first + 31 * 86400; t += 1800) instants.push_back(t);
        }
    }
    for (std::time_t const t : instants) {
        std::tm parts{};
        localtime_r(&t, &parts);
        pt::ptime const utc = epoch + pt::seconds(static_cast<long>(t));
        pt::ptime const local = tz::from_utc(utc, zone);
        ASSERT_EQ(local, at(parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec)) << utc;
        // Back to UTC: exact, except in a repeated hour, where the earlier instant wins.
        pt::ptime const back = tz::to_utc(local, zone);
        ASSERT_TRUE(back == utc || (back < utc && tz::from_utc(back, zone) == local)) << utc << " -> " << back;
    }
}

INSTANTIATE_TEST_SUITE_P(DaylightSaving, Zones, ::testing::Values("America/New_York", "Europe/Berlin"),
                         [](auto const& info) { return std::string(info.param[0] == 'A' ? "NewYork" : "Berlin"); });

TEST(ToUtc, RepeatedTimeGivesEarlierInstantMissingTimeShiftsForward) {
    tz::timezone const ny("America/New_York");
    tz::timezone const berlin("Europe/Berlin");
    EXPECT_EQ(tz::to_utc(at(2024, 11, 3, 1, 30), ny), at(2024, 11, 3, 5, 30));
    EXPECT_EQ(tz::to_utc(at(2024, 3, 10, 2, 30), ny), at(2024, 3, 10, 7, 30));
    EXPECT_EQ(tz::to_utc(at(2024, 10, 27, 2, 30), berlin), at(2024, 10, 27, 0, 30));
    EXPECT_EQ(tz::to_utc(at(2024, 3, 31, 2, 30), berlin), at(2024, 3, 31, 1, 30));
    // Fractions of a second are kept.
    EXPECT_EQ(tz::to_utc(at(2024, 7, 1, 12, 0) + pt::microseconds(250), berlin), at(2024, 7, 1, 10, 0) + pt::microseconds(250));
    for (pt::ptime const special : {pt::ptime(pt::not_a_date_time), pt::ptime(pt::pos_infin), pt::ptime(pt::neg_infin)}) {
        EXPECT_EQ(tz::from_utc(special, berlin), special);
        EXPECT_EQ(tz::to_utc(special, berlin), special);
    }
}

TEST(Zone, NamesAndTZForms) {
    EXPECT_THROW(tz::timezone("Nowhere/Special"), std::invalid_argument);
    for (auto [value, id] : {std::pair{":Asia/Tokyo", "Asia/Tokyo"}, std::pair{"/usr/share/zoneinfo/Australia/Sydney", "Australia/Sydney"}}) {
        ScopedTZ const guard(value);
        EXPECT_EQ(tz::timezone("").id(), id);
    }
    {
        ScopedTZ const guard("");
        EXPECT_EQ(tz::from_utc(at(2024, 7, 1, 12, 0), tz::timezone("")), at(2024, 7, 1, 12, 0));
    }
    tz::timezone b("UTC");
    b = tz::timezone("Asia/Kolkata");
    EXPECT_EQ(tz::from_utc(at(2024, 1, 1, 0, 0), b), at(2024, 1, 1, 5, 30));
}
