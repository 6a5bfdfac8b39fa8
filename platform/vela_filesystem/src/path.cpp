// Path text: pure string work, no system calls.
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/path.hpp>

#include <unicode/ustring.h>

namespace vela::filesystem {

namespace {

constexpr char16_t separator = u'/';

std::u16string collapse_separators(std::u16string const& text) {
    if (text.find(u"//") == std::u16string::npos)
        return text; // the usual case: nothing to collapse
    std::u16string out;
    out.reserve(text.size());
    for (char16_t c : text) {
        if (c == separator && !out.empty() && out.back() == separator)
            continue;
        out.push_back(c);
    }
    return out;
}

} // namespace

namespace detail {

std::u16string make_native_form(std::u16string const& text, bool cleanup) {
    return cleanup ? collapse_separators(text) : text;
}

std::u16string make_generic_form(std::u16string const& text) { return collapse_separators(text); }

std::u16string extract_parent_path(std::u16string const& text) {
    auto const slash = text.rfind(separator);
    if (slash == std::u16string::npos)
        return {};
    // Drop the separators before the last element, but keep a root.
    auto const last = text.find_last_not_of(separator, slash);
    if (last == std::u16string::npos)
        return slash + 1 == text.size() ? std::u16string() : std::u16string(1, separator);
    return text.substr(0, last + 1);
}

std::u16string extract_filename(std::u16string const& text) {
    auto const slash = text.rfind(separator);
    return slash == std::u16string::npos ? text : text.substr(slash + 1);
}

std::u16string extract_extension(std::u16string const& text) {
    std::u16string const name = extract_filename(text);
    if (name == u"." || name == u"..")
        return {};
    auto const dot = name.rfind(u'.');
    return dot == std::u16string::npos ? std::u16string() : name.substr(dot);
}

std::string to_filesystem(std::u16string const& text) {
    if (text.empty())
        return {};
    std::string out(text.size() * 3, '\0');
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &length, text.data(),
                static_cast<int32_t>(text.size()), &status);
    if (U_FAILURE(status))
        throw FileNameConversionFailure("vela:filesystem:FileNameConversionFailure",
                                        "Path is not valid UTF-16", text);
    out.resize(static_cast<std::size_t>(length));
    return out;
}

std::u16string from_filesystem(char const* text, std::size_t length) {
    if (length == 0)
        return {};
    std::u16string out(length, u'\0');
    UErrorCode status = U_ZERO_ERROR;
    int32_t out_length = 0;
    u_strFromUTF8(out.data(), static_cast<int32_t>(out.size()), &out_length, text, static_cast<int32_t>(length),
                  &status);
    if (U_FAILURE(status))
        throw FileNameConversionFailure("vela:filesystem:FileNameConversionFailure",
                                        "File name is not valid UTF-8: " + std::string(text, length));
    out.resize(static_cast<std::size_t>(out_length));
    return out;
}

std::string make_access_form(std::string const& text) {
    if (text.find('\0') != std::string::npos)
        throw InvalidArgument("vela:filesystem:InvalidArgument", "Path contains a NUL character");
    return text;
}

std::string make_native_access_form_with_cleanup_i18n(std::u16string const& text) {
    return make_access_form(to_filesystem(make_native_form(text, true)));
}

bool is_absolute(path const& p) { return !p.native().empty() && p.native().front() == separator; }

path concatenate_pathname(path const& p, std::u16string const& tail) {
    std::u16string text = p.native();
    if (!text.empty() && !tail.empty() && text.back() != separator)
        text.push_back(separator);
    text += tail;
    return path(make_native_form(text, true), path::native_tag{});
}

} // namespace detail

path::path(std::u16string const& text) : m_text(text.empty() ? text : detail::make_native_form(text, true)) {}
path::path(std::u16string&& text)
    : m_text(text.empty() ? std::move(text) : detail::make_native_form(text, true)) {}
path::path(char16_t const* text) : path(std::u16string(text)) {}

std::u16string path::generic_string() const { return detail::make_generic_form(m_text); }

std::string path::access_form() const { return detail::make_access_form(detail::to_filesystem(m_text)); }

} // namespace vela::filesystem
