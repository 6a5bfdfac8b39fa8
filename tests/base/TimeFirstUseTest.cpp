// Kept in its own executable so that the calls below really are the first users of the text
// library, the time text and the local zone.
#include "support/HostFolder.hpp"

#include <opc/Text.hpp>
#include <opc/Time.hpp>
#include <vela/i18n/initialize.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace pt = boost::posix_time;

// Every entry point that needs the text library sets it up first: each is called in a child
// of a process that has not, so that its call is the first.
TEST(TimeFirstUse, EveryEntryPointSetsUpTheTextLibraryFirst) {
    std::pair<char const*, std::function<void()>> const calls[] = {
        {"toString", [] { opc::toString(std::string("a"), true); }},
        {"toUDEString", [] { opc::toUDEString(u"a"); }},
        {"toLowerASCIIString", [] { opc::toLowerASCIIString(u"a"); }},
        {"toLowerString", [] { opc::toLowerString(u"a"); }},
        {"caselessCompare", [] { opc::caselessCompare(u"a", u"b"); }},
        {"toUTF8String", [] { opc::detail::toUTF8String(u"a", true); }},
        {"toStringFromUTF8String", [] { opc::detail::toStringFromUTF8String("a", true); }},
        {"convertTimeToString", [] { opc::convertTimeToString(pt::ptime(boost::gregorian::date(2024, 1, 1))); }},
        {"convertStringToTime", [] { opc::convertStringToTime(u"2024-01-01T00:00:00Z"); }},
    };
    ASSERT_FALSE(vela::i18n::is_initialized());
    for (auto const& call : calls) {
        std::string const report = opc::test::inChild([&] {
            call.second();
            return std::string(vela::i18n::is_initialized() ? "" : "the text library was not set up");
        });
        EXPECT_EQ(report, "") << call.first;
    }
}

// Threads started together make their first calls at once: every third with the local zone
// (which a later call must match), the even ones by reading a time, the others by writing one.
TEST(TimeFirstUse, ConcurrentFirstCallsFromSeveralThreads) {
    constexpr int kThreads = 8;
    std::atomic<int> ready{0}, failures{0};
    pt::ptime const noon(boost::gregorian::date(2024, 7, 1), pt::hours(12));
    std::vector<pt::ptime> local(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (ready.fetch_add(1); ready.load() < kThreads;) std::this_thread::yield();
            if (t % 3 == 0) local[t] = opc::convertToLocalTime(noon);
            if (t % 2 == 0) failures += opc::convertStringToTime(u"1999-12-31T23:59:59Z") != pt::time_from_string("1999-12-31 23:59:59");
            for (int i = 0; i < 200; ++i) {
                pt::ptime const time = pt::ptime(boost::gregorian::date(2000 + t, 1, 1 + t)) + pt::minutes(i * 37 + t);
                failures += opc::convertStringToTime(opc::convertTimeToString(time)) != time;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; t += 3) EXPECT_EQ(local[t], opc::convertToLocalTime(noon));
}
