#pragma once

#include <vela/i18n/export.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>

namespace vela::i18n {

/// Base of every failure of a text conversion; what() names the fault.
class VELA_I18N_API CvtExceptionBase : public std::runtime_error {
public:
    explicit CvtExceptionBase(std::string const& message);
    ~CvtExceptionBase() override;
};

/// The input holds a sequence that is invalid in its encoding, or a character the target
/// encoding cannot represent. position() is the offset of the offending sequence in the
/// input, in input code units (bytes for narrow text, UTF-16 units for UTF-16 text).
class VELA_I18N_API CvtInvalidInput : public CvtExceptionBase {
public:
    CvtInvalidInput(std::string const& message, std::size_t position);
    ~CvtInvalidInput() override;

    std::size_t position() const noexcept { return m_position; }

private:
    std::size_t m_position;
};

/// A converter was asked for an encoding name the layer does not know.
class VELA_I18N_API CvtUnknownEncoding : public CvtExceptionBase {
public:
    explicit CvtUnknownEncoding(std::string const& name);
    ~CvtUnknownEncoding() override;
};

} // namespace vela::i18n
