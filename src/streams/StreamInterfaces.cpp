#include <opc/Streams.hpp>

namespace opc {

// Out of line so the interfaces' type information and vtables live once, in the library.
InputStream::~InputStream() = default;

OutputStream::~OutputStream() = default;

} // namespace opc
