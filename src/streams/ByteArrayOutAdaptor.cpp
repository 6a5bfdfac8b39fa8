#include <opc/Streams.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace opc {

namespace {

// glibc copies blocks of a copy loop's size with `rep movsb`, which on some processors (an AMD
// EPYC here) runs at about two thirds of its speed when source and destination sit at
// different offsets within a 64-byte line: the usual case for a stack buffer and a vector's
// heap block. A plain loop of 16-byte moves runs at the same speed whatever the offsets.
constexpr std::size_t kLoopCopyFrom = 4096;

bool loopCopyPays(unsigned char const* to, unsigned char const* from, std::size_t size) {
#if defined(__SSE2__)
    return size >= kLoopCopyFrom && ((reinterpret_cast<std::uintptr_t>(to) - reinterpret_cast<std::uintptr_t>(from)) & 63) != 0;
#else
    (void)to;
    (void)from;
    (void)size;
    return false;
#endif
}

void loopCopy(unsigned char* to, unsigned char const* from, std::size_t size) {
    std::size_t done = 0;
#if defined(__SSE2__)
    for (; done + 64 <= size; done += 64) {
        __m128i const a = _mm_loadu_si128(reinterpret_cast<__m128i const*>(from + done));
        __m128i const b = _mm_loadu_si128(reinterpret_cast<__m128i const*>(from + done + 16));
        __m128i const c = _mm_loadu_si128(reinterpret_cast<__m128i const*>(from + done + 32));
        __m128i const d = _mm_loadu_si128(reinterpret_cast<__m128i const*>(from + done + 48));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + done), a);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + done + 16), b);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + done + 32), c);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + done + 48), d);
    }
#endif
    std::memcpy(to + done, from + done, size - done);
}

} // namespace

// Equivalent to resize(position + size) followed by a copy to the position, but bytes past the
// vector's old end are appended directly instead of being zero-filled first and overwritten:
// appending is the common case and this halves its memory traffic. Where the library's copy
// would be slow (see loopCopyPays) the zero-fill is the lesser cost: the vector is resized and
// the bytes copied by the loop.
unsigned long ByteArrayOutAdaptor::write(unsigned char const* data, unsigned long size) {
    std::size_t const end = m_position + size;
    if (m_bytes.size() >= end) {
        m_bytes.resize(end); // cuts off what lay beyond the written range
        std::copy(data, data + size, m_bytes.begin() + static_cast<std::ptrdiff_t>(m_position));
    } else if (m_bytes.size() > m_position) {
        std::size_t const overlap = m_bytes.size() - m_position;
        std::copy(data, data + overlap, m_bytes.begin() + static_cast<std::ptrdiff_t>(m_position));
        m_bytes.insert(m_bytes.end(), data + overlap, data + size);
    } else if (m_bytes.capacity() >= end && loopCopyPays(m_bytes.data() + m_position, data, size)) {
        m_bytes.resize(end); // also zero-fills a gap left when the caller shrank the vector
        loopCopy(m_bytes.data() + m_position, data, size);
    } else {
        m_bytes.resize(m_position); // zero-fills a gap left when the caller shrank the vector
        m_bytes.insert(m_bytes.end(), data, data + size);
    }
    m_position = end;
    return size;
}

bool ByteArrayOutAdaptor::isDone() const {
    return false;
}

void ByteArrayOutAdaptor::flush() {}

void ByteArrayOutAdaptor::close() {}

} // namespace opc
