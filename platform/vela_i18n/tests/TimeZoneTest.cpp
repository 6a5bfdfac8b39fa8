#include <vela/i18n/facet.hpp>
#include <vela/i18n/time_zone.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdlib>
#include <ctime>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

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
        if (value) ::setenv("TZ", value, 1); else ::unsetenv("TZ");
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

/// The C library's wall time for a UTC instant under the current TZ: an oracle independent
/// of the zone database the layer uses.
pt::ptime libcLocal(std::time_t t) {
    std::tm parts{};
    localtime_r(&t, &parts);
    return at(parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

struct Row {
    char const* zone;
    pt::ptime utc;
    pt::ptime local;
};

} // namespace

class Zones : public ::testing::TestWithParam<char const*> {};

TEST_P(Zones, FromUtcAgreesWithTheCLibraryOverGeneratedInstants) {
    ScopedTZ const guard(GetParam());
    tz::timezone const zone(GetParam());
    std::mt19937_64 rng(42);
    // 1971 to 2037, where both zone databases agree: random instants, plus every half hour
    // of the weeks of March, April, October and November in which the transitions fall.
    std::uniform_int_distribution<std::time_t> pick(31536000, 2145916800);
    pt::ptime const epoch(date(1970, 1, 1));
    std::vector<std::time_t> instants;
    for (int i = 0; i < 3000; ++i) instants.push_back(pick(rng));
    for (int year = 1977; year <= 2036; year += 3) {
        for (int month : {3, 4, 10, 11}) {
            pt::ptime const start(date(static_cast<unsigned short>(year), static_cast<unsigned short>(month), 1));
            std::time_t const first = (start - epoch).total_seconds();
            for (std::time_t t = first; t < first + 31 * 86400; t += 1800) instants.push_back(t);
        }
    }
    for (std::time_t const t : instants) {
        pt::ptime const utc = epoch + pt::seconds(static_cast<long>(t));
        pt::ptime const local = tz::from_utc(utc, zone);
        ASSERT_EQ(local, libcLocal(t)) << utc;
        // Back to UTC: exact, except in a repeated hour, where the earlier instant wins.
        pt::ptime const back = tz::to_utc(local, zone);
        ASSERT_TRUE(back == utc || (back < utc && tz::from_utc(back, zone) == local)) << utc << " -> " << back;
    }
}

TEST_P(Zones, EmptyNameFollowsTZAtConstruction) {
    ScopedTZ const guard(GetParam());
    EXPECT_EQ(tz::timezone("").id(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(DaylightSaving, Zones, ::testing::Values("America/New_York", "Europe/Berlin"),
                         [](auto const& info) { return std::string(info.param[0] == 'A' ? "NewYork" : "Berlin"); });

TEST(Transitions, BothDirectionsInBothZones) {
    Row const rows[] = {
        // Spring forward, New York 2024-03-10 02:00 EST -> 03:00 EDT (07:00 UTC).
        {"America/New_York", at(2024, 3, 10, 6, 59, 59), at(2024, 3, 10, 1, 59, 59)},
        {"America/New_York", at(2024, 3, 10, 7, 0), at(2024, 3, 10, 3, 0)},
        // Fall back, New York 2024-11-03 02:00 EDT -> 01:00 EST (06:00 UTC).
        {"America/New_York", at(2024, 11, 3, 5, 30), at(2024, 11, 3, 1, 30)},
        {"America/New_York", at(2024, 11, 3, 6, 30), at(2024, 11, 3, 1, 30)},
        // Berlin 2024-03-31 02:00 CET -> 03:00 CEST, 2024-10-27 03:00 CEST -> 02:00 CET.
        {"Europe/Berlin", at(2024, 3, 31, 0, 59), at(2024, 3, 31, 1, 59)},
        {"Europe/Berlin", at(2024, 3, 31, 1, 0), at(2024, 3, 31, 3, 0)},
        {"Europe/Berlin", at(2024, 10, 27, 0, 30), at(2024, 10, 27, 2, 30)},
        {"Europe/Berlin", at(2024, 10, 27, 1, 30), at(2024, 10, 27, 2, 30)},
    };
    for (Row const& r : rows) {
        EXPECT_EQ(tz::from_utc(r.utc, tz::timezone(r.zone)), r.local) << r.zone << ' ' << r.utc;
    }
}

TEST(Transitions, RepeatedTimeGivesEarlierInstantMissingTimeShiftsForward) {
    tz::timezone const ny("America/New_York");
    tz::timezone const berlin("Europe/Berlin");
    EXPECT_EQ(tz::to_utc(at(2024, 11, 3, 1, 30), ny), at(2024, 11, 3, 5, 30));
    EXPECT_EQ(tz::to_utc(at(2024, 3, 10, 2, 30), ny), at(2024, 3, 10, 7, 30));
    EXPECT_EQ(tz::from_utc(tz::to_utc(at(2024, 3, 10, 2, 30), ny), ny), at(2024, 3, 10, 3, 30));
    EXPECT_EQ(tz::to_utc(at(2024, 10, 27, 2, 30), berlin), at(2024, 10, 27, 0, 30));
    EXPECT_EQ(tz::to_utc(at(2024, 3, 31, 2, 30), berlin), at(2024, 3, 31, 1, 30));
    // Fractions of a second are kept.
    EXPECT_EQ(tz::to_utc(at(2024, 7, 1, 12, 0) + pt::microseconds(250), berlin),
              at(2024, 7, 1, 10, 0) + pt::microseconds(250));
}

TEST(Zone, SpecialValuesPassThrough) {
    tz::timezone const zone("Europe/Berlin");
    for (pt::ptime const special : {pt::ptime(pt::not_a_date_time), pt::ptime(pt::pos_infin), pt::ptime(pt::neg_infin)}) {
        EXPECT_EQ(tz::from_utc(special, zone).is_special(), true);
        EXPECT_EQ(tz::from_utc(special, zone), special);
        EXPECT_EQ(tz::to_utc(special, zone), special);
    }
}

TEST(Zone, NamesAndTZForms) {
    EXPECT_THROW(tz::timezone("Nowhere/Special"), std::invalid_argument);
    {
        ScopedTZ const guard(":Asia/Tokyo");
        EXPECT_EQ(tz::timezone("").id(), "Asia/Tokyo");
    }
    {
        ScopedTZ const guard("/usr/share/zoneinfo/Australia/Sydney");
        EXPECT_EQ(tz::timezone("").id(), "Australia/Sydney");
    }
    {
        ScopedTZ const guard("");
        EXPECT_EQ(tz::from_utc(at(2024, 7, 1, 12, 0), tz::timezone("")), at(2024, 7, 1, 12, 0));
    }
    tz::timezone const a("Asia/Kolkata");
    tz::timezone b("UTC");
    b = a;
    EXPECT_EQ(tz::from_utc(at(2024, 1, 1, 0, 0), b), at(2024, 1, 1, 5, 30));
}

TEST(Facet, StandardLocaleIsTheGlobalOne) {
    std::locale const previous = std::locale::global(std::locale::classic());
    EXPECT_EQ(vela::i18n::facet::get_global_std_locale(), std::locale::classic());
    std::locale::global(previous);
}
