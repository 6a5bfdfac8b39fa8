#include <vela/i18n/initialize.hpp>

#include <unicode/uclean.h>
#include <unicode/utypes.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>

namespace vela::i18n {

namespace {
std::atomic<bool> ready{false}; // set once the data loaded
} // namespace

bool is_initialized() noexcept { return ready.load(std::memory_order_acquire); }

void initialize() {
    // u_init is itself idempotent; the once-flag lets a failure be reported the same way on
    // every call.
    // Every conversion calls this, so the settled case is a single acquire load.
    if (ready.load(std::memory_order_acquire)) {
        return;
    }
    static std::once_flag once;
    static UErrorCode status = U_ZERO_ERROR;
    std::call_once(once, [] { u_init(&status); });
    if (U_FAILURE(status)) {
        throw std::runtime_error(std::string("Unicode data could not be loaded: ") + u_errorName(status));
    }
    ready.store(true, std::memory_order_release);
}

} // namespace vela::i18n
