// Signed S3 requests over libcurl: a pool of easy handles (so connections are reused) and
// retries of transient failures.
#include "s3/Http.hpp"
#include "s3/Signer.hpp"
#include "s3/Xml.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <thread>

namespace stratum::storage::vfs::detail::s3 {

namespace {

constexpr int maxAttempts = 6;
constexpr auto retryBudget = std::chrono::seconds(30);
constexpr std::size_t poolSize = 8; // idle handles kept, or parallelTransfers when more

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string trim(std::string const& text) {
    std::size_t const first = text.find_first_not_of(" \t\r\n");
    std::size_t const last = text.find_last_not_of(" \t\r\n");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

// The headers of the answer, and whether the blank line that ends them came: libcurl takes an
// answer without a body as complete when the connection closes inside its headers.
struct HeaderState {
    Pairs& headers;
    bool complete = false;
};

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto& state = *static_cast<HeaderState*>(user);
    auto& headers = state.headers;
    std::string const line(data, size * count);
    if (line.rfind("HTTP/", 0) == 0) {
        headers.clear(); // a new status line: an interim answer's headers are dropped
        state.complete = false;
    } else if (line == "\r\n" || line == "\n") {
        state.complete = true;
    } else if (std::size_t colon = line.find(':'); colon != std::string::npos) {
        headers.emplace_back(lower(trim(line.substr(0, colon))), trim(line.substr(colon + 1)));
    }
    return size * count;
}

Transport classify(CURLcode code) {
    switch (code) {
    case CURLE_OK: return Transport::None;
    case CURLE_COULDNT_CONNECT:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return Transport::Unreachable;
    case CURLE_OPERATION_TIMEDOUT: return Transport::TimedOut;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_WEIRD_SERVER_REPLY: // a status line cut short
    case CURLE_UNSUPPORTED_PROTOCOL: return Transport::Dropped;
    default: return Transport::Other;
    }
}

// A body that the store found damaged on the way (its Content-MD5 or its SHA-256 does not match
// what arrived) was refused before anything was written: the same bytes go again, whether or not
// the request is idempotent, and after the last attempt the failure is an IOError.
bool damaged(HttpResponse const& response) {
    return response.status == 400 && (response.errorCode == "BadDigest" || response.errorCode == "XAmzContentSHA256Mismatch");
}

bool retryable(HttpResponse const& response, bool idempotent) {
    bool const refused = response.status == 503 || response.status == 429 || response.errorCode == "SlowDown" || damaged(response);
    if (!idempotent) {
        return refused;
    }
    return refused || response.transport == Transport::Dropped || response.transport == Transport::TimedOut ||
           response.status >= 500 || response.errorCode == "RequestTimeout" || response.errorCode == "InternalError";
}

std::string queryText(Pairs const& query) {
    std::string text;
    for (auto const& [name, value] : query) {
        text += (text.empty() ? "?" : "&") + uriEncode(name, false) + "=" + uriEncode(value, false);
    }
    return text;
}

// What is missing from an answer that libcurl took as whole, "" when nothing is.
std::string incomplete(HttpRequest const& request, HttpResponse const& response, bool headersEnded) {
    if (!headersEnded) {
        return "no blank line after the headers";
    }
    // libcurl itself fails a body short of its Content-Length; one without it ends where the
    // connection does, so a read checks the size it asked for.
    if (response.status < 200 || response.status >= 300) {
        return {};
    }
    if (request.bodyBytes && response.body.size() != *request.bodyBytes) {
        return std::to_string(response.body.size()) + " of " + std::to_string(*request.bodyBytes) + " bytes";
    }
    for (char const* name : request.required) {
        if (response.header(name).empty()) {
            return std::string("no ") + name + " header";
        }
    }
    if (request.xmlRoot && !hasRoot(response.body, request.xmlRoot) && !hasRoot(response.body, "Error")) {
        return std::string("no whole <") + request.xmlRoot + "> document";
    }
    return {};
}

} // namespace

std::string HttpResponse::header(std::string const& lowerName) const {
    for (auto const& [name, value] : headers) {
        if (name == lowerName) {
            return value;
        }
    }
    return {};
}

HttpClient::HttpClient(S3Settings settings) : settings_(std::move(settings)) {
    // Initialised once, at the first client, and never cleaned up: a client in a static storage
    // system may be destroyed after any cleanup at exit could run; what libcurl keeps stays
    // reachable (no leak).
    static std::once_flag curlReady;
    std::call_once(curlReady, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    if (settings_.region.empty()) {
        settings_.region = "us-east-1";
    }
    std::string endpoint = settings_.endpoint;
    while (!endpoint.empty() && endpoint.back() == '/') {
        endpoint.pop_back();
    }
    std::size_t const sep = endpoint.find("://");
    scheme_ = sep == std::string::npos ? "https" : endpoint.substr(0, sep);
    host_ = sep == std::string::npos ? endpoint : endpoint.substr(sep + 3);
    host_ = host_.substr(0, host_.find('/'));
}

HttpClient::~HttpClient() {
    for (void* handle : idle_) {
        curl_easy_cleanup(static_cast<CURL*>(handle));
    }
}

void* HttpClient::acquire() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!idle_.empty()) {
            void* handle = idle_.back();
            idle_.pop_back();
            return handle;
        }
    }
    return curl_easy_init();
}

void HttpClient::release(void* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < std::max<std::size_t>(poolSize, settings_.parallelTransfers)) {
        idle_.push_back(handle);
    } else {
        curl_easy_cleanup(static_cast<CURL*>(handle));
    }
}

HttpResponse HttpClient::send(HttpRequest const& request) {
    thread_local std::mt19937_64 random{std::random_device{}()};
    auto const start = std::chrono::steady_clock::now();
    for (int attempt = 1;; ++attempt) {
        HttpResponse response = sendOnce(request);
        response.attempts = attempt;
        auto const elapsed = std::chrono::steady_clock::now() - start;
        if (attempt >= maxAttempts || elapsed >= retryBudget || !retryable(response, request.idempotent)) {
            return response;
        }
        // Half jitter below an exponential ceiling (0.1 s, 0.2 s, ... at most 5 s by default).
        auto const ceiling = std::chrono::milliseconds(std::min(5000u, settings_.retryMilliseconds << (attempt - 1)));
        auto delay = std::chrono::milliseconds(
            std::uniform_int_distribution<long long>(ceiling.count() / 2, ceiling.count())(random));
        if (std::string after = response.header("retry-after"); !after.empty() && std::isdigit((unsigned char)after[0])) {
            delay = std::max<std::chrono::milliseconds>(delay, std::chrono::seconds(std::atol(after.c_str())));
        }
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(retryBudget - elapsed);
        std::this_thread::sleep_for(std::min(delay, left));
    }
}

HttpResponse HttpClient::sendOnce(HttpRequest const& request) {
    // Path-style with an endpoint, virtual-hosted on AWS itself.
    std::string const key = uriEncode(request.key, true);
    Request signable;
    std::string host = host_;
    if (host_.empty()) {
        host = request.bucket + ".s3." + settings_.region + ".amazonaws.com";
        signable.path = "/" + key;
    } else {
        signable.path = "/" + request.bucket + (request.key.empty() && request.bucket.size() ? "" : "/") + key;
    }
    signable.method = request.method;
    signable.query = request.query;
    signable.headers = request.headers;
    // Every write with a body of its own says its MD5, so that the store refuses (BadDigest) a
    // body damaged on the way instead of keeping it. Copies have none.
    bool const copies = std::any_of(request.headers.begin(), request.headers.end(), [](auto const& header) {
        return header.first == "x-amz-copy-source" || header.first == "content-md5";
    });
    if ((request.method == "PUT" || (request.method == "POST" && !request.body.empty())) && !copies) {
        signable.headers.emplace_back("content-md5", md5Base64(request.body));
    }
    signable.headers.emplace_back("host", host);
    signable.payloadHash = sha256Hex(request.body.data(), request.body.size());
    signable.headers.emplace_back("x-amz-content-sha256", signable.payloadHash);
    sign(signable, Credentials{settings_.accessKeyId, settings_.secretAccessKey, settings_.sessionToken},
         settings_.region, "s3", amzDate(std::time(nullptr)));

    // Cleaned up on every way out but the one that hands it back to the pool: a handle whose
    // connection may be broken is never reused.
    std::unique_ptr<CURL, void (*)(CURL*)> handle(static_cast<CURL*>(acquire()), curl_easy_cleanup);
    CURL* const curl = handle.get();
    HttpResponse response;
    if (!curl) {
        response.transport = Transport::Other;
        response.transportDetail = "libcurl could not make a handle";
        return response;
    }
    curl_easy_reset(curl);
    curl_slist* headers = nullptr;
    for (auto const& [name, value] : signable.headers) {
        headers = curl_slist_append(headers, (name + ": " + value).c_str());
    }
    headers = curl_slist_append(headers, "Expect:");       // no 100-continue round trip
    headers = curl_slist_append(headers, "Content-Type:"); // none of curl's own for a body
    std::string const url = scheme_ + "://" + host + signable.path + queryText(request.query);
    char error[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L); // keys are sent as they are, "a//b" too
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L); // a stalled connection counts as dropped
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, long(std::max(1u, settings_.stallSeconds)));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response.body);
    if (request.bodyBytes) { // a range held whole, not in a buffer grown to twice its size
        response.body.reserve(*request.bodyBytes);
    }
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
    HeaderState headerState{response.headers};
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &headerState);
    if (request.method == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else if (request.method == "GET") {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        if (request.method != "DELETE") {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        }
    }
    CURLcode const code = curl_easy_perform(curl);
    curl_slist_free_all(headers);
    response.transport = classify(code);
    if (code != CURLE_OK) {
        response.transportDetail = *error ? error : curl_easy_strerror(code);
        return response;
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
    if (std::string const missing = incomplete(request, response, headerState.complete); !missing.empty()) {
        response.transport = Transport::Dropped;
        response.transportDetail = "the answer was cut short (" + missing + ")";
        return response;
    }
    release(handle.release());
    // An error document counts whatever the status (copies and completions answer 200 with one).
    if (response.status >= 300 || request.xmlAnswer) {
        parseError(response.body, response.errorCode, response.errorMessage);
    }
    return response;
}

} // namespace stratum::storage::vfs::detail::s3
