#include <opc/Exception.hpp>

namespace opc {

Exception::Exception(std::string const& message, boost::system::error_code code)
    : std::runtime_error(message), m_code(code) {}

} // namespace opc
