#include <opc/Streams.hpp>

#include <algorithm>
#include <cstring>

namespace opc {

namespace {
constexpr std::size_t kPrefetchFrom = 4096;
constexpr std::size_t kCacheLine = 64;
} // namespace

void ByteArrayInAdaptor::open() {
    if (m_open) {
        return;
    }
    m_position = 0;
    m_open = true;
}

unsigned long ByteArrayInAdaptor::read(unsigned char* buffer, unsigned long size) {
    if (!m_open || m_position >= m_bytes.size()) {
        return 0;
    }
    std::size_t const count = std::min<std::size_t>(size, m_bytes.size() - m_position);
    if (count == 0) {
        return 0;
    }
    std::memcpy(buffer, m_bytes.data() + m_position, count);
    m_position += count;
    // A large read is most likely one of a sequence (a copy loop's): start fetching the next
    // block from memory now, so that it arrives while the caller writes this one out.
    if (count >= kPrefetchFrom) {
        std::size_t const ahead = std::min(count, m_bytes.size() - m_position);
        for (std::size_t at = 0; at < ahead; at += kCacheLine)
            __builtin_prefetch(m_bytes.data() + m_position + at);
    }
    return static_cast<unsigned long>(count);
}

bool ByteArrayInAdaptor::isDone() const {
    return !m_open || m_position >= m_bytes.size();
}

void ByteArrayInAdaptor::close() {
    m_open = false;
}

} // namespace opc
