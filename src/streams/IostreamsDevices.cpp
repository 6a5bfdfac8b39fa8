#include <opc/Streams.hpp>

namespace opc {

// An InputStream's 0 means "nothing now"; only isDone() marks the end, which the Source
// contract spells -1.
std::streamsize InputStreamSource::read(char* s, std::streamsize n) {
    if (m_stream.isDone()) {
        return -1;
    }
    return static_cast<std::streamsize>(m_stream.read(reinterpret_cast<unsigned char*>(s),
                                                      static_cast<unsigned long>(n)));
}

std::streamsize OutputStreamSink::write(char const* s, std::streamsize n) {
    return static_cast<std::streamsize>(m_stream.write(reinterpret_cast<unsigned char const*>(s),
                                                       static_cast<unsigned long>(n)));
}

bool OutputStreamSink::flush() {
    m_stream.flush();
    return true;
}

} // namespace opc
