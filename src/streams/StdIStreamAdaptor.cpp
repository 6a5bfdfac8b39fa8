#include <opc/Streams.hpp>

#include <istream>

namespace opc {

void StdIStreamAdaptor::open() {
    if (m_open) {
        return; // a fresh adaptor reads from wherever the stream stands
    }
    m_stream.clear();
    m_stream.seekg(0, std::ios_base::beg);
    m_open = true;
}

unsigned long StdIStreamAdaptor::read(unsigned char* buffer, unsigned long size) {
    if (!m_open) {
        return 0;
    }
    m_stream.read(reinterpret_cast<char*>(buffer), static_cast<std::streamsize>(size));
    return static_cast<unsigned long>(m_stream.gcount());
}

bool StdIStreamAdaptor::isDone() const {
    return !m_open || !m_stream.good();
}

void StdIStreamAdaptor::close() {
    m_open = false;
}

} // namespace opc
