#include <opc/Streams.hpp>

#include <cstdint>
#include <ostream>

namespace opc {

// The count is the movement of the put position, not what the stream claims to have taken:
// tellp() is -1 once the stream has failed, and whatever the buffer's seek reports otherwise.
unsigned long StdOStreamAdaptor::write(unsigned char const* data, unsigned long size) {
    std::int64_t const before = static_cast<std::int64_t>(static_cast<std::streamoff>(m_stream.tellp()));
    m_stream.write(reinterpret_cast<char const*>(data), static_cast<std::streamsize>(size));
    std::int64_t const after = static_cast<std::int64_t>(static_cast<std::streamoff>(m_stream.tellp()));
    return static_cast<unsigned long>(after - before);
}

bool StdOStreamAdaptor::isDone() const {
    return !m_stream.good();
}

void StdOStreamAdaptor::flush() {
    m_stream.flush();
}

void StdOStreamAdaptor::close() {}

} // namespace opc
