// The adaptors against simple models under generated operations, the copy loop over scripted
// streams against its own call log, and the Source and Sink wrappers.
#include <opc/Streams.hpp>

#include <gtest/gtest.h>

#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <new>
#include <random>
#include <sstream>

// The library reaches these through the dynamic linker, so the test counts yields and allocations.
static std::atomic<long> g_yields{0}, g_allocations{0};
extern "C" int sched_yield() noexcept { return ++g_yields, 0; }
__attribute__((noinline)) void* operator new(std::size_t size) {
    ++g_allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace opc::test {
namespace {

using Bytes = std::vector<unsigned char>;
using Log = std::vector<std::string>;

Bytes randomBytes(std::mt19937& rng, std::size_t n) {
    Bytes v(n);
    for (auto& b : v) b = static_cast<unsigned char>(rng());
    return v;
}

// Random reads, closes and opens against a model of a position, an open flag and, for a
// standard stream, its state: open rewinds only a closed adaptor (and clears the stream's
// flags), a closed one reads nothing. A vector may grow under its adaptor and is done at its
// end; a stream's adaptor starts where the stream stands, done once the stream is not good.
TEST(InputAdaptors, FollowModelsUnderGeneratedOperations) {
    for (unsigned seed = 0; seed < 400; ++seed) {
        std::mt19937 rng(seed);
        bool const overStream = seed % 2;
        Bytes data = randomBytes(rng, seed % 8 == 0 ? 0 : rng() % 300);
        std::istringstream is(std::string(data.begin(), data.end()));
        std::size_t pos = overStream ? rng() % (data.size() + 1) : 0;
        bool open = true, failed = overStream && rng() % 4 == 0;
        is.seekg(long(pos));
        is.setstate(failed ? std::ios_base::badbit : std::ios_base::goodbit);
        ByteArrayInAdaptor bytes(data);
        StdIStreamAdaptor stream(is);
        InputStream& in = overStream ? static_cast<InputStream&>(stream) : bytes;
        for (int step = 0; step < 60; ++step) {
            ASSERT_EQ(in.isDone(), !open || failed || (!overStream && pos >= data.size())) << seed;
            unsigned const action = rng() % 6;
            if (action < 2) {
                action ? in.close() : in.open();
                failed = failed && (open || action);
                pos = open || action ? pos : 0;
                open = !action;
            } else if (action == 2 && !overStream) {
                Bytes const more = randomBytes(rng, rng() % 40);
                data.insert(data.end(), more.begin(), more.end());
            } else {
                unsigned long const want = rng() % 70;
                Bytes buf(want + 1, 0xAB);
                unsigned long const got = in.read(buf.data(), want);
                ASSERT_EQ(got, open && !failed ? std::min<std::size_t>(want, data.size() - pos) : 0) << seed;
                ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + long(got), data.begin() + long(pos))) << seed;
                ASSERT_EQ(buf[got], 0xAB) << "wrote past the count";
                pos += got;
                failed = failed || (overStream && open && got < want);
            }
        }
    }
}

// Whatever the owner does to the vector, each write leaves what "resize to position + size,
// then copy" leaves; flush and close change nothing, and it is never done. Every fourth seed
// writes blocks of up to 9000 bytes from any offset within a 64-byte line, into room the
// owner reserved or not.
TEST(ByteArrayOutAdaptor, MatchesResizeThenCopyWhateverTheOwnerDoes) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        std::mt19937 rng(seed);
        unsigned const largest = seed % 4 ? 40 : 9000;
        Bytes target = randomBytes(rng, rng() % 50), model = target;
        ByteArrayOutAdaptor out(target);
        std::size_t pos = target.size();
        for (int step = 0; step < 40; ++step) {
            unsigned const action = rng() % 5;
            if (action == 0)
                model = target = randomBytes(rng, rng() % (pos + 30));
            else if (action == 1)
                step % 2 ? out.flush() : out.close();
            else if (action == 2)
                target.reserve(pos + rng() % (2 * largest));
            std::size_t const skip = rng() % 64;
            Bytes const block = randomBytes(rng, skip + rng() % largest);
            Bytes const chunk(block.begin() + long(skip), block.end());
            ASSERT_EQ(out.write(block.data() + skip, chunk.size()), chunk.size());
            model.resize(pos + chunk.size());
            std::copy(chunk.begin(), chunk.end(), model.begin() + long(pos));
            pos += chunk.size();
            ASSERT_EQ(target, model) << seed;
            ASSERT_FALSE(out.isDone());
        }
    }
}

// Delivers the data in the sizes of `chunks` (0: nothing now), then whole requests; done when
// all went out or after `doneAfterReads` reads. Logs "r<asked>:<got>" and "i<done>".
struct ScriptedInput : InputStream {
    Log& log;
    Bytes data;
    std::deque<unsigned long> chunks;
    long doneAfterReads = -1, reads = 0;
    std::size_t pos = 0;
    ScriptedInput(Log& l, Bytes d, std::deque<unsigned long> c) : log(l), data(std::move(d)), chunks(std::move(c)) {}
    void open() override { log.push_back("open"); }
    void close() override { log.push_back("close"); }
    unsigned long read(unsigned char* buffer, unsigned long size) override {
        unsigned long const n = std::min<unsigned long>({size, data.size() - pos, chunks.empty() ? size : chunks.front()});
        if (!chunks.empty()) chunks.pop_front();
        std::copy_n(data.data() + pos, n, buffer);
        pos += n, ++reads;
        log.push_back("r" + std::to_string(size) + ":" + std::to_string(n));
        return n;
    }
    bool isDone() const override {
        bool const d = pos >= data.size() || (doneAfterReads >= 0 && reads >= doneAfterReads);
        log.push_back(d ? "i1" : "i0");
        return d;
    }
};

// Takes at most `limits.front()` bytes per write while limits remain (0: refuse; ~0: take all
// and claim (unsigned long)-1 as a failing standard stream does); done after `doneAfterBytes`.
// Logs "w<offered>:<claimed>" and "o<done>".
struct ScriptedOutput : OutputStream {
    Log& log;
    std::deque<unsigned long> limits;
    long doneAfterBytes = -1;
    Bytes taken;
    ScriptedOutput(Log& l, std::deque<unsigned long> lim) : log(l), limits(std::move(lim)) {}
    void flush() override { log.push_back("flush"); }
    void close() override { log.push_back("close"); }
    unsigned long write(unsigned char const* d, unsigned long size) override {
        unsigned long claimed = limits.empty() ? size : limits.front();
        unsigned long const n = claimed == ~0ul ? size : (claimed = std::min(size, claimed));
        if (!limits.empty()) limits.pop_front();
        taken.insert(taken.end(), d, d + n);
        log.push_back("w" + std::to_string(size) + ":" + std::to_string(claimed));
        return claimed;
    }
    bool isDone() const override {
        bool const d = doneAfterBytes >= 0 && taken.size() >= std::size_t(doneAfterBytes);
        log.push_back(d ? "o1" : "o0");
        return d;
    }
};

std::deque<unsigned long> randomScript(std::mt19937& rng) {
    std::deque<unsigned long> script(rng() % 24);
    for (auto& step : script) {
        unsigned long const sizes[] = {0, 1 + rng() % 16, 1 + rng() % 20000, 16384};
        step = sizes[rng() % 4];
    }
    return script;
}

// What the loop must have done, read off its log: each read of 16 KiB is followed by the
// input's isDone, each write by the output's; a chunk is offered, its rest each time, until
// taken whole or the output is done; nothing after a done answer but the chunk in hand; no
// other call (no empty write, open, flush or close); one yield per empty read that was not the
// end and per retried write.
// Returns whether every chunk was taken whole.
bool checkLog(Log const& log, long yields) {
    bool whole = true, inputDone = false;
    long expectedYields = 0;
    auto num = [](std::string const& s, bool second) {
        return std::stoul(second ? s.substr(s.find(':') + 1) : s.substr(1));
    };
    for (std::size_t i = 0; i < log.size(); ++i) {
        if (log[i][0] != 'r') {
            ADD_FAILURE() << log[i] << " outside a read's turn, at " << i;
            continue;
        }
        EXPECT_FALSE(inputDone) << "read after the input reported done, at " << i;
        EXPECT_EQ(num(log[i], false), 16384u);
        EXPECT_TRUE(i + 1 < log.size() && log[i + 1][0] == 'i') << "at " << i;
        inputDone = i + 1 < log.size() && log[i + 1] == "i1";
        unsigned long const n = num(log[i], true);
        expectedYields += n == 0 && !inputDone;
        unsigned long taken = 0;
        std::size_t j = i + 2;
        for (; n != 0 && j < log.size() && log[j][0] == 'w'; j += 2) {
            EXPECT_EQ(num(log[j], false), n - taken) << "at " << j;
            expectedYields += j > i + 2;
            taken += num(log[j], true);
            EXPECT_TRUE(j + 1 < log.size() && log[j + 1][0] == 'o') << "at " << j;
            EXPECT_TRUE(log[j + 1] != "o1" || j + 2 == log.size()) << "calls after the output reported done";
        }
        EXPECT_TRUE(n == 0 || j > i + 2) << "a chunk of " << n << " bytes was never offered";
        whole = whole && taken >= n;
        i = j - 1;
    }
    EXPECT_EQ(yields, expectedYields);
    return whole;
}

// Random dribbles, refusals and over-claims, and in every other run a side that is done early.
TEST(CopyLoop, AgreesWithItsLogOverRandomScripts) {
    for (unsigned seed = 0; seed < 600; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        bool const early = seed % 2;
        std::size_t const size = seed % 10 == 0 ? (seed / 10 % 4) * 16384 : early + rng() % 70000;
        Bytes const data = randomBytes(rng, size);
        Log log;
        ScriptedInput in(log, data, randomScript(rng));
        ScriptedOutput out(log, randomScript(rng));
        if (early && rng() % 2) in.doneAfterReads = long(rng() % 6);
        if (early && rng() % 2) out.doneAfterBytes = long(rng() % size);
        long const yieldsBefore = g_yields;
        bool const result = StreamHelper::copyStreamToStream(in, out);
        EXPECT_EQ(result, checkLog(log, g_yields - yieldsBefore));
        ASSERT_LE(out.taken.size(), in.pos);
        EXPECT_TRUE(std::equal(out.taken.begin(), out.taken.end(), data.begin()));
        EXPECT_TRUE((!log.empty() && log.back() == "o1") || std::find(log.begin(), log.end(), "i1") != log.end());
        EXPECT_TRUE(early || (result && out.taken == data));
        if (::testing::Test::HasFailure()) return;
    }
}

// Over byte vectors the loop allocates nothing.
TEST(CopyLoop, ByteArraysWithoutAllocation) {
    std::mt19937 rng(1);
    Bytes const data = randomBytes(rng, 40000);
    Bytes target;
    target.reserve(data.size());
    ByteArrayInAdaptor in(data);
    ByteArrayOutAdaptor out(target);
    long const allocationsBefore = g_allocations;
    EXPECT_TRUE(StreamHelper::copyStreamToStream(in, out));
    EXPECT_EQ(g_allocations - allocationsBefore, 0);
    EXPECT_EQ(target, data);
}

// A room of `capacity` bytes; seeking reports the put position, or fails when not seekable.
class LimitedBuf : public std::streambuf {
public:
    LimitedBuf(std::size_t capacity, bool seekable) : m_room(capacity), m_seekable(seekable) {
        setp(m_room.data(), m_room.data() + m_room.size());
    }
    std::string str() const { return std::string(pbase(), pptr()); }
    int syncs = 0;

protected:
    pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override {
        return m_seekable ? pos_type(pptr() - pbase()) : pos_type(off_type(-1));
    }
    int sync() override { return ++syncs, 0; }

private:
    std::vector<char> m_room;
    bool m_seekable;
};

// The output adaptor's count is the movement of the put position, so odd streams give odd
// counts, and it syncs the stream on flush only. The copy overloads for standard streams start
// where a stream stands and never flush.
TEST(StandardStreams, CountsAreTheMovementOfThePutPositionAndCopiesNeverFlush) {
    unsigned char const data[8] = {'0', '1', '2', '3', '4', '5', '6', '7'};
    std::ostringstream good("xy", std::ios_base::ate);
    StdOStreamAdaptor toGood(good);
    EXPECT_EQ(toGood.write(data, 3), 3u);
    EXPECT_FALSE(toGood.isDone());
    EXPECT_EQ(good.str(), "xy012");
    good.setstate(std::ios_base::failbit);
    EXPECT_TRUE(toGood.isDone());
    EXPECT_EQ(toGood.write(data, 3), 0u);
    LimitedBuf small(10, true), unseekable(100, false), roomy(100, true);
    std::ostream midway(&small), blind(&unseekable), copied(&roomy);
    StdOStreamAdaptor toMidway(midway), toBlind(blind);
    ASSERT_EQ(toMidway.write(data, 4), 4u);
    EXPECT_EQ(toMidway.write(data, 8), static_cast<unsigned long>(std::int64_t{-1} - 4)) << "only 6 fit";
    EXPECT_TRUE(toMidway.isDone());
    EXPECT_EQ(toBlind.write(data, 3), 0u) << "the bytes went out, but the position is unknown";
    EXPECT_EQ(unseekable.str(), "012");
    toBlind.close();
    EXPECT_EQ(unseekable.syncs, 0);
    toBlind.flush();
    EXPECT_EQ(unseekable.syncs, 1);
    std::istringstream is("0123456789");
    is.seekg(4);
    Log log;
    ScriptedInput dribble(log, {'a', 'b', 'c'}, {0, 2});
    EXPECT_TRUE(StreamHelper::copyStreamToStream(is, copied) && StreamHelper::copyStreamToStream(dribble, copied));
    EXPECT_EQ(roomy.str(), "456789abc");
    EXPECT_EQ(roomy.syncs, 0);
}

// A Source ends the sequence (-1) on a done stream without reading; an empty read is not the
// end. A Sink forwards the count, and its flush is true whatever the stream did.
TEST(SourceAndSink, ForwardTheirStreamsCounts) {
    Log log;
    ScriptedInput in(log, {'a', 'b', 'c', 'd', 'e'}, {0, 2});
    InputStreamSource source(in);
    char buf[8] = {};
    EXPECT_EQ(source.read(buf, 8), 0);
    EXPECT_EQ(source.read(buf, 8), 2);
    EXPECT_EQ(source.read(buf + 2, 8), 3);
    EXPECT_EQ(source.read(buf, 8), -1);
    EXPECT_EQ(std::string(buf, 5), "abcde");
    EXPECT_EQ(log, (Log{"i0", "r8:0", "i0", "r8:2", "i0", "r8:3", "i1"}));
    log.clear();
    ScriptedOutput out(log, {3, 0});
    out.doneAfterBytes = 0;
    OutputStreamSink sink(out);
    EXPECT_EQ(sink.write("abcdef", 6), 3);
    EXPECT_EQ(sink.write("def", 3), 0);
    EXPECT_TRUE(sink.flush());
    EXPECT_EQ(log, (Log{"w6:3", "w3:0", "flush"}));
}

} // namespace
} // namespace opc::test
