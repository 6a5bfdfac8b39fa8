// Kept in its own executable so the threads below really are the first users of the two
// time-format locales.

#include <opc/Time.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace pt = boost::posix_time;

TEST(TimeFirstUse, ConcurrentFirstCallsFromSeveralThreads) {
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
                std::this_thread::yield();
            }
            pt::ptime const base(boost::gregorian::date(2000 + t, 1, 1 + t));
            for (int i = 0; i < 200; ++i) {
                pt::ptime const time = base + pt::minutes(i * 37 + t);
                // Half the threads start by reading, half by writing.
                if (t % 2 == 0) {
                    if (!opc::convertStringToTime(u"1999-12-31T23:59:59Z").is_not_a_date_time() &&
                        opc::convertStringToTime(opc::convertTimeToString(time)) == time) {
                        continue;
                    }
                } else if (opc::convertStringToTime(opc::convertTimeToString(time)) == time) {
                    continue;
                }
                failures.fetch_add(1);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
}
