#include <vela/i18n/cvt_exception.hpp>

namespace vela::i18n {

CvtExceptionBase::CvtExceptionBase(std::string const& message) : std::runtime_error(message) {}
CvtExceptionBase::~CvtExceptionBase() = default;

CvtInvalidInput::CvtInvalidInput(std::string const& message, std::size_t position)
    : CvtExceptionBase(message), m_position(position) {}
CvtInvalidInput::~CvtInvalidInput() = default;

CvtUnknownEncoding::CvtUnknownEncoding(std::string const& name)
    : CvtExceptionBase("Unknown encoding: \"" + name + "\"") {}
CvtUnknownEncoding::~CvtUnknownEncoding() = default;

} // namespace vela::i18n
