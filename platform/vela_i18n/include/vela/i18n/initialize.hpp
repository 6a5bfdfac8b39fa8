#pragma once

#include <vela/i18n/export.hpp>

namespace vela::i18n {

/// Loads the Unicode data the layer needs. Idempotent and thread-safe: the first call does
/// the work, concurrent and later calls wait for it and return. Throws std::runtime_error
/// when the data cannot be loaded (and then again on every later call).
VELA_I18N_API void initialize();

/// True once `initialize` has succeeded in this process.
VELA_I18N_API bool is_initialized() noexcept;

} // namespace vela::i18n
