#pragma once

// A fault-injecting HTTP proxy on loopback, between the s3 scheme and a store: every request goes
// upstream on a connection of its own, and the exchanges a fault matches are cut, stalled,
// refused or have their answer dropped after the store acted. It serves at most 4,000
// connections, none longer than a few seconds, and stops with its owner.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace opc::test {

struct Fault {
    enum Kind { None, CutRequest, CutAnswer, Stall, Refuse };
    Fault() = default;
    Fault(Kind kind_, std::function<bool(std::string const&)> matches_, std::size_t at_ = 0, int times_ = 1,
          std::string answer_ = "")
        : kind(kind_), matches(std::move(matches_)), at(at_), times(times_), answer(std::move(answer_)) {}
    Kind kind = None;
    std::function<bool(std::string const&)> matches; ///< which exchanges it hits, by request line and headers
    std::size_t at = 0;                              ///< for cuts: the bytes that still pass
    int times = 1;                                   ///< how many matching exchanges it hits
    std::string answer;                              ///< Refuse: the proxy's own answer
};

class FaultProxy {
public:
    FaultProxy(std::string const& upstream, Fault fault) : m_fault(std::move(fault)) {
        m_upstream = std::stoi(upstream.substr(upstream.rfind(':') + 1));
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) || ::listen(m_socket, 16) ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length))
            throw std::runtime_error("no loopback socket");
        endpoint = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        m_thread = std::thread([this] { serve(); });
    }
    ~FaultProxy() {
        m_stop = true;
        ::shutdown(m_socket, SHUT_RDWR); // wakes the poll
        m_thread.join();
        ::close(m_socket);
    }
    std::string endpoint;
    std::atomic<int> hits{0};
    std::atomic<std::size_t> headerBytes{0}; ///< status line and headers of the last answer

private:
    static sockaddr_in loopback(int port) {
        return sockaddr_in{AF_INET, htons(std::uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
    }
    static void timeouts(int socket) {
        timeval const limit{5, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    static void sendAll(int socket, std::string const& bytes) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            ssize_t const n = ::send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) return;
            sent += std::size_t(n);
        }
    }
    // One request: its headers and as many body bytes as its Content-Length says.
    static std::string readRequest(int client) {
        std::string request;
        char chunk[65536];
        std::size_t end = std::string::npos, want = 0;
        for (ssize_t n; (end == std::string::npos || request.size() < want) &&
                        (n = ::recv(client, chunk, sizeof chunk, 0)) > 0;) {
            request.append(chunk, std::size_t(n));
            if (end == std::string::npos && (end = request.find("\r\n\r\n")) != std::string::npos) {
                std::string lower = request.substr(0, end);
                for (char& c : lower) c = char(std::tolower((unsigned char)c));
                std::size_t const length = lower.find("\r\ncontent-length: ");
                want = end + 4 + (length < end ? std::stoul(request.substr(length + 18)) : 0);
            }
        }
        return request;
    }

    void serve() {
        for (int served = 0; !m_stop && served < 4000;) {
            pollfd waiting{m_socket, POLLIN, 0};
            if (::poll(&waiting, 1, 100) != 1 || m_stop) continue;
            int const client = ::accept(m_socket, nullptr, nullptr);
            if (client < 0) continue;
            ++served;
            timeouts(client);
            exchange(client);
            ::shutdown(client, SHUT_RDWR);
            ::close(client);
        }
    }

    void exchange(int client) {
        std::string request = readRequest(client);
        if (request.find("\r\n") == std::string::npos) return;
        std::string const head = request.substr(0, request.find("\r\n\r\n"));
        bool const hit = m_fault.kind != Fault::None && hits < m_fault.times && m_fault.matches(head);
        hits += hit;
        if (std::getenv("OPC_PROXY_TRACE")) std::fprintf(stderr, "%s%s\n", hit ? "* " : "  ", head.substr(0, head.find("\r\n")).c_str());
        if (hit && m_fault.kind == Fault::Refuse) return sendAll(client, m_fault.answer);
        if (hit && m_fault.kind == Fault::CutRequest)
            request.resize(std::min(m_fault.at, request.size()));
        else // one exchange per upstream connection, so that the answer ends where the store closes
            request.insert(request.find("\r\n") + 2, "Connection: close\r\n");
        int const store = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(m_upstream);
        timeouts(store);
        std::string answer;
        if (::connect(store, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            sendAll(store, request);
            char chunk[65536];
            if (!(hit && m_fault.kind == Fault::CutRequest))
                for (ssize_t n; (n = ::recv(store, chunk, sizeof chunk, 0)) > 0;) answer.append(chunk, std::size_t(n));
        }
        ::close(store);
        headerBytes = std::min(answer.size(), answer.find("\r\n\r\n") + 4);
        if (hit && m_fault.kind == Fault::CutAnswer) answer.resize(std::min(m_fault.at, answer.size()));
        if (hit && m_fault.kind == Fault::Stall) { // until the client gives up, at most 5 s
            pollfd gone{client, POLLIN, 0};
            ::poll(&gone, 1, 5000);
            return;
        }
        if (!(hit && m_fault.kind == Fault::CutRequest)) sendAll(client, answer);
    }

    Fault m_fault;
    int m_upstream = 0;
    int m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace opc::test
