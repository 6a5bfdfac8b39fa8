#pragma once

#include <stratum/export.hpp>

#include <vela/filesystem/path.hpp>

#include <string>
#include <vector>

namespace stratum::storage::vfs {

/// An absolute IRI naming one file or folder of a storage system: a scheme, "://", an empty
/// authority and an absolute path, such as `memory:///reports/q3.pkg` or `file:///home/a/b.pkg`.
///
/// The scheme is recognised case-insensitively and kept as written (`FILE:///x` is valid and
/// `getScheme()` gives "FILE"). The path is held as its decoded segments: the text is split at
/// its literal "/" first, then each segment's percent-escapes are decoded (as UTF-8); "." and
/// ".." segments, spelt plainly or escaped (`%2E`, `%2e%2E`), are resolved once (never above
/// the root) and empty segments dropped, so two spellings of the same place compare equal and
/// print the same. A `file` or `memory` name cannot hold "/" or NUL, so `%2F` and `%00` are
/// refused: decoding never makes a separator, nor a dot segment after dots were resolved.
///
/// Containment: every storage operation on an IRI touches exactly the item its segments name
/// (for `file`, the host path `fromAbsoluteIRI` gives, which is `getPath()`) and nothing else.
/// In particular an IRI whose text starts with a folder's IRI and adds no whole ".." segment
/// (plain or escaped) names that folder or an item below it, whatever its escapes decode to.
///
/// `s3` IRIs name objects the way object-store users write them, `s3://bucket/reports/q3.pkg`:
/// the authority is the bucket (3 to 63 of a-z 0-9 "." "-", a letter or digit at both ends)
/// and the path is the object key, `s3://bucket/` (or `s3://bucket`) the bucket's root. Keys
/// are literal, never normalised: the key is split at every "/" and empty segments are kept
/// (`a//b` has the three segments "a", "", "b" and prints as `a//b`); one trailing "/" is
/// dropped, since `s3://bucket/reports/` names the folder `reports` (a last empty segment
/// prints with an extra "/": segments "a", "" print as `a//`). "." and ".." segments are
/// refused (InvalidIRIException) rather than resolved, as are a missing or invalid bucket and
/// keys over 1,024 bytes of UTF-8 (S3's limit), however the IRI is built. `file` and `memory`
/// IRIs have an empty authority.
///
/// Parsing is pure text work: nothing is looked up in any storage system. Objects are
/// immutable values, safe to share between threads.
class STRATUM_API AbsoluteIRI {
public:
    /// The empty IRI: no scheme, no path, `toString()` gives "". Only useful as "no location"
    /// (for example in `Exception`); every other operation treats it as the root of no scheme.
    AbsoluteIRI();

    /// Parses IRI text. Throws `InvalidIRIException` for malformed text: no scheme, no "//",
    /// a non-empty authority, a relative or missing path, an invalid percent-escape ("%" not
    /// followed by two hex digits), escapes that decode to invalid UTF-8 or to NUL, a literal
    /// NUL, invalid UTF-16 (a lone surrogate), or (not for `s3`) an escaped "/" in a segment.
    /// Throws `UnsupportedIRISchemeException` for a well-formed scheme that no provider serves
    /// (see `isKnownIRIScheme`). Space, "#", "?" and control characters in the text are taken
    /// literally as part of the path.
    explicit AbsoluteIRI(std::u16string const& text);

    /// `relative` appended to `base` as child segments ("/" separates them; leading, trailing
    /// and repeated slashes are ignored), then "." and ".." resolved; ".." at the root stays at
    /// the root. For `s3` the text is key text, split literally as the class comment says.
    /// `relative` is IRI text: it is split and decoded as the class comment says, so only a
    /// whole ".." segment (plain or escaped) climbs above `base`, and it throws
    /// `InvalidIRIException` (naming `relative`) on the same faults as the constructor above.
    AbsoluteIRI(AbsoluteIRI const& base, std::u16string const& relative);

    /// Canonical text: the scheme as written, "://", the authority, then "/"-joined segments, each
    /// percent-encoded (upper-case hex of its UTF-8 bytes) for exactly space, "%", "#", "?",
    /// U+0000 to U+001F and U+007F; everything else, non-ASCII included, stands as is. The root
    /// prints as `scheme:///`. Parsing this text again gives an equal IRI and the same text.
    std::u16string toString() const;

    /// The scheme as it was written.
    std::u16string const& getScheme() const;

    /// The authority: the bucket of an `s3` IRI, empty for every other scheme.
    std::u16string const& getAuthority() const;

    /// The segments joined by "/" without a leading one: the object key ("" at the root).
    std::u16string getKey() const;

    /// The decoded absolute path: "/" followed by the "/"-joined decoded segments; "/" at the root.
    std::u16string getPath() const;

    /// The decoded last segment; empty for the root.
    std::u16string getName() const;

    /// The decoded segments, root first excluded (empty for the root).
    std::vector<std::u16string> const& getSegments() const;

    /// False only for the root (and the empty IRI).
    bool hasParent() const;

    /// The IRI one segment up; the root is its own parent.
    AbsoluteIRI getParent() const;

    /// The IRI of the child called `name` (a decoded name, taken literally: "%" is just a
    /// character here). `InvalidIRIException` for a name that is empty, ".", "..", or holds
    /// "/", NUL or invalid UTF-16.
    AbsoluteIRI getChild(std::u16string const& name) const;

    /// True if this IRI is `other` or lies below it (same scheme ignoring case, same authority, and
    /// `other`'s segments are a prefix of this one's).
    bool isWithin(AbsoluteIRI const& other) const;

    /// Same scheme (ignoring case), same authority and same decoded segments.
    friend STRATUM_API bool operator==(AbsoluteIRI const& a, AbsoluteIRI const& b);
    friend bool operator!=(AbsoluteIRI const& a, AbsoluteIRI const& b) { return !(a == b); }

private:
    std::u16string scheme_;
    std::u16string authority_;
    std::vector<std::u16string> segments_;
};

/// True if `scheme` names a scheme some provider serves: "file", "memory" or "s3", in any case.
STRATUM_API bool isKnownIRIScheme(std::u16string const& scheme);

/// True only if `text` begins with a known scheme (see `isKnownIRIScheme`) immediately
/// followed by ":". Plain local paths, relative or absolute (`./a:b`, `a/b:c`, `/x:y`), are
/// never taken for IRIs. Never throws (beyond allocation failure).
STRATUM_API bool hasIRIPrefix(std::u16string const& text);

/// The IRI of `scheme` whose path is the host path `hostPath` (its UTF-16 native form, "/"
/// separated; a UTF-16 string converts implicitly). A relative host path is made absolute
/// against the current folder; "." and ".." are resolved lexically (without following links).
/// Every name survives: spaces, "%", "#", "?", non-ASCII, names starting with "-" or "." come
/// back unchanged through `fromAbsoluteIRI`. Throws `UnsupportedIRISchemeException` for an
/// unknown scheme, `InvalidIRIException` when the path holds NUL or invalid UTF-16, and for a
/// scheme with an authority (`s3`: a host path names no bucket).
STRATUM_API AbsoluteIRI toAbsoluteIRI(std::u16string const& scheme, vela::filesystem::path const& hostPath);

/// The local path text of a `file` IRI (scheme in any case): its decoded path, UTF-16, for
/// example "/home/a/b c.pkg". Throws `UnsupportedIRISchemeException` for any other scheme,
/// since such an IRI has no local path.
STRATUM_API std::u16string fromAbsoluteIRI(AbsoluteIRI const& iri);

} // namespace stratum::storage::vfs
