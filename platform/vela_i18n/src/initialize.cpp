#include <vela/i18n/initialize.hpp>

#include <unicode/uclean.h>
#include <unicode/utypes.h>

#include <mutex>
#include <stdexcept>
#include <string>

namespace vela::i18n {

void initialize() {
    // u_init is itself idempotent, but the once-flag keeps repeated calls to one atomic load
    // and lets a failure be reported the same way on every call.
    static std::once_flag once;
    static UErrorCode status = U_ZERO_ERROR;
    std::call_once(once, [] { u_init(&status); });
    if (U_FAILURE(status)) {
        throw std::runtime_error(std::string("Unicode data could not be loaded: ") + u_errorName(status));
    }
}

} // namespace vela::i18n
