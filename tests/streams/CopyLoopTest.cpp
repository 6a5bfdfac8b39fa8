// The copy loop: exact call order over scripted streams, generated scripts checked against the
// log, the yield on no progress, no heap allocation, and the standard-stream overloads.
#include "ScriptedStreams.hpp"

#include <opc/Streams.hpp>

#include <gtest/gtest.h>

#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <sstream>

// The library reaches sched_yield through the dynamic linker, so this definition counts its yields.
namespace {
std::atomic<long> g_yields{0};
std::atomic<bool> g_countAllocations{false};
std::atomic<long> g_allocations{0};
} // namespace

extern "C" int sched_yield() noexcept {
    ++g_yields;
    return 0;
}

// Counting global allocation (the array forms forward here). Out of line so the compiler does
// not pair an inlined malloc/free with new/delete.
__attribute__((noinline)) void* operator new(std::size_t size) {
    g_allocations += g_countAllocations ? 1 : 0;
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace opc::test {
namespace {

constexpr unsigned long K = 16384;

std::vector<unsigned char> pattern(std::size_t n, unsigned seed = 1) {
    std::vector<unsigned char> v(n);
    std::mt19937 rng(seed);
    for (auto& b : v)
        b = static_cast<unsigned char>(rng());
    return v;
}

std::string r(unsigned long asked, unsigned long got) {
    return "in.read " + std::to_string(asked) + " -> " + std::to_string(got);
}
std::string w(unsigned long offered, unsigned long claimed) {
    return "out.write " + std::to_string(offered) + " -> " + std::to_string(claimed);
}
std::string const inDone = "in.isDone -> true", inMore = "in.isDone -> false";
std::string const outDone = "out.isDone -> true", outMore = "out.isDone -> false";
bool startsWith(std::string const& s, char const* head) { return s.rfind(head, 0) == 0; }

struct Scenario {
    std::string name;
    std::size_t size;
    std::deque<unsigned long> chunks, limits;
    long doneAfterReads, doneAfterBytes;
    CallLog expected;
    bool result;
    long yields;
    std::size_t bytesOut;
};
void PrintTo(Scenario const& s, std::ostream* os) { *os << s.name; }

unsigned long const huge = ScriptedOutput::kOverclaim;
Scenario const scenarios[] = {
    {"EmptyInputReadsOnceAndNeverWrites", 0, {}, {}, -1, -1, {r(K, 0), inDone}, true, 0, 0},
    {"DribblingInputYieldsOnEmptyReads", 5, {0, 0, 2}, {}, -1, -1,
     {r(K, 0), inMore, r(K, 0), inMore, r(K, 2), inMore, w(2, 2), outMore, r(K, 3), inDone, w(3, 3), outMore},
     true, 2, 5},
    {"RefusingOutputGetsTheRestOffered", 4, {}, {0, 0, 1}, -1, -1,
     {r(K, 4), inDone, w(4, 0), outMore, w(4, 0), outMore, w(4, 1), outMore, w(3, 3), outMore}, true, 3, 4},
    {"OutputDoneMidChunkFailsTheCopy", 10, {}, {4}, -1, 4, {r(K, 10), inDone, w(10, 4), outDone}, false, 0, 4},
    {"OutputDoneAfterWholeChunkStopsReading", 40000, {}, {}, -1, K, {r(K, K), inMore, w(K, K), outDone}, true, 0, K},
    {"InputDoneEarlyLeavesDataUnread", 100, {10}, {}, 1, -1, {r(K, 10), inDone, w(10, 10), outMore}, true, 0, 10},
    {"OverclaimingWriteCountsAsWhole", 20000, {}, {huge}, -1, -1,
     {r(K, K), inMore, w(K, huge), outMore, r(K, 3616), inDone, w(3616, 3616), outMore}, true, 0, 20000},
};

class CopyLoopSequence : public ::testing::TestWithParam<Scenario> {};

TEST_P(CopyLoopSequence, MakesExactlyTheDescribedCalls) {
    Scenario const& s = GetParam();
    CallLog log;
    auto const data = pattern(s.size);
    ScriptedInput in(log, data, s.chunks);
    in.doneAfterReads = s.doneAfterReads;
    ScriptedOutput out(log, s.limits);
    out.doneAfterBytes = s.doneAfterBytes;
    long const yieldsBefore = g_yields;
    EXPECT_EQ(StreamHelper::copyStreamToStream(in, out), s.result);
    EXPECT_EQ(log, s.expected);
    EXPECT_EQ(g_yields - yieldsBefore, s.yields);
    ASSERT_EQ(out.taken.size(), s.bytesOut);
    EXPECT_TRUE(std::equal(out.taken.begin(), out.taken.end(), data.begin()));
}

INSTANTIATE_TEST_SUITE_P(Scripted, CopyLoopSequence, ::testing::ValuesIn(scenarios),
                         [](auto const& info) { return info.param.name; });

std::deque<unsigned long> randomScript(std::mt19937& rng) {
    std::deque<unsigned long> script(rng() % 24);
    for (auto& step : script) {
        unsigned const kind = rng() % 4;
        step = kind == 0 ? 0 : kind == 1 ? 1 + rng() % 16 : kind == 2 ? 1 + rng() % 20000 : K;
    }
    return script;
}

// Walks the log: each read and write is answered at once by the matching isDone, writes offer
// the rest of the chunk, nothing follows a done answer but the writes of the chunk in hand, and
// no open/flush/close. Returns whether every chunk was taken whole by the claimed counts.
bool checkLog(CallLog const& log) {
    bool allWhole = true, inputDone = false;
    auto count = [](std::string const& line) { return std::stoul(line.substr(line.find("-> ") + 3)); };
    for (std::size_t i = 0; i < log.size(); ++i) {
        std::string const& line = log[i];
        EXPECT_TRUE(startsWith(line, "in.read") || startsWith(line, "out.write") || startsWith(line, "in.isDone") ||
                    startsWith(line, "out.isDone"))
            << "unexpected call " << line;
        if (!startsWith(line, "in.read"))
            continue;
        EXPECT_FALSE(inputDone) << "read after the input reported done, line " << i;
        EXPECT_TRUE(i + 1 < log.size() && startsWith(log[i + 1], "in.isDone")) << "line " << i;
        inputDone = i + 1 < log.size() && log[i + 1] == inDone;
        unsigned long const n = count(line);
        unsigned long taken = 0;
        std::size_t j = i + 2;
        for (; n != 0 && j < log.size() && startsWith(log[j], "out.write"); j += 2) {
            EXPECT_EQ(std::stoul(log[j].substr(10)), n - taken) << "line " << j;
            taken += count(log[j]);
            EXPECT_TRUE(j + 1 < log.size() && startsWith(log[j + 1], "out.isDone")) << "line " << j;
            EXPECT_TRUE(j + 1 >= log.size() || log[j + 1] != outDone || j + 2 == log.size())
                << "calls after the output reported done";
        }
        EXPECT_TRUE(n == 0 || j > i + 2) << "a chunk of " << n << " bytes was never offered";
        allWhole = allWhole && taken >= n;
    }
    return allWhole;
}

// Random dribbles and refusals, and in every other run a side that reports done early.
TEST(CopyLoopGenerated, AgreesWithItsLogOverRandomScripts) {
    for (unsigned seed = 0; seed < 600; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        bool const early = seed % 2;
        std::size_t const size = seed % 10 == 0 ? (seed / 10 % 4) * K : early + rng() % 70000;
        auto const data = pattern(size, seed);
        CallLog log;
        ScriptedInput in(log, data, randomScript(rng));
        ScriptedOutput out(log, randomScript(rng));
        if (early && rng() % 2)
            in.doneAfterReads = static_cast<long>(rng() % 6);
        if (early && rng() % 2)
            out.doneAfterBytes = static_cast<long>(rng() % size);

        long const yieldsBefore = g_yields;
        bool const result = StreamHelper::copyStreamToStream(in, out);
        bool const whole = checkLog(log);

        EXPECT_EQ(result, whole);
        ASSERT_LE(out.taken.size(), in.position());
        EXPECT_TRUE(std::equal(out.taken.begin(), out.taken.end(), data.begin()));
        EXPECT_TRUE(!whole || out.taken.size() == in.position()) << "every byte read was written";
        ASSERT_FALSE(log.empty());
        bool const byOutput = log.back() == outDone;
        EXPECT_TRUE(byOutput || std::find(log.begin(), log.end(), inDone) != log.end());
        EXPECT_TRUE(!byOutput || out.taken.size() >= static_cast<std::size_t>(out.doneAfterBytes));
        if (!early) {
            EXPECT_TRUE(result);
            EXPECT_EQ(out.taken, data);
            long chunks = 0;
            for (auto const& line : log)
                chunks += startsWith(line, "in.read") && line.compare(line.size() - 5, 5, " -> 0") != 0;
            // One yield per empty read that was not the end, one per retried write.
            EXPECT_EQ(g_yields - yieldsBefore, in.zeroReadsNotDone + (out.writes - chunks));
        }
        if (::testing::Test::HasFailure())
            return;
    }
}

// Records the size of every read of the stream it wraps.
class ReadSizes : public InputStream {
public:
    explicit ReadSizes(InputStream& inner) : m_inner(inner) {}
    std::vector<unsigned long> sizes;
    void open() override { m_inner.open(); }
    unsigned long read(unsigned char* b, unsigned long n) override { return sizes.emplace_back(m_inner.read(b, n)); }
    bool isDone() const override { return m_inner.isDone(); }
    void close() override { m_inner.close(); }

private:
    InputStream& m_inner;
};

// Over byte vectors the loop reads in 16 KiB steps and allocates nothing on the heap (the
// output's room and the size log are reserved beforehand).
TEST(CopyLoopByteArrays, CopiesFortyThousandBytesInThreeReadsWithoutAllocating) {
    auto const data = pattern(40000);
    std::vector<unsigned char> target;
    target.reserve(data.size());
    ByteArrayInAdaptor in(data);
    ReadSizes sizes(in);
    sizes.sizes.reserve(8);
    ByteArrayOutAdaptor out(target);
    g_allocations = 0;
    g_countAllocations = true;
    bool const result = StreamHelper::copyStreamToStream(sizes, out);
    g_countAllocations = false;
    EXPECT_TRUE(result);
    EXPECT_EQ(g_allocations, 0);
    EXPECT_EQ(sizes.sizes, (std::vector<unsigned long>{16384, 16384, 7232}));
    EXPECT_EQ(target, data);
}

class CountingStringBuf : public std::stringbuf {
public:
    int syncs = 0;

protected:
    int sync() override {
        ++syncs;
        return std::stringbuf::sync();
    }
};

// The standard-stream overloads only add an adaptor: they start where a stream stands and
// neither open, flush nor close.
TEST(CopyLoopStandardStreams, CopyFromTheCurrentPositionWithoutFlushing) {
    auto const data = pattern(3 * K + 11);
    std::string const text(data.begin(), data.end());
    CallLog log;
    {
        ScriptedInput in(log, data, {0, 100});
        CountingStringBuf buf;
        std::ostream os(&buf);
        EXPECT_TRUE(StreamHelper::copyStreamToStream(in, os));
        EXPECT_EQ(buf.str(), text);
        EXPECT_EQ(buf.syncs, 0);
        for (auto const& line : log)
            EXPECT_TRUE(startsWith(line, "in.read") || startsWith(line, "in.isDone")) << line;
    }
    std::istringstream is("0123456789");
    is.seekg(4);
    log.clear();
    ScriptedOutput out(log);
    EXPECT_TRUE(StreamHelper::copyStreamToStream(is, out));
    EXPECT_EQ(std::string(out.taken.begin(), out.taken.end()), "456789");
    EXPECT_EQ(log, (CallLog{w(6, 6), outMore}));
}

} // namespace
} // namespace opc::test
