#pragma once

// Counts the HTTP/1.1 requests in the byte stream a client sends, fed as the bytes come in any
// pieces: each request line and headers, then a body of Content-Length bytes or in chunked
// transfer encoding; keep-alive connections carry several requests one after the other.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

class HttpRequestCounter {
public:
    /// `onRequest` is called with the method of each request once its headers are complete.
    explicit HttpRequestCounter(std::function<void(std::string const& method)> onRequest);

    void feed(char const* data, std::size_t size);

private:
    enum class State { Head,
                       Body,
                       ChunkSize,
                       ChunkData,
                       ChunkEnd,
                       Trailers,
                       Lost };

    // Appends to line_ up to and with the next '\n'; true when the line is complete.
    bool takeLine(char const*& data, char const* end);
    void startRequest();

    std::function<void(std::string const&)> onRequest_;
    State state_ = State::Head;
    std::string head_;       // the request line and headers read so far
    std::string line_;       // a chunk-size, chunk-end or trailer line read so far
    std::uint64_t left_ = 0; // bytes of the body or chunk still to skip
};
