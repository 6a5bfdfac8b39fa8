#pragma once

#include <vela/i18n/export.hpp>

#include <locale>

namespace vela::i18n::facet {

/// The process's standard C++ locale: the global locale at the time of the call. Code that
/// formats machine-readable text adds its own facets on top of it.
VELA_I18N_API std::locale get_global_std_locale();

} // namespace vela::i18n::facet
