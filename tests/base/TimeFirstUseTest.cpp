// Kept in its own executable so the threads below really are the first users of the time
// text and of the local zone.
#include <opc/Time.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <atomic>
#include <thread>
#include <vector>

namespace pt = boost::posix_time;

TEST(TimeFirstUse, ConcurrentFirstCallsFromSeveralThreads) {
    constexpr int kThreads = 8;
    std::atomic<int> ready{0}, failures{0};
    std::vector<std::thread> threads;
    pt::ptime const noon(boost::gregorian::date(2024, 7, 1), pt::hours(12));
    std::vector<pt::ptime> local(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (ready.fetch_add(1); ready.load() < kThreads;) std::this_thread::yield();
            pt::ptime const base(boost::gregorian::date(2000 + t, 1, 1 + t));
            // A third of the threads start with the local zone; all must agree with a later call.
            if (t % 3 == 0) local[t] = opc::convertToLocalTime(noon);
            // Half the threads start by reading, half by writing.
            if (t % 2 == 0 && opc::convertStringToTime(u"1999-12-31T23:59:59Z") != pt::time_from_string("1999-12-31 23:59:59")) {
                failures.fetch_add(1);
            }
            for (int i = 0; i < 200; ++i) {
                pt::ptime const time = base + pt::minutes(i * 37 + t);
                if (opc::convertStringToTime(opc::convertTimeToString(time)) != time) failures.fetch_add(1);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; t += 3) EXPECT_EQ(local[t], opc::convertToLocalTime(noon));
}
