#pragma once

#include <vela/filesystem/export.hpp>

#include <string>

/// Path text: forms, element extraction and conversion to the bytes the kernel takes.
///
/// Everything here is pure text work: nothing touches the file system. Paths are UTF-16;
/// the separator is "/" and there is no drive or network root. The native and generic forms
/// are the same text apart from collapsing runs of "/" into one; a trailing "/" is kept.
namespace vela::filesystem {

class path;

namespace detail {

/// The native spelling of a path. With `cleanup` true runs of "/" collapse into one
/// ("a//b/" gives "a/b/"); with false the text is returned as it is.
VELA_FS_API std::u16string make_native_form(std::u16string const& text, bool cleanup);

/// The generic ("/"-separated) spelling of a native-form text: runs of "/" collapse into one.
VELA_FS_API std::u16string make_generic_form(std::u16string const& text);

/// The path less its last element, without a trailing separator unless that is the root:
/// "a/b" gives "a", "/a" gives "/", "a/b/" gives "a/b" (its last element is empty).
/// Empty when there is no parent: "a", "" and "/".
VELA_FS_API std::u16string extract_parent_path(std::u16string const& text);

/// The last element: the text after the last "/" ("a/b" gives "b", "a/b/" and "/" give "").
VELA_FS_API std::u16string extract_filename(std::u16string const& text);

/// The last element's text from its last "." on, dot included ("a/b.tar.gz" gives ".gz",
/// ".profile" gives ".profile"); empty when the element has no dot or is "." or "..".
VELA_FS_API std::u16string extract_extension(std::u16string const& text);

/// UTF-16 to UTF-8, the encoding of file names on this host. Invalid UTF-16 (a lone
/// surrogate) throws `FileNameConversionFailure` carrying the path.
VELA_FS_API std::string to_filesystem(std::u16string const& text);

/// UTF-8 from the kernel (a name read from a folder or a link) to UTF-16. Bytes that are not
/// valid UTF-8 throw `FileNameConversionFailure`: such a name cannot be spelt in UTF-16.
VELA_FS_API std::u16string from_filesystem(char const* text, std::size_t length);
inline std::u16string from_filesystem(std::string const& text) { return from_filesystem(text.data(), text.size()); }

/// The narrow path in the form the file calls take. An embedded NUL throws
/// `InvalidArgument`: a path is never silently cut short at the first NUL.
VELA_FS_API std::string make_access_form(std::string const& text);

/// `make_access_form(to_filesystem(make_native_form(text, true)))`: what every operation of
/// this layer hands to the kernel. Throws as those three do.
VELA_FS_API std::string make_native_access_form_with_cleanup_i18n(std::u16string const& text);

/// True when the path begins with "/".
VELA_FS_API bool is_absolute(path const& p);

/// `p` joined with `tail` by exactly one "/" (none is added when `p` is empty or already ends
/// in "/", or when `tail` is empty). Leading separators of `tail` are kept, so the join of
/// "a" and "/b" is "a//b" in text and "a/b" once in native form.
VELA_FS_API path concatenate_pathname(path const& p, std::u16string const& tail);

} // namespace detail

/// A host path, held in native form (UTF-16).
///
/// Built implicitly from UTF-16 text so that every operation accepts a string as well; the
/// empty string gives the empty path without any conversion. Cheap to copy and move.
class VELA_FS_API path {
public:
    path() = default;
    path(std::u16string const& text); // NOLINT: implicit on purpose, see above
    path(std::u16string&& text);      // NOLINT
    path(char16_t const* text);       // NOLINT

    /// The native form.
    std::u16string const& native() const noexcept { return m_text; }
    std::u16string const& string() const noexcept { return m_text; }
    /// The generic form ("/" separators).
    std::u16string generic_string() const;
    /// The UTF-8 bytes the kernel takes; throws as `make_access_form` does.
    std::string access_form() const;

    bool empty() const noexcept { return m_text.empty(); }

    friend bool operator==(path const& a, path const& b) noexcept { return a.m_text == b.m_text; }
    friend bool operator!=(path const& a, path const& b) noexcept { return a.m_text != b.m_text; }

private:
    struct native_tag {};
    path(std::u16string text, native_tag) : m_text(std::move(text)) {}
    friend path detail::concatenate_pathname(path const&, std::u16string const&);

    std::u16string m_text;
};

} // namespace vela::filesystem
