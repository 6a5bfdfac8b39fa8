#include <vela/i18n/facet.hpp>

namespace vela::i18n::facet {

std::locale get_global_std_locale() {
    return std::locale();
}

} // namespace vela::i18n::facet
