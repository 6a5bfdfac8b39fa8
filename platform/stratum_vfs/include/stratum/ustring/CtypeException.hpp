#pragma once

#include <stratum/export.hpp>

#include <stdexcept>

namespace stratum::ustring {

/// Base of the character-type failures of the text helpers.
class STRATUM_API CtypeExceptionBase : public std::runtime_error {
public:
    explicit CtypeExceptionBase(char const* message);
    ~CtypeExceptionBase() override;
};

/// A character outside the class an operation accepts ("Invalid character error.").
class STRATUM_API CtypeInvalidCharacter : public CtypeExceptionBase {
public:
    CtypeInvalidCharacter();
    ~CtypeInvalidCharacter() override;
};

} // namespace stratum::ustring
