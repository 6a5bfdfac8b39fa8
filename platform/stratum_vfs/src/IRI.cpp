// IRI text: parsing, canonical printing, relative resolution. Pure text work, no storage.
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include "HostText.hpp"
#include "Utf.hpp"

#include <unicode/utf16.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <vector>

namespace stratum::storage::vfs {

namespace {

// Every scheme some provider serves, lower case. A new provider adds its scheme here.
constexpr std::array<char16_t const*, 3> knownSchemes = {u"file", u"memory", u"s3"};

// Schemes whose IRIs carry an authority (the bucket) and literal keys.
bool hasAuthority(std::u16string const& scheme) { return detail::asciiLower(scheme) == u"s3"; }

// Object keys hold at most this many bytes of UTF-8.
constexpr std::size_t maxKeyBytes = 1024;

bool isAlpha(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }
bool isDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

int hexValue(char16_t c) {
    if (isDigit(c)) {
        return c - u'0';
    }
    if (c >= u'a' && c <= u'f') {
        return c - u'a' + 10;
    }
    if (c >= u'A' && c <= u'F') {
        return c - u'A' + 10;
    }
    return -1;
}

// Length of the scheme at the start of `text` (RFC 3986 syntax) when a ":" follows it, else 0.
std::size_t schemeLength(std::u16string const& text) {
    if (text.empty() || !isAlpha(text[0])) {
        return 0;
    }
    std::size_t i = 1;
    while (i < text.size() && (isAlpha(text[i]) || isDigit(text[i]) || text[i] == u'+' || text[i] == u'-' ||
                               text[i] == u'.')) {
        ++i;
    }
    return i < text.size() && text[i] == u':' ? i : 0;
}

bool needsEscape(char16_t c) { return c < 0x20 || c == 0x7F || c == u' ' || c == u'%' || c == u'#' || c == u'?'; }

void appendEncoded(std::u16string& out, std::u16string const& segment) {
    static constexpr char16_t hex[] = u"0123456789ABCDEF";
    for (char16_t c : segment) {
        if (needsEscape(c)) {
            out += u'%';
            out += hex[(c >> 4) & 0xF];
            out += hex[c & 0xF];
        } else {
            out += c;
        }
    }
}

// Applies decoded key text to `segments` literally: split at every "/", empty segments kept
// ("a//b" has three), one trailing "/" dropped (it names the folder). "." and ".." have no
// meaning in a key and are refused rather than resolved.
void applyKeySegments(std::vector<std::u16string>& segments, std::u16string const& decoded,
                      std::u16string const& whole) {
    if (decoded.empty()) {
        return;
    }
    std::size_t const end = decoded.back() == u'/' ? decoded.size() - 1 : decoded.size();
    std::size_t start = 0;
    while (true) {
        std::size_t slash = decoded.find(u'/', start);
        if (slash == std::u16string::npos || slash >= end) {
            slash = end;
        }
        std::u16string segment = decoded.substr(start, slash - start);
        if (segment == u"." || segment == u"..") {
            throw InvalidIRIException(whole);
        }
        segments.push_back(std::move(segment));
        if (slash == end) {
            break;
        }
        start = slash + 1;
    }
}

// A bucket name as S3 accepts it: 3 to 63 of a-z 0-9 "." "-", a letter or digit at both ends.
bool validBucket(std::u16string const& name) {
    auto alnum = [](char16_t c) { return (c >= u'a' && c <= u'z') || isDigit(c); };
    if (name.size() < 3 || name.size() > 63 || !alnum(name.front()) || !alnum(name.back())) {
        return false;
    }
    for (char16_t c : name) {
        if (!alnum(c) && c != u'.' && c != u'-') {
            return false;
        }
    }
    return true;
}

// The key of `segments`: joined by "/".
std::u16string joinKey(std::vector<std::u16string> const& segments) {
    std::u16string key;
    for (std::size_t i = 0; i < segments.size(); ++i) {
        key += (i ? u"/" : u"") + segments[i];
    }
    return key;
}

void checkKeyLength(std::vector<std::u16string> const& segments, std::u16string const& whole) {
    std::string bytes;
    if (!detail::toUtf8(joinKey(segments), bytes) || bytes.size() > maxKeyBytes) {
        throw InvalidIRIException(whole);
    }
}

// Decodes the percent-escapes of IRI path text; throws InvalidIRIException (naming `whole`)
// for a bad escape, invalid UTF-8 or UTF-16, or NUL.
std::u16string decodePath(std::u16string const& text, std::u16string const& whole) {
    std::string bytes;
    std::u16string raw;
    std::string rawUtf8;
    auto flushRaw = [&] {
        if (!raw.empty()) {
            if (!detail::toUtf8(raw, rawUtf8)) {
                throw InvalidIRIException(whole);
            }
            bytes += rawUtf8;
            raw.clear();
        }
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'%') {
            int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
            int low = high >= 0 ? hexValue(text[i + 2]) : -1;
            if (low < 0) {
                throw InvalidIRIException(whole);
            }
            flushRaw();
            bytes += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            raw += text[i];
        }
    }
    flushRaw();
    std::u16string decoded;
    if (!detail::fromUtf8(bytes, decoded) || decoded.find(u'\0') != std::u16string::npos) {
        throw InvalidIRIException(whole);
    }
    return decoded;
}

// Applies "/"-separated path text to `segments`: empty and "." segments vanish, ".." drops the
// last one (none at the root). Host names (`whole` null) are literal. IRI text of a `file` or
// `memory` IRI is split at its literal "/" first and each segment decoded on its own, so that an
// escape never adds a separator nor becomes a dot segment once dots are resolved: "%2E" and
// "%2E%2E" are "." and ".."; a name holding "/" (%2F) cannot exist there and is refused, as NUL is.
void applySegments(std::vector<std::u16string>& segments, std::u16string const& text,
                   std::u16string const* whole = nullptr) {
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(u'/', start);
        if (end == std::u16string::npos) {
            end = text.size();
        }
        std::u16string segment = text.substr(start, end - start);
        if (whole) {
            segment = decodePath(segment, *whole);
            if (segment.find(u'/') != std::u16string::npos) {
                throw InvalidIRIException(*whole);
            }
        }
        if (segment == u"..") {
            if (!segments.empty()) {
                segments.pop_back();
            }
        } else if (!segment.empty() && segment != u".") {
            segments.push_back(std::move(segment));
        }
        start = end + 1;
    }
}

bool validUtf16(std::u16string const& text) {
    for (std::size_t i = 0; i < text.size();) {
        UChar32 c;
        U16_NEXT(text.data(), i, text.size(), c);
        if (U_IS_SURROGATE(c)) {
            return false; // a surrogate that is not half of a pair
        }
    }
    return true;
}

std::u16string currentFolder() {
    std::vector<char> buffer(PATH_MAX);
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE) {
            throw Exception(ErrorCode::IOError, AbsoluteIRI(), "the current folder cannot be read");
        }
        buffer.resize(buffer.size() * 2);
    }
    std::u16string folder;
    if (!detail::fromUtf8(buffer.data(), folder)) {
        throw Exception(ErrorCode::IOError, AbsoluteIRI(), "the current folder is not UTF-8");
    }
    return folder;
}

} // namespace

AbsoluteIRI::AbsoluteIRI() = default;

AbsoluteIRI::AbsoluteIRI(std::u16string const& text) {
    if (!validUtf16(text)) {
        throw InvalidIRIException(text);
    }
    std::size_t length = schemeLength(text);
    if (length == 0) {
        throw InvalidIRIException(text);
    }
    scheme_ = text.substr(0, length);
    if (!isKnownIRIScheme(scheme_)) {
        throw UnsupportedIRISchemeException(scheme_);
    }
    if (hasAuthority(scheme_)) {
        // "//", the bucket, then the key after one "/" (none: the bucket's root).
        if (text.compare(length + 1, 2, u"//") != 0) {
            throw InvalidIRIException(text);
        }
        std::size_t const start = length + 3;
        std::size_t slash = text.find(u'/', start);
        authority_ = text.substr(start, slash == std::u16string::npos ? std::u16string::npos : slash - start);
        if (!validBucket(authority_)) {
            throw InvalidIRIException(text);
        }
        if (slash != std::u16string::npos) {
            applyKeySegments(segments_, decodePath(text.substr(slash + 1), text), text);
            checkKeyLength(segments_, text);
        }
        return;
    }
    // "//", an empty authority, then an absolute path.
    if (text.compare(length + 1, 3, u"///") != 0) {
        throw InvalidIRIException(text);
    }
    applySegments(segments_, text.substr(length + 3), &text);
}

AbsoluteIRI::AbsoluteIRI(AbsoluteIRI const& base, std::u16string const& relative)
    : scheme_(base.scheme_), authority_(base.authority_), segments_(base.segments_) {
    if (!validUtf16(relative)) {
        throw InvalidIRIException(relative);
    }
    if (hasAuthority(scheme_)) {
        applyKeySegments(segments_, decodePath(relative, relative), relative);
        checkKeyLength(segments_, relative);
        return;
    }
    applySegments(segments_, relative, &relative);
}

std::u16string AbsoluteIRI::toString() const {
    if (scheme_.empty()) {
        return {};
    }
    std::u16string out = scheme_ + u"://" + authority_;
    if (segments_.empty()) {
        out += u'/';
    }
    for (auto const& segment : segments_) {
        out += u'/';
        appendEncoded(out, segment);
    }
    if (!segments_.empty() && segments_.back().empty()) {
        out += u'/'; // a last empty segment of a key: "a//" stays "a//"
    }
    return out;
}

std::u16string const& AbsoluteIRI::getScheme() const { return scheme_; }

std::u16string const& AbsoluteIRI::getAuthority() const { return authority_; }

std::u16string AbsoluteIRI::getKey() const { return joinKey(segments_); }

std::u16string AbsoluteIRI::getPath() const {
    if (segments_.empty()) {
        return u"/";
    }
    std::u16string path;
    for (auto const& segment : segments_) {
        path += u'/';
        path += segment;
    }
    return path;
}

std::u16string AbsoluteIRI::getName() const { return segments_.empty() ? std::u16string() : segments_.back(); }

std::vector<std::u16string> const& AbsoluteIRI::getSegments() const { return segments_; }

bool AbsoluteIRI::hasParent() const { return !segments_.empty(); }

AbsoluteIRI AbsoluteIRI::getParent() const {
    AbsoluteIRI parent(*this);
    if (!parent.segments_.empty()) {
        parent.segments_.pop_back();
    }
    return parent;
}

AbsoluteIRI AbsoluteIRI::getChild(std::u16string const& name) const {
    if (name.empty() || name == u"." || name == u".." || name.find(u'/') != std::u16string::npos ||
        name.find(u'\0') != std::u16string::npos || !validUtf16(name)) {
        throw InvalidIRIException(name);
    }
    AbsoluteIRI child(*this);
    child.segments_.push_back(name);
    if (hasAuthority(scheme_)) {
        checkKeyLength(child.segments_, name);
    }
    return child;
}

bool AbsoluteIRI::isWithin(AbsoluteIRI const& other) const {
    if (detail::asciiLower(scheme_) != detail::asciiLower(other.scheme_) || authority_ != other.authority_ ||
        other.segments_.size() > segments_.size()) {
        return false;
    }
    for (std::size_t i = 0; i < other.segments_.size(); ++i) {
        if (segments_[i] != other.segments_[i]) {
            return false;
        }
    }
    return true;
}

bool operator==(AbsoluteIRI const& a, AbsoluteIRI const& b) {
    return a.segments_ == b.segments_ && a.authority_ == b.authority_ &&
           detail::asciiLower(a.scheme_) == detail::asciiLower(b.scheme_);
}

bool isKnownIRIScheme(std::u16string const& scheme) {
    std::u16string lower = detail::asciiLower(scheme);
    for (auto const* known : knownSchemes) {
        if (lower == known) {
            return true;
        }
    }
    return false;
}

bool hasIRIPrefix(std::u16string const& text) {
    std::size_t length = schemeLength(text);
    return length != 0 && isKnownIRIScheme(text.substr(0, length));
}

AbsoluteIRI detail::hostTextToIRI(std::u16string const& scheme, std::u16string const& hostPath) {
    if (!isKnownIRIScheme(scheme)) {
        throw UnsupportedIRISchemeException(scheme);
    }
    if (!validUtf16(hostPath) || hostPath.find(u'\0') != std::u16string::npos) {
        throw InvalidIRIException(hostPath);
    }
    std::u16string absolute = !hostPath.empty() && hostPath[0] == u'/' ? hostPath : currentFolder() + u'/' + hostPath;
    // Host names are literal: split and resolve them, then print each name canonically.
    std::vector<std::u16string> segments;
    applySegments(segments, absolute);
    std::u16string text = scheme + u"://";
    if (segments.empty()) {
        text += u'/';
    }
    for (auto const& segment : segments) {
        text += u'/';
        appendEncoded(text, segment);
    }
    return AbsoluteIRI(text);
}

std::u16string fromAbsoluteIRI(AbsoluteIRI const& iri) {
    if (detail::asciiLower(iri.getScheme()) != u"file") {
        throw UnsupportedIRISchemeException(iri.getScheme());
    }
    return iri.getPath();
}

} // namespace stratum::storage::vfs
