#pragma once

// A model of an internet link for benchmarks, on loopback: a TCP proxy from an ephemeral port of
// 127.0.0.1 to a server, which delays every chunk it forwards, in either direction, by a one-way
// latency, and caps each connection at a rate per direction (a token bucket). It counts the HTTP
// requests the clients send, per method. Its threads (one accepting, two per connection, at most
// `maxConnections` connections at once; more wait to be accepted) are all joined on destruction.

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

class LinkModel {
public:
    struct Shape {
        std::chrono::microseconds oneWay{10000}; ///< so a request and its answer take >= 20 ms
        double bytesPerSecond = 40e6;            ///< per connection and direction
        std::size_t maxConnections = 64;
    };

    /// Forwards to `host`:`port` (an IPv4 address). Throws std::system_error when it cannot listen.
    LinkModel(std::string const& host, unsigned short port, Shape shape);
    ~LinkModel();
    LinkModel(LinkModel const&) = delete;
    LinkModel& operator=(LinkModel const&) = delete;

    /// "http://127.0.0.1:<port>", the address clients use instead of the server's.
    std::string url() const;

    /// The requests seen since the start, per method ("GET", "PUT", ...).
    std::map<std::string, long> requests() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};
