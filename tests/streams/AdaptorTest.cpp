// The four adaptors: byte vectors against simple models under generated operations, standard
// streams including the odd counts of failed and unseekable output streams.
#include "ScriptedStreams.hpp"

#include <opc/Streams.hpp>

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <type_traits>

namespace opc::test {
namespace {

static_assert(!std::is_copy_constructible_v<InputStream> && !std::is_copy_assignable_v<InputStream>);
static_assert(!std::is_copy_constructible_v<OutputStream> && !std::is_copy_assignable_v<OutputStream>);
static_assert(std::has_virtual_destructor_v<InputStream> && std::has_virtual_destructor_v<OutputStream>);
static_assert(std::is_abstract_v<InputStream> && std::is_abstract_v<OutputStream>);

using Bytes = std::vector<unsigned char>;

Bytes randomBytes(std::mt19937& rng, std::size_t n) {
    Bytes v(n);
    for (auto& b : v) {
        b = static_cast<unsigned char>(rng());
    }
    return v;
}

// ---------------------------------------------------------------------------------------------
// ByteArrayInAdaptor

TEST(ByteArrayInAdaptor, ClosedReadsNothingAndReopenRewinds) {
    Bytes const data{1, 2, 3, 4, 5};
    ByteArrayInAdaptor in(data);
    unsigned char buf[8] = {};

    ASSERT_EQ(in.read(buf, 2), 2u);
    in.open(); // already open: no rewind
    ASSERT_EQ(in.read(buf, 2), 2u);
    EXPECT_EQ(buf[0], 3);
    in.close();
    EXPECT_TRUE(in.isDone());
    buf[0] = 0xEE;
    EXPECT_EQ(in.read(buf, 8), 0u);
    EXPECT_EQ(buf[0], 0xEE) << "a closed adaptor leaves the buffer alone";
    in.open();
    EXPECT_FALSE(in.isDone());
    ASSERT_EQ(in.read(buf, 8), 5u);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), buf));
    EXPECT_TRUE(in.isDone());
    EXPECT_EQ(in.read(buf, 8), 0u);
}

TEST(ByteArrayInAdaptor, EmptyVectorIsDoneAtOnce) {
    Bytes const empty;
    ByteArrayInAdaptor in(empty);
    unsigned char buf[1];
    EXPECT_TRUE(in.isDone());
    EXPECT_EQ(in.read(buf, 1), 0u);
}

// Random reads, closes, opens and growth of the vector by its owner, against a model that
// keeps only a position and an open flag.
TEST(ByteArrayInAdaptor, FollowsAModelUnderGeneratedOperations) {
    for (unsigned seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        Bytes data = randomBytes(rng, rng() % 300);
        ByteArrayInAdaptor in(data);
        std::size_t pos = 0;
        bool open = true;
        for (int step = 0; step < 60; ++step) {
            switch (rng() % 6) {
            case 0: {
                in.close();
                open = false;
                break;
            }
            case 1: {
                in.open();
                pos = open ? pos : 0;
                open = true;
                break;
            }
            case 2: {
                auto const more = randomBytes(rng, rng() % 40);
                data.insert(data.end(), more.begin(), more.end());
                break;
            }
            default: {
                unsigned long const want = rng() % 70;
                Bytes buf(want + 1, 0xAB);
                unsigned long const got = in.read(buf.data(), want);
                std::size_t const expect = open ? std::min<std::size_t>(want, data.size() - pos) : 0;
                ASSERT_EQ(got, expect);
                ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + static_cast<long>(got),
                                       data.begin() + static_cast<long>(pos)));
                ASSERT_EQ(buf[got], 0xAB) << "wrote past the count";
                pos += got;
            }
            }
            ASSERT_EQ(in.isDone(), !open || pos >= data.size());
        }
    }
}

// ---------------------------------------------------------------------------------------------
// ByteArrayOutAdaptor

TEST(ByteArrayOutAdaptor, AppendsToWhatTheVectorHeld) {
    Bytes target{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    ByteArrayOutAdaptor out(target);
    unsigned char const more[] = {20, 21, 22, 23, 24};
    EXPECT_EQ(out.write(more, 5), 5u);
    EXPECT_EQ(target, (Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 20, 21, 22, 23, 24}));
    EXPECT_FALSE(out.isDone());
    out.flush();
    out.close();
    EXPECT_FALSE(out.isDone());
    EXPECT_EQ(target.size(), 15u);
}

// The owner may resize the vector between writes; every write must leave exactly what
// "resize to position + size, then copy" leaves, which is the model here.
TEST(ByteArrayOutAdaptor, MatchesResizeThenCopyWhateverTheOwnerDoes) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        Bytes target = randomBytes(rng, rng() % 50);
        Bytes model = target;
        ByteArrayOutAdaptor out(target);
        std::size_t pos = target.size();
        for (int step = 0; step < 40; ++step) {
            if (rng() % 3 == 0) { // the owner changes the vector behind the adaptor's back
                std::size_t const n = rng() % (pos + 30);
                Bytes const fill = randomBytes(rng, n);
                target = fill;
                model = fill;
            }
            Bytes const chunk = randomBytes(rng, rng() % 40);
            ASSERT_EQ(out.write(chunk.data(), chunk.size()), chunk.size());
            model.resize(pos + chunk.size());
            std::copy(chunk.begin(), chunk.end(), model.begin() + static_cast<long>(pos));
            pos += chunk.size();
            ASSERT_EQ(target, model);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// StdIStreamAdaptor

TEST(StdIStreamAdaptor, StartsWhereTheStreamStandsAndReopensAtZero) {
    std::istringstream is("abcdefghij");
    is.seekg(6);
    StdIStreamAdaptor in(is);
    unsigned char buf[16] = {};

    in.open(); // open already: must not rewind
    EXPECT_FALSE(in.isDone());
    ASSERT_EQ(in.read(buf, 16), 4u);
    EXPECT_EQ(std::string(buf, buf + 4), "ghij");
    EXPECT_TRUE(in.isDone()) << "the short read set end-of-file";

    in.close();
    EXPECT_TRUE(in.isDone());
    EXPECT_EQ(in.read(buf, 16), 0u);
    EXPECT_TRUE(is.eof()) << "close leaves the stream alone";

    in.open();
    EXPECT_TRUE(is.good());
    EXPECT_FALSE(in.isDone());
    ASSERT_EQ(in.read(buf, 3), 3u);
    EXPECT_EQ(std::string(buf, buf + 3), "abc");
}

TEST(StdIStreamAdaptor, ClosedReadDoesNotTouchTheStream) {
    std::istringstream is("abcdef");
    StdIStreamAdaptor in(is);
    in.close();
    unsigned char buf[4];
    EXPECT_EQ(in.read(buf, 4), 0u);
    EXPECT_EQ(is.tellg(), 0);
    EXPECT_TRUE(is.good());
}

TEST(StdIStreamAdaptor, ExactReadOfTheRestIsNotYetDone) {
    std::istringstream is("abcd");
    StdIStreamAdaptor in(is);
    unsigned char buf[4];
    ASSERT_EQ(in.read(buf, 4), 4u);
    EXPECT_FALSE(in.isDone()) << "the stream has not hit end-of-file yet";
    EXPECT_EQ(in.read(buf, 4), 0u);
    EXPECT_TRUE(in.isDone());
}

TEST(StdIStreamAdaptor, AnyStateFlagMeansDone) {
    for (auto flag : {std::ios_base::eofbit, std::ios_base::failbit, std::ios_base::badbit}) {
        std::istringstream is("abc");
        StdIStreamAdaptor in(is);
        EXPECT_FALSE(in.isDone());
        is.setstate(flag);
        EXPECT_TRUE(in.isDone()) << "flag " << flag;
    }
}

// ---------------------------------------------------------------------------------------------
// StdOStreamAdaptor

// A stream buffer over a fixed room of `capacity` bytes: writing beyond it fails. Its seek
// reports the put position, or fails (-1) when `seekable` is false.
class LimitedBuf : public std::streambuf {
public:
    LimitedBuf(std::size_t capacity, bool seekable) : m_room(capacity), m_seekable(seekable) {
        setp(m_room.data(), m_room.data() + m_room.size());
    }
    std::string str() const { return std::string(pbase(), pptr()); }
    int syncs = 0;

protected:
    pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        if (!m_seekable || off != 0 || dir != std::ios_base::cur || !(which & std::ios_base::out)) {
            return pos_type(off_type(-1));
        }
        return pos_type(pptr() - pbase());
    }
    int sync() override {
        ++syncs;
        return 0;
    }

private:
    std::vector<char> m_room;
    bool m_seekable;
};

TEST(StdOStreamAdaptor, GoodStreamReportsTheBytesWritten) {
    std::ostringstream os;
    os << "xy";
    StdOStreamAdaptor out(os);
    unsigned char const data[] = {'a', 'b', 'c'};
    EXPECT_EQ(out.write(data, 3), 3u);
    EXPECT_EQ(out.write(data, 0), 0u);
    EXPECT_FALSE(out.isDone());
    EXPECT_EQ(os.str(), "xyabc");
}

TEST(StdOStreamAdaptor, FailedStreamReportsZeroAndDone) {
    std::ostringstream os;
    os.setstate(std::ios_base::failbit);
    StdOStreamAdaptor out(os);
    unsigned char const data[] = {'a', 'b', 'c'};
    EXPECT_EQ(out.write(data, 3), 0u);
    EXPECT_TRUE(out.isDone());
    EXPECT_EQ(os.str(), "");
}

TEST(StdOStreamAdaptor, FailingMidwayReportsMinusOneLessTheEarlierPosition) {
    LimitedBuf buf(10, true);
    std::ostream os(&buf);
    StdOStreamAdaptor out(os);
    unsigned char const data[8] = {'0', '1', '2', '3', '4', '5', '6', '7'};
    ASSERT_EQ(out.write(data, 4), 4u);
    unsigned long const count = out.write(data, 8); // only 6 fit
    EXPECT_EQ(count, static_cast<unsigned long>(std::int64_t{-1} - 4));
    EXPECT_GT(count, 8u);
    EXPECT_TRUE(out.isDone());
    EXPECT_EQ(buf.str(), "0123012345");
}

TEST(StdOStreamAdaptor, UnseekableBufferReportsZeroThoughBytesWentOut) {
    LimitedBuf buf(100, false);
    std::ostream os(&buf);
    StdOStreamAdaptor out(os);
    unsigned char const data[] = {'a', 'b', 'c'};
    EXPECT_EQ(out.write(data, 3), 0u);
    EXPECT_FALSE(out.isDone());
    EXPECT_EQ(buf.str(), "abc");
}

TEST(StdOStreamAdaptor, FlushSyncsAndCloseDoesNothing) {
    LimitedBuf buf(10, true);
    std::ostream os(&buf);
    StdOStreamAdaptor out(os);
    out.close();
    EXPECT_EQ(buf.syncs, 0);
    EXPECT_TRUE(os.good());
    out.flush();
    EXPECT_EQ(buf.syncs, 1);
}

// ---------------------------------------------------------------------------------------------
// The odd counts, seen through the copy loop

TEST(StdOStreamAdaptorCopy, FailedStreamStopsTheCopyAfterOneChunk) {
    std::ostringstream os;
    os.setstate(std::ios_base::badbit);
    CallLog log;
    ScriptedInput in(log, Bytes(50000, 7));
    EXPECT_FALSE(StreamHelper::copyStreamToStream(in, os));
    EXPECT_EQ(in.reads, 1);
}

TEST(StdOStreamAdaptorCopy, MidwayFailureKeepsTheResultTrueButEndsTheCopy) {
    LimitedBuf buf(20000, true);
    std::ostream os(&buf);
    CallLog log;
    ScriptedInput in(log, Bytes(50000, 7));
    EXPECT_TRUE(StreamHelper::copyStreamToStream(in, os));
    EXPECT_EQ(in.reads, 2);
    EXPECT_EQ(buf.str().size(), 20000u);
}

// An unseekable buffer makes every write count 0 while the stream stays good, so the loop
// offers the same chunk again and again; the buffer throws after a few rounds to end it.
class ThrowingAfter : public LimitedBuf {
public:
    ThrowingAfter() : LimitedBuf(1 << 20, false) {}
    int offers = 0;

protected:
    std::streamsize xsputn(char const* s, std::streamsize n) override {
        if (++offers == 5) {
            throw std::runtime_error("enough");
        }
        return LimitedBuf::xsputn(s, n);
    }
};

TEST(StdOStreamAdaptorCopy, UnseekableStreamIsOfferedTheSameChunkAgain) {
    ThrowingAfter buf;
    std::ostream os(&buf);
    os.exceptions(std::ios_base::badbit); // let the buffer's exception out of write()
    std::string const text(100, 'q');
    std::istringstream is(text);
    EXPECT_THROW(StreamHelper::copyStreamToStream(is, os), std::runtime_error);
    EXPECT_EQ(buf.offers, 5);
    EXPECT_EQ(buf.str(), text + text + text + text) << "four whole offers of the one chunk";
}

} // namespace
} // namespace opc::test
