// Zone conversions against the C library's own reading of TZ, around both transitions in a
// zone west and a zone east of UTC; the local zone's TZ forms; the first use from many threads.
#include <vela/i18n/initialize.hpp>
#include <vela/i18n/time_zone.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdlib>
#include <ctime>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>

namespace tz = vela::i18n::time_zone;
namespace pt = boost::posix_time;
using boost::gregorian::date;

namespace {

pt::ptime const epoch(date(1970, 1, 1));

pt::ptime at(int y, int mo, int d, int h, int mi, int s = 0) {
    return pt::ptime(date(static_cast<unsigned short>(y), static_cast<unsigned short>(mo), static_cast<unsigned short>(d)),
                     pt::time_duration(h, mi, s));
}

/// Sets TZ for the lifetime of the guard and restores the previous value.
struct ScopedTZ {
    explicit ScopedTZ(char const* value) : had(std::getenv("TZ") != nullptr), old(had ? std::getenv("TZ") : "") {
        ::setenv("TZ", value, 1);
        ::tzset();
    }
    ~ScopedTZ() {
        had ? ::setenv("TZ", old.c_str(), 1) : ::unsetenv("TZ");
        ::tzset();
    }
    bool const had;
    std::string const old;
};

// Runs first, so that these threads are the first users of the zone database and the text data;
// the ThreadSanitizer run ("threads" label) checks the guards that order them.
TEST(FirstUse, ManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<pt::ptime> seen(8);
    for (std::size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] {
            vela::i18n::initialize();
            tz::timezone const local("");
            seen[i] = tz::from_utc(at(2024, 7, 1, 12, 0), tz::timezone(i % 2 ? "Asia/Kolkata" : "UTC"));
        });
    for (std::thread& t : threads)
        t.join();
    for (std::size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen[i], i % 2 ? at(2024, 7, 1, 17, 30) : at(2024, 7, 1, 12, 0));
}

class Zones : public ::testing::TestWithParam<char const*> {};

TEST_P(Zones, FromUtcAgreesWithTheCLibraryOverGeneratedInstants) {
    ScopedTZ const guard(GetParam());
    tz::timezone const zone(GetParam());
    EXPECT_EQ(tz::timezone("").id(), GetParam()); // an empty name follows TZ
    std::mt19937_64 rng(42);
    // 1971 to 2037, where both zone databases agree: random instants, plus every half hour
    // of the weeks of March, April, October and November in which the transitions fall.
    std::uniform_int_distribution<std::time_t> pick(31536000, 2145916800);
    std::vector<std::time_t> instants;
    for (int i = 0; i < 3000; ++i)
        instants.push_back(pick(rng));
    for (int year = 1977; year <= 2036; year += 3)
        for (int month : {3, 4, 10, 11})
            for (std::time_t t = (at(year, month, 1, 0, 0) - epoch).total_seconds(), end = t + 31 * 86400; t < end;
                 t += 1800)
                instants.push_back(t);
    for (std::time_t const t : instants) {
        std::tm parts{};
        localtime_r(&t, &parts);
        pt::ptime const utc = epoch + pt::seconds(static_cast<long>(t));
        pt::ptime const local = tz::from_utc(utc, zone);
        ASSERT_EQ(local, at(parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                            parts.tm_sec))
            << utc;
        // Back to UTC: exact, except in a repeated hour, where the earlier instant wins.
        pt::ptime const back = tz::to_utc(local, zone);
        ASSERT_TRUE(back == utc || (back < utc && tz::from_utc(back, zone) == local)) << utc << " -> " << back;
    }
}

INSTANTIATE_TEST_SUITE_P(DaylightSaving, Zones, ::testing::Values("America/New_York", "Europe/Berlin"),
                         [](auto const& info) { return std::string(info.param[0] == 'A' ? "NewYork" : "Berlin"); });

// A repeated wall time gives the earlier instant, a skipped one moves forward by the gap.
TEST(ToUtc, RepeatedAndSkippedWallTimes) {
    tz::timezone const ny("America/New_York"), berlin("Europe/Berlin");
    for (auto const& [local, zone, utc] : {std::tuple{at(2024, 11, 3, 1, 30), ny, at(2024, 11, 3, 5, 30)},
                                           std::tuple{at(2024, 3, 10, 2, 30), ny, at(2024, 3, 10, 7, 30)},
                                           std::tuple{at(2024, 10, 27, 2, 30), berlin, at(2024, 10, 27, 0, 30)},
                                           std::tuple{at(2024, 3, 31, 2, 30), berlin, at(2024, 3, 31, 1, 30)}})
        EXPECT_EQ(tz::to_utc(local, zone), utc) << local;
    EXPECT_EQ(tz::to_utc(at(2024, 7, 1, 12, 0) + pt::microseconds(250), berlin),
              at(2024, 7, 1, 10, 0) + pt::microseconds(250));
    for (pt::ptime const special : {pt::ptime(pt::not_a_date_time), pt::ptime(pt::pos_infin), pt::ptime(pt::neg_infin)})
        EXPECT_TRUE(tz::from_utc(special, berlin) == special && tz::to_utc(special, berlin) == special) << special;
}

TEST(Zone, NamesAndTZForms) {
    EXPECT_THROW(tz::timezone("Nowhere/Special"), std::invalid_argument);
    // TZ as ":identifier", as a path into the zone database, empty (UTC), and one for which the
    // host's detection finds only the unknown zone (UTC instead).
    struct Form {
        char const* value;
        char const* id;
        int hours; // ahead of UTC on 1 January 2024
    };
    for (Form const& f : {Form{":Asia/Tokyo", "Asia/Tokyo", 9},
                          Form{"/usr/share/zoneinfo/Australia/Sydney", "Australia/Sydney", 11}, Form{"", "GMT", 0},
                          Form{":", "GMT", 0}}) {
        ScopedTZ const guard(f.value);
        tz::timezone const local("");
        EXPECT_EQ(local.id(), f.id) << f.value;
        EXPECT_EQ(tz::from_utc(at(2024, 1, 1, 0, 0), local), at(2024, 1, 1, f.hours, 0)) << f.value;
    }
    tz::timezone b("UTC");
    b = tz::timezone("Asia/Kolkata");
    EXPECT_EQ(tz::from_utc(at(2024, 1, 1, 0, 0), b), at(2024, 1, 1, 5, 30));
}

} // namespace
