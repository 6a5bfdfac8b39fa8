// The four adaptors: byte vectors against simple models under generated operations, standard
// streams including the odd counts of failed and unseekable output streams.
#include <opc/Streams.hpp>

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <stdexcept>

namespace opc::test {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes randomBytes(std::mt19937& rng, std::size_t n) {
    Bytes v(n);
    for (auto& b : v)
        b = static_cast<unsigned char>(rng());
    return v;
}

// Random reads, closes, opens and growth of the vector by its owner, against a model that keeps
// only a position and an open flag: open rewinds only a closed adaptor, closed reads nothing.
TEST(ByteArrayInAdaptor, FollowsAModelUnderGeneratedOperations) {
    for (unsigned seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        Bytes data = randomBytes(rng, seed % 8 == 0 ? 0 : rng() % 300);
        ByteArrayInAdaptor in(data);
        std::size_t pos = 0;
        bool open = true;
        ASSERT_EQ(in.isDone(), data.empty());
        for (int step = 0; step < 60; ++step) {
            unsigned const action = rng() % 6;
            if (action == 0) {
                in.close();
                open = false;
            } else if (action == 1) {
                in.open();
                pos = open ? pos : 0;
                open = true;
            } else if (action == 2) {
                auto const more = randomBytes(rng, rng() % 40);
                data.insert(data.end(), more.begin(), more.end());
            } else {
                unsigned long const want = rng() % 70;
                Bytes buf(want + 1, 0xAB);
                unsigned long const got = in.read(buf.data(), want);
                ASSERT_EQ(got, open ? std::min<std::size_t>(want, data.size() - pos) : 0);
                ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + static_cast<long>(got),
                                       data.begin() + static_cast<long>(pos)));
                ASSERT_EQ(buf[got], 0xAB) << "wrote past the count";
                pos += got;
            }
            ASSERT_EQ(in.isDone(), !open || pos >= data.size());
        }
    }
}

// The owner may replace the vector between writes; every write must leave what "resize to
// position + size, then copy" leaves. Flush and close change nothing, and it is never done.
TEST(ByteArrayOutAdaptor, MatchesResizeThenCopyWhateverTheOwnerDoes) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        Bytes target = randomBytes(rng, rng() % 50);
        Bytes model = target;
        ByteArrayOutAdaptor out(target);
        std::size_t pos = target.size();
        for (int step = 0; step < 40; ++step) {
            unsigned const action = rng() % 4;
            if (action == 0)
                model = target = randomBytes(rng, rng() % (pos + 30));
            else if (action == 1)
                step % 2 ? out.flush() : out.close();
            Bytes const chunk = randomBytes(rng, rng() % 40);
            ASSERT_EQ(out.write(chunk.data(), chunk.size()), chunk.size());
            model.resize(pos + chunk.size());
            std::copy(chunk.begin(), chunk.end(), model.begin() + static_cast<long>(pos));
            pos += chunk.size();
            ASSERT_EQ(target, model);
            ASSERT_FALSE(out.isDone());
        }
    }
}

TEST(StdIStreamAdaptor, StartsWhereTheStreamStandsAndReopensAtZero) {
    std::istringstream is("abcdefghij");
    is.seekg(6);
    StdIStreamAdaptor in(is);
    unsigned char buf[16] = {};
    in.open(); // already open: no rewind
    ASSERT_EQ(in.read(buf, 16), 4u);
    EXPECT_EQ(std::string(buf, buf + 4), "ghij");
    EXPECT_TRUE(in.isDone()) << "the short read set end-of-file";
    in.close();
    EXPECT_EQ(in.read(buf, 16), 0u);
    EXPECT_TRUE(is.eof()) << "close leaves the stream alone";
    in.open();
    EXPECT_TRUE(is.good());
    EXPECT_FALSE(in.isDone());
    ASSERT_EQ(in.read(buf, 3), 3u);
    EXPECT_EQ(std::string(buf, buf + 3), "abc");
    in.close();
    EXPECT_TRUE(in.isDone());
    EXPECT_EQ(in.read(buf, 4), 0u);
    EXPECT_EQ(is.tellg(), 3) << "a closed adaptor does not read the stream";
}

TEST(StdIStreamAdaptor, DoneOnlyOnceAStateFlagIsSet) {
    std::istringstream is("abcd");
    StdIStreamAdaptor in(is);
    unsigned char buf[4];
    ASSERT_EQ(in.read(buf, 4), 4u);
    EXPECT_FALSE(in.isDone()) << "an exact read of the rest has not hit end-of-file";
    EXPECT_EQ(in.read(buf, 4), 0u);
    EXPECT_TRUE(in.isDone());
    for (auto flag : {std::ios_base::failbit, std::ios_base::badbit}) {
        std::istringstream other("abc");
        StdIStreamAdaptor adaptor(other);
        other.setstate(flag);
        EXPECT_TRUE(adaptor.isDone()) << "flag " << flag;
    }
}

// A fixed room of `capacity` bytes: writing beyond it fails. Seeking reports the put position,
// or fails when `seekable` is false.
class LimitedBuf : public std::streambuf {
public:
    LimitedBuf(std::size_t capacity, bool seekable) : m_room(capacity), m_seekable(seekable) {
        setp(m_room.data(), m_room.data() + m_room.size());
    }
    std::string str() const { return std::string(pbase(), pptr()); }
    int syncs = 0;

protected:
    pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        if (!m_seekable || off != 0 || dir != std::ios_base::cur || !(which & std::ios_base::out))
            return pos_type(off_type(-1));
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

// The count is the change of the put position, so odd values come out of odd streams.
TEST(StdOStreamAdaptor, CountsAreTheMovementOfThePutPosition) {
    unsigned char const data[8] = {'0', '1', '2', '3', '4', '5', '6', '7'};
    std::ostringstream good;
    good << "xy";
    StdOStreamAdaptor toGood(good);
    EXPECT_EQ(toGood.write(data, 3), 3u);
    EXPECT_EQ(toGood.write(data, 0), 0u);
    EXPECT_FALSE(toGood.isDone());
    EXPECT_EQ(good.str(), "xy012");

    std::ostringstream failed;
    failed.setstate(std::ios_base::failbit);
    StdOStreamAdaptor toFailed(failed);
    EXPECT_EQ(toFailed.write(data, 3), 0u);
    EXPECT_TRUE(toFailed.isDone());
    EXPECT_EQ(failed.str(), "");

    LimitedBuf small(10, true);
    std::ostream midway(&small);
    StdOStreamAdaptor toMidway(midway);
    ASSERT_EQ(toMidway.write(data, 4), 4u);
    EXPECT_EQ(toMidway.write(data, 8), static_cast<unsigned long>(std::int64_t{-1} - 4)) << "only 6 fit";
    EXPECT_TRUE(toMidway.isDone());
    EXPECT_EQ(small.str(), "0123012345");

    LimitedBuf unseekable(100, false);
    std::ostream blind(&unseekable);
    StdOStreamAdaptor toBlind(blind);
    EXPECT_EQ(toBlind.write(data, 3), 0u) << "bytes went out, but the position is unknown";
    EXPECT_FALSE(toBlind.isDone());
    EXPECT_EQ(unseekable.str(), "012");
    toBlind.close();
    EXPECT_EQ(unseekable.syncs, 0);
    toBlind.flush();
    EXPECT_EQ(unseekable.syncs, 1);
}

// An unseekable buffer makes every count 0 while the stream stays good, so the loop offers the
// same chunk again and again; the buffer throws on the fifth offer to end it.
class ThrowingAfter : public LimitedBuf {
public:
    ThrowingAfter() : LimitedBuf(1 << 20, false) {}
    int offers = 0;

protected:
    std::streamsize xsputn(char const* s, std::streamsize n) override {
        if (++offers == 5)
            throw std::runtime_error("enough");
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
    EXPECT_EQ(buf.str(), text + text + text + text);
}

} // namespace
} // namespace opc::test
