#include "Utf.hpp"

#include <unicode/ustring.h>

namespace stratum::storage::vfs::detail {

bool toUtf8(std::u16string const& text, std::string& out) {
    out.clear();
    if (text.empty()) {
        return true;
    }
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
        return false;
    }
    out.resize(static_cast<std::size_t>(length));
    status = U_ZERO_ERROR;
    u_strToUTF8(out.data(), length, &length, text.data(), static_cast<int32_t>(text.size()), &status);
    return U_SUCCESS(status);
}

bool fromUtf8(std::string const& bytes, std::u16string& out) {
    out.clear();
    if (bytes.empty()) {
        return true;
    }
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, bytes.data(), static_cast<int32_t>(bytes.size()), &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
        return false;
    }
    out.resize(static_cast<std::size_t>(length));
    status = U_ZERO_ERROR;
    u_strFromUTF8(out.data(), length, &length, bytes.data(), static_cast<int32_t>(bytes.size()), &status);
    return U_SUCCESS(status);
}

std::string toUtf8Lenient(std::u16string const& text) {
    std::string out;
    if (text.empty()) {
        return out;
    }
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8WithSub(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), 0xFFFD, nullptr,
                       &status);
    out.resize(static_cast<std::size_t>(length));
    status = U_ZERO_ERROR;
    u_strToUTF8WithSub(out.data(), length, &length, text.data(), static_cast<int32_t>(text.size()), 0xFFFD,
                       nullptr, &status);
    return out;
}

std::u16string asciiLower(std::u16string text) {
    for (auto& c : text) {
        if (c >= u'A' && c <= u'Z') {
            c = static_cast<char16_t>(c - u'A' + u'a');
        }
    }
    return text;
}

} // namespace stratum::storage::vfs::detail
