#pragma once

// Random text for the conversion tests, with a reference encoder written from the encoding
// definitions (independent of the code under test and of the Unicode library).

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace vela_test {

/// Random Unicode scalar values, weighted towards every encoding length: ASCII, two-byte,
/// three-byte (BMP, including U+FFFD and the edges around the surrogate block) and
/// supplementary planes up to U+10FFFF.
inline std::vector<char32_t> randomScalars(std::mt19937& rng, std::size_t count) {
    std::vector<char32_t> out;
    out.reserve(count);
    std::uniform_int_distribution<int> kind(0, 5);
    auto pick = [&](uint32_t lo, uint32_t hi) {
        return static_cast<char32_t>(std::uniform_int_distribution<uint32_t>(lo, hi)(rng));
    };
    static char32_t const edges[] = {0x0, 0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFD, 0xFFFF, 0x10000, 0x10FFFF};
    for (std::size_t i = 0; i < count; ++i) {
        switch (kind(rng)) {
        case 0: out.push_back(pick(0x20, 0x7E)); break;
        case 1: out.push_back(pick(0x80, 0x7FF)); break;
        case 2: out.push_back(pick(0x800, 0xD7FF)); break;
        case 3: out.push_back(pick(0xE000, 0xFFFF)); break;
        case 4: out.push_back(pick(0x10000, 0x10FFFF)); break;
        default: out.push_back(edges[pick(0, sizeof edges / sizeof edges[0] - 1)]); break;
        }
    }
    return out;
}

inline std::u16string encodeUTF16(std::vector<char32_t> const& scalars) {
    std::u16string out;
    for (char32_t c : scalars) {
        if (c < 0x10000) {
            out.push_back(static_cast<char16_t>(c));
        } else {
            out.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        }
    }
    return out;
}

inline std::string encodeUTF8(std::vector<char32_t> const& scalars) {
    std::string out;
    for (char32_t c : scalars) {
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

} // namespace vela_test
