// UTF-8 <-> UTF-16: the encoder written out here, the decoder an ASCII fast path before the
// Unicode library's optimised string function.

#include "convert_impl.hpp"

#include <vela/i18n/cvt_exception.hpp>

#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstdint>
#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <stdexcept>

namespace vela::i18n::impl {
namespace {

constexpr UChar32 kReplacement = 0xFFFD;

/// Bytes the UTF-8 form of a UTF-16 text needs at most: 1 per ASCII unit, 2 below U+0800,
/// 3 otherwise (a surrogate pair's 4 bytes are covered by its two units' 6). A lone
/// surrogate replaced by U+FFFD also takes 3. Counted in 16-bit blocks so the loop
/// vectorises without widening.
std::size_t utf8_bound(char16_t const* text, std::size_t length) {
    std::size_t total = length;
    constexpr std::size_t kBlock = 32767; // 2 per unit still fits 16 bits
    for (std::size_t start = 0; start < length; start += kBlock) {
        std::size_t const stop = start + kBlock < length ? start + kBlock : length;
        uint16_t extra = 0;
        for (std::size_t i = start; i < stop; ++i) {
            extra = static_cast<uint16_t>(extra + (text[i] >= 0x80) + (text[i] >= 0x800));
        }
        total += extra;
    }
    return total;
}

} // namespace

void check_length(std::size_t length) {
    if (length > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
        throw std::length_error("text too long to convert");
    }
}

std::string code_point_name(char32_t c) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "U+%04X", static_cast<unsigned>(c));
    return buffer;
}

namespace {

// The conversions run chunk by chunk through a stack buffer and append to the result, so
// the result is never zero-filled and short texts cost one allocation. A chunk never ends
// inside a character, so chunking does not change the result.
constexpr std::size_t kChunk = 2048;

bool ascii4(char16_t const* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return (v & 0xFF80FF80FF80FF80ULL) == 0;
}

bool ascii8(char const* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return (v & 0x8080808080808080ULL) == 0;
}

[[noreturn]] void throw_status(UErrorCode status) {
    if (status == U_MEMORY_ALLOCATION_ERROR) {
        throw std::bad_alloc();
    }
    throw CvtExceptionBase(std::string("Text conversion failed: ") + u_errorName(status));
}

/// Stores the low `size` bytes of `bytes`, lowest first, as one word: fewer stores than
/// writing byte by byte.
void store_le(unsigned char* out, uint32_t bytes, std::size_t size) {
    if (size == 2) {
        auto const half = static_cast<uint16_t>(bytes);
        unsigned char le[2] = {static_cast<unsigned char>(half), static_cast<unsigned char>(half >> 8)};
        std::memcpy(out, le, sizeof le);
    } else {
        unsigned char le[4] = {static_cast<unsigned char>(bytes), static_cast<unsigned char>(bytes >> 8),
                               static_cast<unsigned char>(bytes >> 16), static_cast<unsigned char>(bytes >> 24)};
        std::memcpy(out, le, sizeof le);
    }
}

[[noreturn]] void throw_unpaired(char16_t unit, std::size_t at) {
    throw CvtInvalidInput("Unpaired surrogate " + code_point_name(unit) + " at UTF-16 offset " + std::to_string(at) +
                              " cannot be converted to UTF-8",
                          at);
}

/// Encodes text[begin, end) as UTF-8 into out, which holds at least 3 bytes per unit and one
/// more (a 3-byte character is stored as a 4-byte word); `end` never splits a surrogate pair. Returns the bytes written. Written here rather than handed
/// to the Unicode library: for short texts its set-up costs as much as the encoding. A lone
/// surrogate throws (strict) or becomes U+FFFD, as the library's converter does.
std::size_t encode_chunk(char16_t const* text, std::size_t begin, std::size_t end, bool strict, char* out) {
    auto* o = reinterpret_cast<unsigned char*>(out);
    char16_t const* s = text + begin;
    char16_t const* const stop = text + end;
    // A leading ASCII run four units at a time; inside mixed text the test would cost more
    // than it saves.
    while (stop - s >= 4 && ascii4(s)) {
        o[0] = static_cast<unsigned char>(s[0]);
        o[1] = static_cast<unsigned char>(s[1]);
        o[2] = static_cast<unsigned char>(s[2]);
        o[3] = static_cast<unsigned char>(s[3]);
        o += 4;
        s += 4;
    }
    while (s < stop) {
        uint32_t const c = *s++;
        if (c < 0x80) {
            *o++ = static_cast<unsigned char>(c);
        } else if (c < 0x800) {
            store_le(o, (0xC0 | (c >> 6)) | (0x80 | (c & 0x3F)) << 8, 2);
            o += 2;
        } else if (c < 0xD800 || c >= 0xE000) {
            store_le(o, (0xE0 | (c >> 12)) | (0x80 | ((c >> 6) & 0x3F)) << 8 | (0x80 | (c & 0x3F)) << 16, 4);
            o += 3;
        } else if (c < 0xDC00 && s < stop && U16_IS_TRAIL(*s)) {
            uint32_t const cp = U16_GET_SUPPLEMENTARY(c, *s++);
            store_le(o, (0xF0 | (cp >> 18)) | (0x80 | ((cp >> 12) & 0x3F)) << 8 | (0x80 | ((cp >> 6) & 0x3F)) << 16 | (0x80u | (cp & 0x3F)) << 24, 4);
            o += 4;
        } else {
            if (strict) {
                throw_unpaired(static_cast<char16_t>(c), static_cast<std::size_t>(s - 1 - text));
            }
            o[0] = 0xEF; // U+FFFD
            o[1] = 0xBF;
            o[2] = 0xBD;
            o += 3;
        }
    }
    return static_cast<std::size_t>(o - reinterpret_cast<unsigned char*>(out));
}

#if defined(__x86_64__) && defined(__GNUC__)
#define VELA_I18N_WIDE_ENCODER 1
// GCC 12 warns about the deliberately undefined start values inside its own AVX-512 headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

/// encode_chunk sixteen units at a time with AVX-512 (VBMI2 byte compression): each unit's one
/// to three UTF-8 bytes are formed in its own 32-bit lane, and the lanes' used bytes packed
/// together. A block stops before its first surrogate; a valid pair is encoded here, anything
/// else (a lone surrogate) goes to encode_chunk for its error or replacement. `out` has the
/// room encode_chunk needs plus 64 bytes: each block stores a whole vector.
__attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi2,popcnt"))) std::size_t
encode_chunk_wide(char16_t const* text, std::size_t begin, std::size_t end, bool strict, char* out) {
    auto* o = reinterpret_cast<unsigned char*>(out);
    char16_t const* s = text + begin;
    char16_t const* const stop = text + end;
    __m512i const byte_index = _mm512_set1_epi32(0x03020100);
    __m512i const one_each = _mm512_set1_epi32(0x01010101);
    __m512i const low6 = _mm512_set1_epi32(0x3F);
    while (s < stop) {
        // The last block of a text reads only the units that are left: its other lanes load
        // as 0, which is no surrogate, and count no bytes.
        auto const count = static_cast<unsigned>(stop - s < 16 ? stop - s : 16);
        auto const present = static_cast<__mmask16>((1u << count) - 1);
        __m512i const c = _mm512_cvtepu16_epi32(_mm256_maskz_loadu_epi16(present, s));
        __mmask16 const surrogate = _mm512_cmpeq_epi32_mask(_mm512_and_si512(c, _mm512_set1_epi32(0xF800)),
                                                            _mm512_set1_epi32(0xD800));
        unsigned const lanes = surrogate != 0 ? static_cast<unsigned>(__builtin_ctz(surrogate)) : count;
        __mmask16 const two = _mm512_cmpge_epu32_mask(c, _mm512_set1_epi32(0x80));
        __mmask16 const three = _mm512_cmpge_epu32_mask(c, _mm512_set1_epi32(0x800));
        __m512i const last = _mm512_and_si512(c, low6);
        __m512i const middle = _mm512_and_si512(_mm512_srli_epi32(c, 6), low6);
        __m512i const as_two = _mm512_or_si512(_mm512_or_si512(_mm512_set1_epi32(0x80C0), _mm512_srli_epi32(c, 6)),
                                               _mm512_slli_epi32(last, 8));
        __m512i const as_three =
            _mm512_or_si512(_mm512_or_si512(_mm512_set1_epi32(0x8080E0), _mm512_srli_epi32(c, 12)),
                            _mm512_or_si512(_mm512_slli_epi32(middle, 8), _mm512_slli_epi32(last, 16)));
        __m512i const bytes = _mm512_mask_blend_epi32(three, _mm512_mask_blend_epi32(two, c, as_two), as_three);
        // Per lane 0x01010101 times its byte count, compared with the byte positions 0 to 3;
        // lanes from the first surrogate on count 0.
        __m512i length = _mm512_add_epi32(one_each, _mm512_maskz_mov_epi32(two, one_each));
        length = _mm512_add_epi32(length, _mm512_maskz_mov_epi32(three, one_each));
        length = _mm512_maskz_mov_epi32(static_cast<__mmask16>((1u << lanes) - 1), length);
        __mmask64 const used = _mm512_cmplt_epu8_mask(byte_index, length);
        _mm512_storeu_si512(o, _mm512_maskz_compress_epi8(used, bytes));
        o += __builtin_popcountll(used);
        s += lanes;
        if (lanes == count)
            continue;
        if (*s < 0xDC00 && s + 1 < stop && U16_IS_TRAIL(s[1])) {
            uint32_t const cp = U16_GET_SUPPLEMENTARY(s[0], s[1]);
            store_le(o, (0xF0 | (cp >> 18)) | (0x80 | ((cp >> 12) & 0x3F)) << 8 | (0x80 | ((cp >> 6) & 0x3F)) << 16 | (0x80u | (cp & 0x3F)) << 24, 4);
            o += 4;
            s += 2;
        } else {
            auto const at = static_cast<std::size_t>(s - text);
            o += encode_chunk(text, at, at + 1, strict, reinterpret_cast<char*>(o));
            ++s;
        }
    }
    return static_cast<std::size_t>(o - reinterpret_cast<unsigned char*>(out));
}

/// VELA_I18N_PORTABLE set to anything but "" keeps to the portable encoder, as on a processor
/// without these instructions: that is how the tests check it on one that has them.
bool wide_encoder_usable() {
    static bool const usable = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                               __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi2") &&
                               !(std::getenv("VELA_I18N_PORTABLE") && *std::getenv("VELA_I18N_PORTABLE"));
    return usable;
}
#pragma GCC diagnostic pop
#endif

/// The fastest encoder this processor runs; `out` as for encode_chunk_wide.
std::size_t encode_any(char16_t const* text, std::size_t begin, std::size_t end, bool strict, char* out) {
#ifdef VELA_I18N_WIDE_ENCODER
    if (wide_encoder_usable())
        return encode_chunk_wide(text, begin, end, strict, out);
#endif
    return encode_chunk(text, begin, end, strict, out);
}

/// Decodes UTF-8 text[begin, end) into out; `end` never splits a character. Same split of
/// work as encode_chunk.
std::size_t decode_chunk(char const* text, std::size_t begin, std::size_t end, bool strict, char16_t* out,
                         std::size_t out_capacity) {
    auto const* bytes = reinterpret_cast<uint8_t const*>(text);
    char16_t* o = out;
    std::size_t i = begin;
    while (i + 8 <= end && ascii8(text + i)) {
        for (int k = 0; k < 8; ++k) {
            o[k] = static_cast<char16_t>(bytes[i + static_cast<std::size_t>(k)]);
        }
        o += 8;
        i += 8;
    }
    while (i < end && bytes[i] < 0x80) {
        *o++ = bytes[i++];
    }
    if (i == end) {
        return static_cast<std::size_t>(o - out);
    }
    auto const capacity = static_cast<int32_t>(out_capacity - static_cast<std::size_t>(o - out));
    auto const n = static_cast<int32_t>(end - i);
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    if (strict) {
        u_strFromUTF8(o, capacity, &written, text + i, n, &status);
    } else {
        u_strFromUTF8WithSub(o, capacity, &written, text + i, n, kReplacement, nullptr, &status);
    }
    if (status == U_INVALID_CHAR_FOUND) {
        for (std::size_t k = i; k < end;) {
            std::size_t const at = k;
            UChar32 c;
            U8_NEXT(bytes, k, end, c);
            if (c < 0) {
                char hex[8];
                std::snprintf(hex, sizeof hex, "0x%02X", static_cast<unsigned>(bytes[at]));
                throw CvtInvalidInput("Invalid UTF-8 sequence starting with byte " + std::string(hex) +
                                          " at offset " + std::to_string(at),
                                      at);
            }
        }
    }
    if (U_FAILURE(status)) {
        throw_status(status);
    }
    return static_cast<std::size_t>(o - out) + static_cast<std::size_t>(written);
}

} // namespace

std::string utf16_to_utf8(char16_t const* text, std::size_t length, bool strict) {
    char buffer[3 * kChunk + 64];
    if (length <= kChunk) {
        return std::string(buffer, encode_any(text, 0, length, strict, buffer));
    }
    std::string out;
    out.reserve(utf8_bound(text, length));
    for (std::size_t i = 0; i < length;) {
        std::size_t end = i + kChunk < length ? i + kChunk : length;
        if (end < length && U16_IS_LEAD(text[end - 1])) {
            --end;
        }
        out.append(buffer, encode_any(text, i, end, strict, buffer));
        i = end;
    }
    return out;
}

std::u16string utf8_to_utf16(char const* text, std::size_t length, bool strict) {
    char16_t buffer[kChunk + 64];
    if (length <= kChunk) {
        return std::u16string(buffer, decode_chunk(text, 0, length, strict, buffer, std::size(buffer)));
    }
    std::u16string out;
    // Never more units than bytes; exact for ASCII.
    out.reserve(length);
    for (std::size_t i = 0; i < length;) {
        std::size_t end = i + kChunk < length ? i + kChunk : length;
        // Move the end past continuation bytes (at most 3): a character, or the longest
        // invalid prefix the decoder replaces as one, then never straddles two chunks.
        for (int k = 0; k < 3 && end < length && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80; ++k) {
            ++end;
        }
        out.append(buffer, decode_chunk(text, i, end, strict, buffer, std::size(buffer)));
        i = end;
    }
    return out;
}

} // namespace vela::i18n::impl
