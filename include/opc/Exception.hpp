#pragma once

#include <opc/Export.hpp>

#include <boost/system/error_code.hpp>

#include <stdexcept>
#include <string>

namespace opc {

/// The library's one exception type: a message for people and an error code for programs.
///
/// The code is copied whole (value and category). It is not always a failed code: conversion
/// failures and a selector without storage throw with a cleared code on purpose, so callers
/// must not use `code().failed()` to tell a real exception from none.
class OPC_API Exception : public std::runtime_error {
public:
    /// `what()` gives `message`; `code()` gives `code`.
    Exception(std::string const& message, boost::system::error_code code);

    /// The error code given at construction.
    boost::system::error_code const& code() const noexcept { return m_code; }

private:
    boost::system::error_code m_code;
};

} // namespace opc
