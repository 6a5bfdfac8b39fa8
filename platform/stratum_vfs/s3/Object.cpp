// Object metadata of the s3 scheme: HEAD, the kept modification time and read-only flag.
#include "s3/Object.hpp"
#include "s3/Errors.hpp"
#include "s3/Signer.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdlib>
#include <ctime>

namespace stratum::storage::vfs::detail::s3 {

namespace {

using namespace boost::posix_time;

ptime const epoch(boost::gregorian::date(1970, 1, 1));

// "Tue, 24 Nov 2026 22:07:59 GMT"
ptime parseHttpDate(std::string const& text) {
    std::tm parts{};
    char const* end = ::strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S", &parts);
    return end ? from_time_t(::timegm(&parts)) : ptime(boost::date_time::not_a_date_time);
}

} // namespace

std::string formatSeconds(ptime time) {
    long long const micros = (time - epoch).total_microseconds();
    unsigned long long const magnitude = micros < 0 ? 0ULL - static_cast<unsigned long long>(micros) : micros;
    std::string text = (micros < 0 ? "-" : "") + std::to_string(magnitude / 1000000);
    if (unsigned long long fraction = magnitude % 1000000) {
        std::string digits = std::to_string(fraction);
        digits.insert(0, 6 - digits.size(), '0');
        text += "." + digits.substr(0, digits.find_last_not_of('0') + 1);
    }
    return text;
}

ptime parseSeconds(std::string const& text) {
    std::size_t const dot = text.find('.');
    std::string const whole = text.substr(0, dot);
    std::string digits = dot == std::string::npos ? "" : text.substr(dot + 1);
    bool const negative = !whole.empty() && whole[0] == '-';
    if (whole.size() == std::size_t(negative) || digits.size() > 6 ||
        whole.find_first_not_of("0123456789", negative) != std::string::npos ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        return ptime(boost::date_time::not_a_date_time);
    }
    digits.append(6 - digits.size(), '0');
    long long const micros = std::atoll(whole.c_str() + negative) * 1000000LL + std::atoll(digits.c_str());
    return epoch + microseconds(negative ? -micros : micros);
}

Pairs metadataHeaders(ptime modified, bool readOnly) {
    Pairs headers{{"x-amz-meta-mtime", formatSeconds(modified.is_special() ? microsec_clock::universal_time() : modified)}};
    if (readOnly) {
        headers.emplace_back("x-amz-meta-readonly", "1");
    }
    return headers;
}

char const* const contentMismatch = "the content read does not match its ETag (damaged on the way)";

bool contentETag(std::string const& etag) {
    return etag.size() == 34 && etag.front() == '"' && etag.back() == '"' &&
           etag.find_first_not_of("0123456789abcdef", 1) == 33;
}

void checkContent(ObjectRef const& object, std::string const& etag, std::string_view bytes) {
    if (contentETag(etag) && etag.compare(1, 32, md5Hex(bytes)) != 0) {
        throw Exception(ErrorCode::IOError, object.iri, contentMismatch);
    }
}

HttpRequest requestFor(ObjectRef const& object, std::string method, Pairs query, Pairs headers) {
    HttpRequest request;
    request.method = std::move(method);
    request.bucket = object.bucket;
    request.key = object.key;
    request.query = std::move(query);
    request.headers = std::move(headers);
    return request;
}

void check(HttpResponse const& response, ObjectRef const& object, char const* what, bool createOnly) {
    if (!response.ok()) {
        throw failure(response, object.iri, what, createOnly);
    }
}

Head headObject(ObjectRef const& object) {
    HttpRequest request = requestFor(object, "HEAD");
    request.required = {"content-length", "etag"}; // a HEAD cut before them is no answer
    HttpResponse const response = object.http->send(request);
    Head head;
    if (response.status == 404 && response.transport == Transport::None) {
        return head;
    }
    check(response, object, "HEAD");
    head.found = true;
    head.size = std::strtoull(response.header("content-length").c_str(), nullptr, 10);
    head.etag = response.header("etag");
    head.mtimeText = response.header("x-amz-meta-mtime");
    head.modified = parseSeconds(head.mtimeText);
    if (head.modified.is_special()) {
        head.modified = parseHttpDate(response.header("last-modified"));
    }
    head.readOnly = response.header("x-amz-meta-readonly") == "1";
    return head;
}

} // namespace stratum::storage::vfs::detail::s3
