// The time text of the library against the C library's strftime and strptime + timegm.

#include <opc/Time.hpp>

#include <benchmark/benchmark.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <ctime>
#include <string>

namespace {

namespace pt = boost::posix_time;

pt::ptime sample(int i) {
    return pt::ptime(boost::gregorian::date(2024, 3, 9), pt::seconds(7 * 3600 + 5 * 60 + (i % 60)));
}

void Format_Library(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        std::u16string text = opc::convertTimeToString(sample(i++));
        benchmark::DoNotOptimize(text.data());
    }
}

void Format_Strftime(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        std::time_t const t = 1709967901 + (i++ % 60);
        std::tm parts{};
        gmtime_r(&t, &parts);
        char buffer[32];
        std::size_t const n = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
        std::string text(buffer, n);
        benchmark::DoNotOptimize(text.data());
    }
}

void Parse_Library(benchmark::State& state) {
    std::u16string const text = u"2024-03-09T07:05:01Z";
    for (auto _ : state) {
        pt::ptime time = opc::convertStringToTime(text);
        benchmark::DoNotOptimize(time);
    }
}

void Parse_Strptime(benchmark::State& state) {
    std::string const text = "2024-03-09T07:05:01Z";
    for (auto _ : state) {
        std::tm parts{};
        char const* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
        std::time_t t = end != nullptr && *end == '\0' ? timegm(&parts) : -1;
        benchmark::DoNotOptimize(t);
    }
}

} // namespace

BENCHMARK(Format_Library);
BENCHMARK(Format_Strftime);
BENCHMARK(Parse_Library);
BENCHMARK(Parse_Strptime);

BENCHMARK_MAIN();
