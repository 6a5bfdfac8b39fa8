#include "s3/Signer.hpp"

#include <boost/algorithm/hex.hpp>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace stratum::storage::vfs::detail::s3 {

namespace {

std::string toHex(unsigned char const* bytes, std::size_t size) {
    std::string text;
    text.reserve(size * 2);
    boost::algorithm::hex_lower(bytes, bytes + size, std::back_inserter(text));
    return text;
}

// The digest of `size` bytes at `data` by `kind`, as raw bytes.
std::string digestOf(EVP_MD const* kind, void const* data, std::size_t size) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data, size, digest, &length, kind, nullptr) != 1)
        throw std::runtime_error("a message digest failed");
    return std::string(reinterpret_cast<char*>(digest), length);
}

std::string digestHex(EVP_MD const* kind, void const* data, std::size_t size) {
    std::string const digest = digestOf(kind, data, size);
    return toHex(reinterpret_cast<unsigned char const*>(digest.data()), digest.size());
}

std::string lowerAscii(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    return text;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Leading and trailing blanks dropped, every inner run of blanks folded to one space.
std::string foldBlanks(std::string const& value) {
    std::string out;
    out.reserve(value.size());
    bool pending = false;
    for (char c : value) {
        if (isBlank(c)) {
            pending = !out.empty();
            continue;
        }
        if (pending)
            out += ' ';
        pending = false;
        out += c;
    }
    return out;
}

struct Canonical {
    std::string request;
    std::string signedHeaders;
};

Canonical canonicalize(Request const& request) {
    Canonical result;
    std::string& out = result.request;
    out = request.method + '\n' + (request.path.empty() ? std::string("/") : request.path) + '\n';

    std::vector<std::pair<std::string, std::string>> query;
    query.reserve(request.query.size());
    for (auto const& [name, value] : request.query)
        query.emplace_back(uriEncode(name, false), uriEncode(value, false));
    std::sort(query.begin(), query.end());
    for (std::size_t i = 0; i < query.size(); ++i)
        out += (i ? "&" : "") + query[i].first + '=' + query[i].second;
    out += '\n';

    // Stable: values of a repeated header keep the order they were given in.
    std::vector<std::pair<std::string, std::string>> headers;
    headers.reserve(request.headers.size());
    for (auto const& [name, value] : request.headers)
        headers.emplace_back(lowerAscii(name), foldBlanks(value));
    std::stable_sort(headers.begin(), headers.end(),
                     [](auto const& a, auto const& b) { return a.first < b.first; });
    for (std::size_t i = 0; i < headers.size(); ++i) {
        if (i == 0 || headers[i - 1].first != headers[i].first) {
            out += (i ? "\n" : "") + headers[i].first + ':';
            result.signedHeaders += (i ? ";" : "") + headers[i].first;
        } else {
            out += ',';
        }
        out += headers[i].second;
    }
    // Every header line ends with a newline, then an empty line closes the block.
    out += (headers.empty() ? "\n" : "\n\n") + result.signedHeaders + '\n' + request.payloadHash;
    return result;
}

std::string scopeOf(std::string const& date, std::string const& region, std::string const& service) {
    return date.substr(0, 8) + '/' + region + '/' + service + "/aws4_request";
}

} // namespace

std::string sha256Hex(void const* data, std::size_t size) { return digestHex(EVP_sha256(), data, size); }

std::string md5Hex(void const* data, std::size_t size) { return digestHex(EVP_md5(), data, size); }

std::string md5Base64(std::string_view data) {
    std::string const digest = digestOf(EVP_md5(), data.data(), data.size());
    unsigned char text[64];
    int const written =
        EVP_EncodeBlock(text, reinterpret_cast<unsigned char const*>(digest.data()), int(digest.size()));
    return std::string(reinterpret_cast<char*>(text), std::size_t(written));
}

Md5::Md5() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(context_), EVP_md5(), nullptr) != 1) {
        EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(context_));
        throw std::runtime_error("a message digest failed");
    }
}

Md5::~Md5() { EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(context_)); }

void Md5::add(void const* data, std::size_t size) {
    if (EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(context_), data, size) != 1)
        throw std::runtime_error("a message digest failed");
}

std::string Md5::hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(context_), digest, &length) != 1)
        throw std::runtime_error("a message digest failed");
    return toHex(digest, length);
}

std::string hmacSha256(std::string const& key, std::string const& data) {
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_sha256(), key.data(), int(key.size()), reinterpret_cast<unsigned char const*>(data.data()),
              data.size(), mac, &length))
        throw std::runtime_error("HMAC-SHA256 failed");
    return std::string(reinterpret_cast<char const*>(mac), length);
}

std::string uriEncode(std::string const& text, bool keepSlash) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        bool const unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                                c == '-' || c == '.' || c == '_' || c == '~' || (keepSlash && c == '/');
        if (unreserved) {
            out += c;
        } else {
            auto const byte = static_cast<unsigned char>(c);
            out += '%';
            out += "0123456789ABCDEF"[byte >> 4];
            out += "0123456789ABCDEF"[byte & 0xf];
        }
    }
    return out;
}

std::string amzDate(std::time_t when) {
    std::tm utc{};
    char text[32];
    if (!gmtime_r(&when, &utc) || std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc) == 0)
        throw std::runtime_error("time out of range for a request date");
    return text;
}

std::string canonicalRequest(Request const& request) { return canonicalize(request).request; }

std::string stringToSign(std::string const& canonical, std::string const& date, std::string const& region,
                         std::string const& service) {
    return "AWS4-HMAC-SHA256\n" + date + '\n' + scopeOf(date, region, service) + '\n' + sha256Hex(canonical);
}

void sign(Request& request, Credentials const& credentials, std::string const& region, std::string const& service,
          std::string const& date) {
    // The signer owns these headers: a request signed again (a retry) gets fresh ones, never two.
    auto& headers = request.headers;
    headers.erase(std::remove_if(headers.begin(), headers.end(),
                                 [](auto const& header) {
                                     auto const name = lowerAscii(header.first);
                                     return name == "authorization" || name == "x-amz-date" ||
                                            name == "x-amz-security-token";
                                 }),
                  headers.end());
    headers.emplace_back("x-amz-date", date);
    if (!credentials.sessionToken.empty())
        headers.emplace_back("x-amz-security-token", credentials.sessionToken);

    Canonical const canonical = canonicalize(request);
    std::string key = hmacSha256("AWS4" + credentials.secretAccessKey, date.substr(0, 8));
    for (std::string const* part : {&region, &service})
        key = hmacSha256(key, *part);
    key = hmacSha256(key, "aws4_request");
    std::string const mac = hmacSha256(key, stringToSign(canonical.request, date, region, service));

    headers.emplace_back("Authorization",
                         "AWS4-HMAC-SHA256 Credential=" + credentials.accessKeyId + '/' +
                             scopeOf(date, region, service) + ", SignedHeaders=" + canonical.signedHeaders +
                             ", Signature=" + toHex(reinterpret_cast<unsigned char const*>(mac.data()), mac.size()));
}

} // namespace stratum::storage::vfs::detail::s3
