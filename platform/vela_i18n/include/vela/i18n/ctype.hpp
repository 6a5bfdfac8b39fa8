#pragma once

#include <vela/i18n/export.hpp>

#include <cstddef>

/// Case mapping and character classes over UTF-16 text.
namespace vela::i18n {

/// Selects full Unicode lower-casing (root locale) in detail::transform.
struct to_lower_t {
    explicit constexpr to_lower_t() = default;
};
inline constexpr to_lower_t to_lower{};

/// Selects the POSIX definitions of the character classes in detail::scan.
struct is_posix_t {
    explicit constexpr is_posix_t() = default;
};
inline constexpr is_posix_t is_posix{};

/// Character-class bits for detail::scan; a mask may combine several.
enum ctype_mask : unsigned {
    ctype_upper = 1,
    ctype_lower = 2,
    ctype_alpha = 4,
    ctype_digit = 8,
    ctype_space = 16,
    ctype_punct = 32,
    ctype_cntrl = 64,
    ctype_xdigit = 128,
    ctype_blank = 256,
    ctype_print = 512,
    ctype_graph = 1024,
    ctype_alnum = 2048,
};

namespace detail {

/// Writes the lower-cased form of [source, source + length) to destination when it fits in
/// `capacity` units, and returns the length the result needs in every case (it may differ
/// from `length`: full case mapping can change the length). Lone surrogates are copied.
/// Throws std::length_error for texts beyond 2^31 - 1 units and std::bad_alloc when memory
/// runs out.
VELA_I18N_API std::size_t transform(char16_t* destination, std::size_t capacity, char16_t const* source,
                                    std::size_t length, to_lower_t);

/// Returns the position of the first character in [begin, end) that belongs to any class of
/// `mask` under POSIX classification, or `end`. Surrogate pairs are classified as one
/// character and reported at their first unit; lone surrogates belong to no class.
/// space: Unicode White_Space (includes U+0085, U+00A0, U+2028, U+3000 besides ASCII).
VELA_I18N_API char16_t const* scan(unsigned mask, char16_t const* begin, char16_t const* end, is_posix_t);

} // namespace detail
} // namespace vela::i18n
