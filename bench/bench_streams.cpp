// Throughput of the copy loop between byte vectors against plain memcpy of the same 16384-byte
// blocks, and against the loop's own shape written by hand: each block copied into a buffer on
// the stack and from there appended to the target, with no stream calls around it. Each iteration moves 1 GiB from a 1 GiB source (far larger than any cache, so both
// sides are measured against memory) into a target whose pages are touched before timing
// starts, so neither side pays for growing its vector or for first-touch page faults.
#include <opc/Streams.hpp>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr std::size_t kBlock = 16384;
constexpr std::size_t kSource = std::size_t{1} << 30;
constexpr std::size_t kTotal = std::size_t{1} << 30;
constexpr std::size_t kRounds = kTotal / kSource;

std::vector<unsigned char> const& source() {
    static std::vector<unsigned char> const bytes = [] {
        std::vector<unsigned char> v(kSource);
        for (std::size_t i = 0; i < v.size(); ++i) {
            v[i] = static_cast<unsigned char>(i * 131 + (i >> 13));
        }
        return v;
    }();
    return bytes;
}

void BM_CopyStreamToStream(benchmark::State& state) {
    auto const& in = source();
    std::vector<unsigned char> out(kSource); // touch every page once, as the memcpy target does
    out.clear();                             // and keep the capacity
    for (auto _ : state) {
        for (std::size_t round = 0; round < kRounds; ++round) {
            out.clear(); // keeps the capacity
            opc::ByteArrayInAdaptor reader(in);
            opc::ByteArrayOutAdaptor writer(out);
            bool const ok = opc::StreamHelper::copyStreamToStream(reader, writer);
            benchmark::DoNotOptimize(ok);
            benchmark::ClobberMemory();
        }
    }
    if (out != in) {
        state.SkipWithError("copy differs from its source");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kTotal));
}

void BM_TwoCopiesByHand(benchmark::State& state) {
    auto const& in = source();
    std::vector<unsigned char> out(kSource); // as for the copy loop: pages touched, capacity kept
    for (auto _ : state) {
        for (std::size_t round = 0; round < kRounds; ++round) {
            out.clear();
            for (std::size_t at = 0; at < kSource; at += kBlock) {
                unsigned char buffer[kBlock];
                std::memcpy(buffer, in.data() + at, kBlock);
                benchmark::DoNotOptimize(buffer);
                out.insert(out.end(), buffer, buffer + kBlock);
            }
            benchmark::ClobberMemory();
        }
    }
    if (out != in) {
        state.SkipWithError("copy differs from its source");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kTotal));
}

void BM_MemcpyBlocks(benchmark::State& state) {
    auto const& in = source();
    std::vector<unsigned char> out(kSource); // sized up front: memcpy needs the room to exist
    for (auto _ : state) {
        for (std::size_t round = 0; round < kRounds; ++round) {
            for (std::size_t at = 0; at < kSource; at += kBlock) {
                std::memcpy(out.data() + at, in.data() + at, kBlock);
            }
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    }
    if (out != in) {
        state.SkipWithError("copy differs from its source");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kTotal));
}

} // namespace

BENCHMARK(BM_CopyStreamToStream)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_TwoCopiesByHand)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_MemcpyBlocks)->Unit(benchmark::kMillisecond)->MinTime(2.0);

BENCHMARK_MAIN();
