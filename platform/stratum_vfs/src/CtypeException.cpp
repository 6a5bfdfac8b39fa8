#include <stratum/ustring/CtypeException.hpp>

namespace stratum::ustring {

CtypeExceptionBase::CtypeExceptionBase(char const* message) : std::runtime_error(message) {}
CtypeExceptionBase::~CtypeExceptionBase() = default;

CtypeInvalidCharacter::CtypeInvalidCharacter() : CtypeExceptionBase("Invalid character error.") {}
CtypeInvalidCharacter::~CtypeInvalidCharacter() = default;

} // namespace stratum::ustring
