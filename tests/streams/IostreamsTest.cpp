// InputStreamSource and OutputStreamSink: their forwarding rules, and a gzip chain that
// compresses through the Sink and decompresses through the Source.
#include "ScriptedStreams.hpp"

#include <opc/Streams.hpp>

#include <boost/iostreams/copy.hpp>
#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/device/back_inserter.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <gtest/gtest.h>

#include <random>

namespace opc::test {
namespace {

namespace io = boost::iostreams;
using Bytes = std::vector<unsigned char>;

// A done stream is the end of the sequence (-1) without a read; an empty read is not.
TEST(InputStreamSource, ForwardsWhatTheStreamReadsZeroIncluded) {
    CallLog log;
    ScriptedInput in(log, {'a', 'b', 'c', 'd', 'e'}, {0, 2});
    InputStreamSource source(in);
    InputStreamSource copy = source; // copies share the one stream
    char buf[8] = {};
    EXPECT_EQ(source.read(buf, 8), 0);
    EXPECT_EQ(copy.read(buf, 8), 2);
    EXPECT_EQ(source.read(buf + 2, 8), 3);
    EXPECT_EQ(std::string(buf, 5), "abcde");
    EXPECT_EQ(copy.read(buf, 8), -1);
    EXPECT_EQ(log, (CallLog{"in.isDone -> false", "in.read 8 -> 0", "in.isDone -> false", "in.read 8 -> 2",
                            "in.isDone -> false", "in.read 8 -> 3", "in.isDone -> true"}));
}

TEST(OutputStreamSink, ForwardsTheWrittenCountAndAlwaysFlushesTrue) {
    CallLog log;
    ScriptedOutput out(log, {3, 0});
    out.doneAfterBytes = 0; // a stream that calls itself done still flushes successfully
    OutputStreamSink sink(out);
    EXPECT_EQ(sink.write("abcdef", 6), 3);
    EXPECT_EQ(sink.write("def", 3), 0);
    EXPECT_TRUE(sink.flush());
    EXPECT_EQ(log, (CallLog{"out.write 6 -> 3", "out.write 3 -> 0", "out.flush"}));
    EXPECT_EQ(std::string(out.taken.begin(), out.taken.end()), "abc");
}

// Runs of repeated bytes mixed with noise, so the compressor has something to do.
Bytes sample(unsigned seed, std::size_t n) {
    std::mt19937 rng(seed);
    Bytes v(n);
    for (std::size_t i = 0; i < n;) {
        std::size_t const run = 1 + rng() % 200;
        unsigned char const b = static_cast<unsigned char>(rng());
        bool const noisy = rng() % 2;
        for (std::size_t k = 0; k < run && i < n; ++k, ++i)
            v[i] = noisy ? static_cast<unsigned char>(rng()) : b;
    }
    return v;
}

class GzipChain : public ::testing::TestWithParam<std::size_t> {};

TEST_P(GzipChain, RoundTripsThroughSinkAndSource) {
    Bytes const original = sample(static_cast<unsigned>(GetParam()), GetParam());
    Bytes compressed;
    {
        ByteArrayOutAdaptor out(compressed);
        io::filtering_ostream chain;
        chain.push(io::gzip_compressor());
        chain.push(OutputStreamSink(out));
        chain.write(reinterpret_cast<char const*>(original.data()), static_cast<std::streamsize>(original.size()));
        ASSERT_TRUE(chain.good());
    } // the chain's destructor finishes the gzip member

    ByteArrayInAdaptor in(compressed);
    io::filtering_istream back;
    back.push(io::gzip_decompressor());
    back.push(InputStreamSource(in));
    Bytes restored;
    ByteArrayOutAdaptor sink(restored);
    EXPECT_TRUE(StreamHelper::copyStreamToStream(back, sink));
    EXPECT_EQ(restored, original);
    EXPECT_TRUE(in.isDone());

    // Decompressing straight from memory shows the Sink wrote well-formed gzip on its own.
    std::string viaMemory;
    io::filtering_istream direct;
    direct.push(io::gzip_decompressor());
    direct.push(io::array_source(reinterpret_cast<char const*>(compressed.data()), compressed.size()));
    io::copy(direct, io::back_inserter(viaMemory));
    EXPECT_EQ(Bytes(viaMemory.begin(), viaMemory.end()), original);
}

INSTANTIATE_TEST_SUITE_P(Sizes, GzipChain, ::testing::Values(0, 1, 4095, 16384, 100000, 1 << 20));

} // namespace
} // namespace opc::test
