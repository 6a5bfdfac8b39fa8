#include "HttpRequestCounter.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

namespace {

constexpr std::size_t longestHead = 64 * 1024;

std::string lower(std::string text) {
    for (char& c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool isBlank(std::string const& line) { return line == "\n" || line == "\r\n"; }

} // namespace

HttpRequestCounter::HttpRequestCounter(std::function<void(std::string const&)> onRequest)
    : onRequest_(std::move(onRequest)) {}

bool HttpRequestCounter::takeLine(char const*& data, char const* end) {
    char const* const newline = std::find(data, end, '\n');
    bool const complete = newline != end;
    line_.append(data, complete ? newline + 1 : end);
    data = complete ? newline + 1 : end;
    if (line_.size() > longestHead)
        state_ = State::Lost;
    return complete;
}

// Reports the request whose head is in head_ and chooses how its body is framed.
void HttpRequestCounter::startRequest() {
    onRequest_(head_.substr(0, head_.find(' ')));
    bool chunked = false;
    left_ = 0;
    for (std::size_t at = head_.find('\n'); at != std::string::npos && at + 1 < head_.size();) {
        std::size_t const next = head_.find('\n', at + 1);
        std::string const header = lower(head_.substr(at + 1, next - at - 1));
        std::size_t const colon = header.find(':');
        std::string const value = colon == std::string::npos ? "" : header.substr(colon + 1);
        if (header.compare(0, colon, "content-length") == 0)
            left_ = std::strtoull(value.c_str(), nullptr, 10);
        else if (header.compare(0, colon, "transfer-encoding") == 0 && value.find("chunked") != std::string::npos)
            chunked = true;
        at = next;
    }
    head_.clear();
    state_ = chunked ? State::ChunkSize : left_ > 0 ? State::Body
                                                    : State::Head;
}

void HttpRequestCounter::feed(char const* data, std::size_t size) {
    char const* const end = data + size;
    while (data < end && state_ != State::Lost) {
        switch (state_) {
        case State::Head: {
            // The head ends at the first empty line; look from just before the new bytes.
            std::size_t const from = head_.size() < 3 ? 0 : head_.size() - 3;
            std::size_t const kept = std::min<std::size_t>(std::size_t(end - data), longestHead);
            head_.append(data, kept);
            std::size_t const blank = head_.find("\r\n\r\n", from);
            if (blank == std::string::npos) {
                data += kept;
                if (head_.size() >= longestHead)
                    state_ = State::Lost;
                break;
            }
            // Give back what follows the head.
            data += kept - (head_.size() - (blank + 4));
            head_.resize(blank + 4);
            startRequest();
            break;
        }
        case State::Body:
        case State::ChunkData: {
            std::uint64_t const skipped = std::min<std::uint64_t>(left_, std::uint64_t(end - data));
            data += skipped;
            left_ -= skipped;
            if (left_ == 0)
                state_ = state_ == State::Body ? State::Head : State::ChunkEnd;
            break;
        }
        case State::ChunkSize:
            if (takeLine(data, end)) {
                left_ = std::strtoull(line_.c_str(), nullptr, 16); // stops at ';' (extensions) and CRLF
                line_.clear();
                state_ = left_ > 0 ? State::ChunkData : State::Trailers;
            }
            break;
        case State::ChunkEnd: // the CRLF after a chunk's data
            if (takeLine(data, end)) {
                line_.clear();
                state_ = State::ChunkSize;
            }
            break;
        case State::Trailers: // trailer headers up to an empty line
            if (takeLine(data, end)) {
                if (isBlank(line_))
                    state_ = State::Head;
                line_.clear();
            }
            break;
        case State::Lost: // not HTTP as we know it: nothing more is counted on this connection
            break;
        }
    }
}
