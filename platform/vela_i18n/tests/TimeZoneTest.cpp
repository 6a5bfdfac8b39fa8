// Each TZ form (":identifier", a zone database path, a bare identifier; "" and ":" read as UTC)
// gives the zone the C library reads from it, checked at random instants and every half hour of
// the weeks of the transitions, 1971 to 2037. Back to UTC is exact but in a repeated hour (the
// earlier instant wins). Skipped wall times and the first use are the library's tests' to check.
#include <vela/i18n/time_zone.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdlib>
#include <ctime>
#include <random>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace tz = vela::i18n::time_zone;
namespace pt = boost::posix_time;
using boost::gregorian::date;

namespace {

pt::ptime const epoch(date(1970, 1, 1));

TEST(Zone, TZFormsAgreeWithTheCLibrary) {
    EXPECT_THROW(tz::timezone("Nowhere/Special"), std::invalid_argument);
    std::mt19937_64 rng(42);
    std::uniform_int_distribution<std::time_t> pick(31536000, 2145916800);
    std::vector<std::time_t> instants;
    for (int i = 0; i < 3000; ++i)
        instants.push_back(pick(rng));
    for (int year = 1977; year <= 2036; year += 3)
        for (int month : {3, 4, 10, 11})
            for (std::time_t t = (pt::ptime(date(year, month, 1)) - epoch).total_seconds(), end = t + 31 * 86400; t < end; t += 1800)
                instants.push_back(t);
    for (auto const& [value, id] : {std::pair{"America/New_York", "America/New_York"},
                                    {"Europe/Berlin", "Europe/Berlin"},
                                    {":Asia/Tokyo", "Asia/Tokyo"},
                                    {"/usr/share/zoneinfo/Australia/Sydney", "Australia/Sydney"},
                                    {"", "GMT"},
                                    {":", "GMT"},
                                    {nullptr, nullptr}}) {   // unset: the host's zone, not the fallback
        value ? ::setenv("TZ", value, 1) : ::unsetenv("TZ"); // the process ends with this test
        ::tzset();
        char const* const name = value ? value : "(unset)";
        tz::timezone const local("");
        if (id) {
            EXPECT_EQ(local.id(), id) << value;
        } else if (::access("/etc/localtime", R_OK) == 0) {
            EXPECT_NE(local.id(), "GMT");
        }
        for (std::time_t const t : instants) {
            std::tm parts{};
            localtime_r(&t, &parts);
            pt::ptime const utc = epoch + pt::seconds(static_cast<long>(t));
            pt::ptime const wall = tz::from_utc(utc, local);
            ASSERT_EQ(wall, pt::ptime_from_tm(parts)) << name << ' ' << utc;
            pt::ptime const back = tz::to_utc(wall, local);
            ASSERT_TRUE(back == utc || (back < utc && tz::from_utc(back, local) == wall)) << name << ' ' << utc;
        }
    }
}

} // namespace
