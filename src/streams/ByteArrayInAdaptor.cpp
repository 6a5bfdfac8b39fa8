#include <opc/Streams.hpp>

#include <algorithm>
#include <cstring>

namespace opc {

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
    return static_cast<unsigned long>(count);
}

bool ByteArrayInAdaptor::isDone() const {
    return !m_open || m_position >= m_bytes.size();
}

void ByteArrayInAdaptor::close() {
    m_open = false;
}

} // namespace opc
