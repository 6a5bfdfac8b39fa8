#include <opc/Streams.hpp>

#include <algorithm>

namespace opc {

// Equivalent to resize(position + size) followed by a copy to the position, but bytes past the
// vector's old end are appended directly instead of being zero-filled first and overwritten:
// appending is the common case and this halves its memory traffic.
unsigned long ByteArrayOutAdaptor::write(unsigned char const* data, unsigned long size) {
    std::size_t const end = m_position + size;
    if (m_bytes.size() >= end) {
        m_bytes.resize(end); // cuts off what lay beyond the written range
        std::copy(data, data + size, m_bytes.begin() + static_cast<std::ptrdiff_t>(m_position));
    } else if (m_bytes.size() > m_position) {
        std::size_t const overlap = m_bytes.size() - m_position;
        std::copy(data, data + overlap, m_bytes.begin() + static_cast<std::ptrdiff_t>(m_position));
        m_bytes.insert(m_bytes.end(), data + overlap, data + size);
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
