// Conversions with named encodings other than UTF-8, through the Unicode library's
// converters. A converter is opened per call (the library caches the mapping tables), so
// converter objects stay immutable and shareable.

#include "convert_impl.hpp"

#include <vela/i18n/cvt_exception.hpp>

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/utf16.h>

#include <memory>
#include <new>

namespace vela::i18n::impl {

converter_ptr open_converter(std::string const& encoding) {
    UErrorCode status = U_ZERO_ERROR;
    converter_ptr c(ucnv_open(encoding.c_str(), &status));
    if (U_FAILURE(status) || !c) {
        throw CvtUnknownEncoding(encoding);
    }
    return c;
}

namespace {

// Room for the units a converter reports as the fault: more than any converter keeps.
constexpr int8_t kErrorRoom = 32;

bool is_conversion_fault(UErrorCode status) {
    return status == U_INVALID_CHAR_FOUND || status == U_ILLEGAL_CHAR_FOUND || status == U_TRUNCATED_CHAR_FOUND;
}

[[noreturn]] void throw_status(UErrorCode status) {
    if (status == U_MEMORY_ALLOCATION_ERROR) {
        throw std::bad_alloc();
    }
    throw CvtExceptionBase(std::string("Text conversion failed: ") + u_errorName(status));
}

/// Runs a streaming conversion step until the whole input is consumed, growing the output
/// as needed. `step` converts from *source into [*target, limit) and sets the status.
template <typename Out, typename In, typename Step>
UErrorCode convert_all(Out& out, In const*& source, In const* source_limit, Step step) {
    using Unit = typename Out::value_type;
    Unit* target = out.data();
    for (;;) {
        UErrorCode status = U_ZERO_ERROR;
        step(&target, out.data() + out.size(), &source, source_limit, &status);
        if (status != U_BUFFER_OVERFLOW_ERROR) {
            out.resize(static_cast<std::size_t>(target - out.data()));
            return status;
        }
        auto const used = static_cast<std::size_t>(target - out.data());
        out.resize(out.size() * 2 + 16);
        target = out.data() + used;
    }
}

} // namespace

std::u16string codepage_to_utf16(char const* text, std::size_t length, std::string const& encoding, bool strict) {
    if (length == 0) {
        return {};
    }
    check_length(length);
    converter_ptr const cnv = open_converter(encoding);
    UErrorCode status = U_ZERO_ERROR;
    if (strict) { // a converter substitutes unless told to stop
        ucnv_setToUCallBack(cnv.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    }

    std::u16string out(length + 16, u'\0');
    char const* source = text;
    status = convert_all(out, source, text + length,
                         [&](char16_t** target, char16_t* limit, char const** src, char const* src_limit,
                             UErrorCode* st) {
                             ucnv_toUnicode(cnv.get(), target, limit, src, src_limit, nullptr, true, st);
                         });
    if (is_conversion_fault(status)) {
        char bad[kErrorRoom];
        int8_t bad_length = kErrorRoom;
        UErrorCode ignored = U_ZERO_ERROR;
        ucnv_getInvalidChars(cnv.get(), bad, &bad_length, &ignored);
        auto const at = static_cast<std::size_t>(source - text) - static_cast<std::size_t>(bad_length);
        throw CvtInvalidInput("Invalid byte sequence for " + encoding + " at offset " + std::to_string(at), at);
    }
    if (U_FAILURE(status)) {
        throw_status(status);
    }
    return out;
}

std::string utf16_to_codepage(char16_t const* text, std::size_t length, std::string const& encoding, bool strict) {
    if (length == 0) {
        return {};
    }
    check_length(length);
    converter_ptr const cnv = open_converter(encoding);
    UErrorCode status = U_ZERO_ERROR;
    if (strict) { // a converter substitutes unless told to stop
        ucnv_setFromUCallBack(cnv.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    }

    std::string out(length + 16, '\0');
    char16_t const* source = text;
    status = convert_all(out, source, text + length,
                         [&](char** target, char* limit, char16_t const** src, char16_t const* src_limit,
                             UErrorCode* st) {
                             ucnv_fromUnicode(cnv.get(), target, limit, src, src_limit, nullptr, true, st);
                         });
    if (is_conversion_fault(status)) {
        UChar bad[kErrorRoom];
        int8_t bad_length = kErrorRoom;
        UErrorCode ignored = U_ZERO_ERROR;
        ucnv_getInvalidUChars(cnv.get(), bad, &bad_length, &ignored);
        auto const at = static_cast<std::size_t>(source - text) - static_cast<std::size_t>(bad_length);
        std::string const what = status == U_INVALID_CHAR_FOUND
                                     ? "cannot be represented in " + encoding
                                     : "is an unpaired surrogate and cannot be converted to " + encoding;
        UChar32 c;
        U16_GET(text, 0, at, length, c);
        throw CvtInvalidInput("Character " + code_point_name(static_cast<char32_t>(c)) + " at UTF-16 offset " + std::to_string(at) +
                                  " " + what,
                              at);
    }
    if (U_FAILURE(status)) {
        throw_status(status);
    }
    return out;
}

} // namespace vela::i18n::impl
