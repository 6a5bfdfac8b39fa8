// The copy loop: exact call order over scripted streams, generated scripts checked against the
// log, the yield on no progress, no heap allocation, and the standard-stream overloads.
#include "ScriptedStreams.hpp"

#include <opc/Streams.hpp>

#include <gtest/gtest.h>

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <sstream>
#include <stdexcept>

// The library calls sched_yield through the dynamic linker, so this definition replaces the C
// library's for the whole test process and lets the tests count the yields.
namespace {
std::atomic<long> g_yields{0};
std::atomic<bool> g_countAllocations{false};
std::atomic<long> g_allocations{0};
} // namespace

extern "C" int sched_yield() noexcept {
    ++g_yields;
    return 0;
}

// Counting replacements of the global allocation functions (array forms forward to these).
// Kept out of line so the compiler does not pair the inlined malloc/free with new/delete.
__attribute__((noinline)) void* operator new(std::size_t size) {
    if (g_countAllocations) {
        ++g_allocations;
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
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
    for (auto& b : v) {
        b = static_cast<unsigned char>(rng());
    }
    return v;
}

std::string r(unsigned long requested, unsigned long got) {
    return "in.read " + std::to_string(requested) + " -> " + std::to_string(got);
}
std::string w(unsigned long offered, unsigned long claimed) {
    return "out.write " + std::to_string(offered) + " -> " + std::to_string(claimed);
}
std::string const inDone = "in.isDone -> true";
std::string const inMore = "in.isDone -> false";
std::string const outDone = "out.isDone -> true";
std::string const outMore = "out.isDone -> false";

// ---------------------------------------------------------------------------------------------
// Exact call sequences

struct Scenario {
    std::string name;
    std::size_t size;
    std::deque<unsigned long> chunks;
    std::deque<unsigned long> limits;
    long doneAfterReads;
    long doneAfterBytes;
    CallLog expected;
    bool result;
    long yields;
    std::size_t bytesOut;
};

void PrintTo(Scenario const& s, std::ostream* os) { *os << s.name; }

std::vector<Scenario> scenarios() {
    unsigned long const huge = ScriptedOutput::kOverclaim;
    return {
        {"EmptyInputReadsOnceAndNeverWrites", 0, {}, {}, -1, -1, {r(K, 0), inDone}, true, 0, 0},
        {"DribblingInputYieldsOnEmptyReads", 5, {0, 0, 2}, {}, -1, -1,
         {r(K, 0), inMore, r(K, 0), inMore, r(K, 2), inMore, w(2, 2), outMore, r(K, 3), inDone, w(3, 3), outMore},
         true, 2, 5},
        {"RefusingOutputGetsTheRestOffered", 4, {}, {0, 0, 1}, -1, -1,
         {r(K, 4), inDone, w(4, 0), outMore, w(4, 0), outMore, w(4, 1), outMore, w(3, 3), outMore}, true, 3, 4},
        {"OutputDoneMidChunkFailsTheCopy", 10, {}, {4}, -1, 4, {r(K, 10), inDone, w(10, 4), outDone}, false, 0, 4},
        {"OutputDoneAfterWholeChunkEndsCopyWithoutFurtherRead", 40000, {}, {}, -1, 16384,
         {r(K, K), inMore, w(K, K), outDone}, true, 0, 16384},
        {"InputDoneEarlyLeavesDataUnread", 100, {10}, {}, 1, -1, {r(K, 10), inDone, w(10, 10), outMore}, true, 0, 10},
        {"OverclaimingWriteCountsAsWhole", 20000, {}, {huge}, -1, -1,
         {r(K, K), inMore, w(K, huge), outMore, r(K, 3616), inDone, w(3616, 3616), outMore}, true, 0, 20000},
    };
}

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
    bool const result = StreamHelper::copyStreamToStream(in, out);

    EXPECT_EQ(result, s.result);
    EXPECT_EQ(log, s.expected);
    EXPECT_EQ(g_yields - yieldsBefore, s.yields);
    ASSERT_EQ(out.taken.size(), s.bytesOut);
    EXPECT_TRUE(std::equal(out.taken.begin(), out.taken.end(), data.begin()));
}

INSTANTIATE_TEST_SUITE_P(Scripted, CopyLoopSequence, ::testing::ValuesIn(scenarios()),
                         [](auto const& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Generated scripts, checked against what the log says happened

std::deque<unsigned long> randomScript(std::mt19937& rng) {
    std::deque<unsigned long> script(rng() % 24);
    for (auto& step : script) {
        switch (rng() % 4) {
        case 0: step = 0; break;
        case 1: step = 1 + rng() % 16; break;
        case 2: step = 1 + rng() % 20000; break;
        default: step = K; break;
        }
    }
    return script;
}

// Walks the log: every read and write is answered by the matching isDone at once, nothing
// follows a done answer except the writes of the chunk already read, no open/flush/close.
// Returns whether every chunk was taken whole, as the writes' claimed counts say.
bool checkLog(CallLog const& log) {
    bool allWhole = true;
    bool inputDone = false;
    for (std::size_t i = 0; i < log.size(); ++i) {
        std::string const& line = log[i];
        EXPECT_TRUE(line.rfind("in.read", 0) == 0 || line.rfind("out.write", 0) == 0 ||
                    line.rfind("in.isDone", 0) == 0 || line.rfind("out.isDone", 0) == 0)
            << "unexpected call " << line;
        if (line.rfind("in.read", 0) == 0) {
            EXPECT_FALSE(inputDone) << "read after the input reported done, line " << i;
            EXPECT_TRUE(i + 1 < log.size() && log[i + 1].rfind("in.isDone", 0) == 0) << "line " << i;
            inputDone = i + 1 < log.size() && log[i + 1] == inDone;
            unsigned long const n = std::stoul(line.substr(line.find("-> ") + 3));
            unsigned long taken = 0;
            std::size_t j = i + 2;
            while (n != 0 && j < log.size() && log[j].rfind("out.write", 0) == 0) {
                unsigned long const offered = std::stoul(log[j].substr(10));
                EXPECT_EQ(offered, n - taken) << "write offers the rest of the chunk, line " << j;
                taken += std::stoul(log[j].substr(log[j].find("-> ") + 3));
                EXPECT_TRUE(j + 1 < log.size() && log[j + 1].rfind("out.isDone", 0) == 0) << "line " << j;
                if (j + 1 < log.size() && log[j + 1] == outDone) {
                    EXPECT_EQ(j + 2, log.size()) << "calls after the output reported done";
                }
                j += 2;
            }
            if (n != 0) {
                EXPECT_GT(j, i + 2) << "a chunk of " << n << " bytes was never offered";
            }
            allWhole = allWhole && taken >= n;
        }
    }
    return allWhole;
}

TEST(CopyLoopGenerated, CopiesEverythingOverRandomDribblesAndRefusals) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        std::size_t const size = seed % 5 == 0 ? (seed % 4) * K : rng() % 70000;
        auto const data = pattern(size, seed);
        CallLog log;
        ScriptedInput in(log, data, randomScript(rng));
        ScriptedOutput out(log, randomScript(rng));

        long const yieldsBefore = g_yields;
        bool const result = StreamHelper::copyStreamToStream(in, out);

        EXPECT_TRUE(result);
        EXPECT_EQ(out.taken, data);
        EXPECT_TRUE(checkLog(log));
        long chunks = 0;
        for (auto const& line : log) {
            chunks += line.rfind("in.read", 0) == 0 && line.compare(line.size() - 5, 5, " -> 0") != 0;
        }
        // One yield per empty read that was not the end, one per retried write.
        EXPECT_EQ(g_yields - yieldsBefore, in.zeroReadsNotDone + (out.writes - chunks));
        if (::testing::Test::HasFailure()) {
            return;
        }
    }
}

TEST(CopyLoopGenerated, StopsWhereEitherSideReportsDone) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        auto const data = pattern(1 + rng() % 60000, seed);
        CallLog log;
        ScriptedInput in(log, data, randomScript(rng));
        ScriptedOutput out(log, randomScript(rng));
        if (rng() % 2) {
            in.doneAfterReads = static_cast<long>(rng() % 6);
        }
        if (rng() % 2) {
            out.doneAfterBytes = static_cast<long>(rng() % data.size());
        }

        bool const result = StreamHelper::copyStreamToStream(in, out);

        bool const whole = checkLog(log);
        EXPECT_EQ(result, whole);
        ASSERT_LE(out.taken.size(), in.position());
        EXPECT_TRUE(std::equal(out.taken.begin(), out.taken.end(), data.begin()));
        if (whole) {
            EXPECT_EQ(out.taken.size(), in.position()) << "every byte read was written";
        }
        ASSERT_FALSE(log.empty());
        bool const endedByOutput = log.back() == outDone;
        bool const endedByInput = std::find(log.begin(), log.end(), inDone) != log.end();
        EXPECT_TRUE(endedByOutput || endedByInput);
        if (endedByOutput) {
            EXPECT_GE(out.taken.size(), static_cast<std::size_t>(out.doneAfterBytes));
        }
        if (::testing::Test::HasFailure()) {
            return;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Chunking over byte vectors, and no heap use by the loop itself

// Forwards to an inner stream and records the size of every read.
class ReadSizes : public InputStream {
public:
    explicit ReadSizes(InputStream& inner) : m_inner(inner) {}
    std::vector<unsigned long> sizes;
    void open() override { m_inner.open(); }
    unsigned long read(unsigned char* b, unsigned long n) override {
        sizes.push_back(m_inner.read(b, n));
        return sizes.back();
    }
    bool isDone() const override { return m_inner.isDone(); }
    void close() override { m_inner.close(); }

private:
    InputStream& m_inner;
};

TEST(CopyLoopByteArrays, CopiesFortyThousandBytesInThreeReads) {
    auto const data = pattern(40000);
    std::vector<unsigned char> target;
    ByteArrayInAdaptor in(data);
    ReadSizes sizes(in);
    ByteArrayOutAdaptor out(target);

    EXPECT_TRUE(StreamHelper::copyStreamToStream(sizes, out));
    EXPECT_EQ(sizes.sizes, (std::vector<unsigned long>{16384, 16384, 7232}));
    EXPECT_EQ(target, data);
}

TEST(CopyLoopByteArrays, EmptyInputEndsAfterOneEmptyRead) {
    std::vector<unsigned char> const empty;
    ByteArrayInAdaptor in(empty);
    ReadSizes sizes(in);
    CallLog log;
    ScriptedOutput out(log);

    EXPECT_TRUE(StreamHelper::copyStreamToStream(sizes, out));
    EXPECT_EQ(sizes.sizes, std::vector<unsigned long>{0});
    EXPECT_TRUE(log.empty()) << "the output saw " << log.front();
}

// Takes bytes into a fixed array, so the copy itself is the only possible source of allocations.
class FixedOutput : public OutputStream {
public:
    explicit FixedOutput(std::vector<unsigned char>& room) : m_room(room) {}
    unsigned long write(unsigned char const* d, unsigned long n) override {
        std::memcpy(m_room.data() + m_used, d, n);
        m_used += n;
        return n;
    }
    bool isDone() const override { return false; }
    void flush() override {}
    void close() override {}

private:
    std::vector<unsigned char>& m_room;
    std::size_t m_used = 0;
};

TEST(CopyLoopByteArrays, AllocatesNothingOnTheHeap) {
    auto const data = pattern(1 << 20);
    std::vector<unsigned char> room(data.size());
    ByteArrayInAdaptor in(data);
    FixedOutput out(room);

    g_allocations = 0;
    g_countAllocations = true;
    bool const result = StreamHelper::copyStreamToStream(in, out);
    g_countAllocations = false;

    EXPECT_TRUE(result);
    EXPECT_EQ(g_allocations, 0);
    EXPECT_EQ(room, data);
}

// ---------------------------------------------------------------------------------------------
// Standard-stream overloads: only an adaptor is added, nothing opened, flushed or closed

class CountingStringBuf : public std::stringbuf {
public:
    int syncs = 0;

protected:
    int sync() override {
        ++syncs;
        return std::stringbuf::sync();
    }
};

TEST(CopyLoopStandardStreams, InputStreamToOStreamNeitherOpensNorFlushes) {
    auto const data = pattern(20000);
    CallLog log;
    ScriptedInput in(log, data, {0, 100});
    CountingStringBuf buf;
    std::ostream os(&buf);

    EXPECT_TRUE(StreamHelper::copyStreamToStream(in, os));
    EXPECT_EQ(buf.syncs, 0);
    EXPECT_EQ(buf.str(), std::string(data.begin(), data.end()));
    for (auto const& line : log) {
        EXPECT_TRUE(line.rfind("in.read", 0) == 0 || line.rfind("in.isDone", 0) == 0) << line;
    }
}

TEST(CopyLoopStandardStreams, IStreamToOutputStreamStartsAtTheCurrentPosition) {
    std::istringstream is("0123456789");
    is.seekg(4);
    CallLog log;
    ScriptedOutput out(log);

    EXPECT_TRUE(StreamHelper::copyStreamToStream(is, out));
    EXPECT_EQ(std::string(out.taken.begin(), out.taken.end()), "456789");
    EXPECT_EQ(log, (CallLog{"out.write 6 -> 6", outMore}));
    EXPECT_TRUE(is.eof()) << "the stream's state is left as the copy made it";
}

TEST(CopyLoopStandardStreams, IStreamToOStreamCopiesEverything) {
    auto const data = pattern(3 * K + 11);
    std::istringstream is(std::string(data.begin(), data.end()));
    CountingStringBuf buf;
    std::ostream os(&buf);

    EXPECT_TRUE(StreamHelper::copyStreamToStream(is, os));
    EXPECT_EQ(buf.str(), is.str());
    EXPECT_EQ(buf.syncs, 0);
}

TEST(CopyLoopStandardStreams, ExceptionsFromStreamsPropagate) {
    std::istringstream is("short");
    is.exceptions(std::ios_base::failbit);
    std::ostringstream os;
    EXPECT_THROW(StreamHelper::copyStreamToStream(is, os), std::ios_base::failure);

    struct Throwing : ScriptedInput {
        using ScriptedInput::ScriptedInput;
        unsigned long read(unsigned char* b, unsigned long n) override {
            if (reads == 2) {
                throw std::runtime_error("lost");
            }
            return ScriptedInput::read(b, n);
        }
    };
    CallLog log;
    Throwing in(log, pattern(100000));
    EXPECT_THROW(StreamHelper::copyStreamToStream(in, os), std::runtime_error);
    EXPECT_EQ(os.str().size(), 2 * K);
}

} // namespace
} // namespace opc::test
