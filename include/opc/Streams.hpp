#pragma once

#include <opc/Export.hpp>

#include <boost/core/noncopyable.hpp>
#include <boost/iostreams/categories.hpp>

#include <cstddef>
#include <ios> // std::streamsize
#include <vector>

namespace opc {

/// A minimal byte source: anything that can hand out bytes in chunks (a file, a part being
/// inflated, a buffer filled by another thread) so that one copy loop serves them all.
///
/// The virtual operations are declared in a fixed order (open, read, isDone, close, destructor);
/// derived classes in other binaries rely on that layout, so do not reorder them.
class OPC_API InputStream : private boost::noncopyable {
public:
    InputStream() = default;

    /// Makes the stream readable (again). What "again" means (rewind or not) is up to the stream.
    virtual void open() = 0;

    /// Places up to `size` bytes into `buffer` and returns how many it placed. 0 means "nothing
    /// now", not necessarily the end: ask `isDone()` for that.
    virtual unsigned long read(unsigned char* buffer, unsigned long size) = 0;

    /// True when no further bytes will come.
    virtual bool isDone() const = 0;

    /// Ends reading; a closed stream reads 0 bytes and reports done until opened again.
    virtual void close() = 0;

    virtual ~InputStream();
};

/// A minimal byte sink, the counterpart of `InputStream`.
///
/// Virtual operations in fixed order: write, isDone, flush, close, destructor.
class OPC_API OutputStream : private boost::noncopyable {
public:
    OutputStream() = default;

    /// Offers `size` bytes and returns how many were taken. A short count without `isDone()`
    /// means "try the rest later".
    virtual unsigned long write(unsigned char const* data, unsigned long size) = 0;

    /// True when the stream will take no further bytes.
    virtual bool isDone() const = 0;

    /// Pushes buffered bytes towards their destination.
    virtual void flush() = 0;

    /// Ends writing.
    virtual void close() = 0;

    virtual ~OutputStream();
};

/// An `InputStream` over a standard input stream that the caller keeps alive; never owns,
/// closes or flushes it. Starts open without rewinding, so reading begins at the stream's
/// current get position.
class OPC_API StdIStreamAdaptor : public InputStream {
public:
    /// Wraps `stream`, which must outlive the adaptor.
    explicit StdIStreamAdaptor(std::istream& stream) : m_stream(stream) {}

    /// When closed: clears the stream's state flags, seeks it to offset 0 and marks the adaptor
    /// open. When already open: does nothing (no rewind).
    void open() override;

    /// When open: one unformatted block read of `size` bytes, returning `gcount()` (short at end
    /// of data). When closed: 0, the stream untouched.
    unsigned long read(unsigned char* buffer, unsigned long size) override;

    /// True when closed or when any state flag (eof, fail, bad) of the stream is set; so the
    /// read that returns the last bytes is already followed by "done".
    bool isDone() const override;

    /// Marks the adaptor closed; the stream is not touched.
    void close() override;

private:
    std::istream& m_stream;
    bool m_open = true;
};

/// An `OutputStream` over a standard output stream that the caller keeps alive.
class OPC_API StdOStreamAdaptor : public OutputStream {
public:
    /// Wraps `stream`, which must outlive the adaptor.
    explicit StdOStreamAdaptor(std::ostream& stream) : m_stream(stream) {}

    /// One unformatted block write; returns `tellp()` after minus `tellp()` before, as a signed
    /// 64-bit difference cast to unsigned long. Hence: 0 on a stream that had already failed;
    /// (-1 - before), a huge number, when the stream fails during the write; 0 when the stream
    /// buffer cannot report a position although the bytes went out. Never throws by itself.
    unsigned long write(unsigned char const* data, unsigned long size) override;

    /// True when any state flag of the stream is set.
    bool isDone() const override;

    /// Flushes the stream.
    void flush() override;

    /// Does nothing: the stream stays open.
    void close() override;

private:
    std::ostream& m_stream;
};

/// An `InputStream` over a byte vector that the caller keeps alive (and may grow meanwhile:
/// the size is read on every call). Starts open at position 0.
class OPC_API ByteArrayInAdaptor : public InputStream {
public:
    /// Reads `bytes`, which must outlive the adaptor.
    explicit ByteArrayInAdaptor(std::vector<unsigned char> const& bytes) : m_bytes(bytes) {}

    /// When closed: rewinds to position 0 and marks open. When already open: does nothing.
    void open() override;

    /// Copies min(size, bytes left) bytes and advances; 0 when closed or at the end.
    unsigned long read(unsigned char* buffer, unsigned long size) override;

    /// True when closed or when the position is at or past the vector's current size.
    bool isDone() const override;

    /// Marks closed; the position is kept until the next `open()`.
    void close() override;

private:
    std::vector<unsigned char> const& m_bytes;
    std::size_t m_position = 0;
    bool m_open = true;
};

/// An `OutputStream` over a byte vector that the caller keeps alive. The write position starts
/// at the vector's size, so the adaptor appends to what the vector already holds.
class OPC_API ByteArrayOutAdaptor : public OutputStream {
public:
    /// Appends to `bytes`, which must outlive the adaptor.
    explicit ByteArrayOutAdaptor(std::vector<unsigned char>& bytes) : m_bytes(bytes), m_position(bytes.size()) {}

    /// Makes the vector exactly (position + size) bytes long (zero-filling a gap, cutting off
    /// anything beyond), copies the bytes to the position, advances and returns `size`.
    /// Allocation failures propagate as the vector's own exceptions.
    unsigned long write(unsigned char const* data, unsigned long size) override;

    /// Always false: a vector takes bytes until memory runs out.
    bool isDone() const override;

    /// Does nothing.
    void flush() override;

    /// Does nothing.
    void close() override;

private:
    std::vector<unsigned char>& m_bytes;
    std::size_t m_position;
};

/// The copy loop and its conveniences over standard streams.
class OPC_API StreamHelper {
public:
    StreamHelper() = delete;

    /// Drives `in` into `out` through one 16384-byte stack buffer until the input reports done
    /// (after writing the data of the read before the question) or the output reports done.
    /// Each chunk is read, then `in.isDone()` asked; an empty read from an input that is not
    /// done yields the processor and retries, as does a short write to an output that is not
    /// done. Returns false when some chunk was not taken whole by the output. Never calls
    /// open, flush or close on either side; exceptions from the streams propagate.
    static bool copyStreamToStream(InputStream& in, OutputStream& out);

    /// As above, with `out` wrapped in a `StdOStreamAdaptor`; the stream is not flushed.
    static bool copyStreamToStream(InputStream& in, std::ostream& out);

    /// As above, with `in` wrapped in a `StdIStreamAdaptor`: copying starts at its current
    /// position (no rewind).
    static bool copyStreamToStream(std::istream& in, OutputStream& out);

    /// As above, with both standard streams wrapped; their state is not checked afterwards.
    static bool copyStreamToStream(std::istream& in, std::ostream& out);
};

/// Lets an `InputStream` act as a Boost.Iostreams Source. Copyable; holds a reference to a
/// stream that the caller keeps alive.
class OPC_API InputStreamSource {
public:
    using char_type = char;                        ///< Bytes, as Boost.Iostreams counts them.
    using category = boost::iostreams::source_tag; ///< A Source.

    /// Reads from `stream`.
    explicit InputStreamSource(InputStream& stream) : m_stream(stream) {}

    /// -1 (end of sequence) when the stream is done, without reading; otherwise exactly what
    /// the stream's `read` returns, where 0 means "nothing available now".
    std::streamsize read(char* s, std::streamsize n);

private:
    InputStream& m_stream;
};

/// Lets an `OutputStream` act as a flushable Boost.Iostreams Sink. Copyable; holds a reference
/// to a stream that the caller keeps alive.
class OPC_API OutputStreamSink {
public:
    using char_type = char; ///< Bytes, as Boost.Iostreams counts them.
    /// A flushable Sink.
    struct category : boost::iostreams::sink_tag, boost::iostreams::flushable_tag {};

    /// Writes to `stream`.
    explicit OutputStreamSink(OutputStream& stream) : m_stream(stream) {}

    /// Exactly what the stream's `write` returns.
    std::streamsize write(char const* s, std::streamsize n);

    /// Flushes the stream and returns true, whatever the stream did.
    bool flush();

private:
    OutputStream& m_stream;
};

} // namespace opc
