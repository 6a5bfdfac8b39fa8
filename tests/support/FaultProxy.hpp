#pragma once

// A fault-injecting HTTP proxy on loopback, between the s3 scheme and a store: every request goes
// upstream on a connection of its own, and the exchanges a fault matches are cut, stalled,
// refused, have their answer dropped after the store acted, or lose their Content-Length and
// the end of their body (CutUnsized: an answer that looks whole to HTTP). It serves at most 4,000
// connections, none longer than a few seconds, and stops with its owner.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace opc::test {

struct Fault {
    enum Kind { None, CutRequest, CutAnswer, CutUnsized, Stall, Refuse };
    Fault() = default;
    Fault(Kind k, std::function<bool(std::string const&)> m, std::size_t a = 0, int t = 1, std::string answer_ = "")
        : kind(k), matches(std::move(m)), at(a), times(t), answer(std::move(answer_)) {}
    Kind kind = None;
    std::function<bool(std::string const&)> matches; ///< which exchanges, by request line and headers
    std::size_t at = 0;                              ///< for cuts: the bytes that still pass (CutUnsized: of the body)
    int times = 1;                                   ///< how many matching exchanges it hits
    std::string answer;                              ///< Refuse: the proxy's own answer
};

class FaultProxy {
public:
    FaultProxy(std::string const& upstream, Fault fault) : m_fault(std::move(fault)), m_upstream(address(std::stoi(upstream.substr(upstream.rfind(':') + 1)))) {
        sockaddr_in local = address(0);
        socklen_t length = sizeof local;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&local), length) || ::listen(m_socket, 16) ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&local), &length))
            throw std::runtime_error("no loopback socket");
        endpoint = "http://127.0.0.1:" + std::to_string(ntohs(local.sin_port));
        m_thread = std::thread([this] {
            for (int served = 0; !m_stop && served < 4000;) {
                pollfd waiting{m_socket, POLLIN, 0};
                int const client = ::poll(&waiting, 1, 100) == 1 && !m_stop ? ::accept(m_socket, nullptr, nullptr) : -1;
                if (client < 0) continue;
                ++served;
                exchange(limited(client));
                ::close(client);
            }
        });
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
    static sockaddr_in address(int port) { return sockaddr_in{AF_INET, htons(std::uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}}; }
    static int limited(int socket) { // no read or write waits more than 5 s
        timeval const limit{5, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        return socket;
    }
    static void sendAll(int socket, std::string const& bytes) {
        for (ssize_t sent = 0, n; std::size_t(sent) < bytes.size(); sent += n)
            if ((n = ::send(socket, bytes.data() + sent, bytes.size() - std::size_t(sent), MSG_NOSIGNAL)) <= 0) return;
    }
    static std::string lowered(std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), ::tolower);
        return text;
    }
    // Everything until the peer closes, or (`request`) one request with its Content-Length of body.
    static std::string receive(int socket, bool request) {
        std::string bytes;
        char chunk[65536];
        for (std::size_t end = std::string::npos, want = SIZE_MAX; bytes.size() < want;) {
            ssize_t const n = ::recv(socket, chunk, sizeof chunk, 0);
            if (n <= 0) break;
            bytes.append(chunk, std::size_t(n));
            if (request && end == std::string::npos && (end = bytes.find("\r\n\r\n")) != std::string::npos) {
                std::string const lower = lowered(bytes.substr(0, end));
                std::size_t const length = lower.find("\r\ncontent-length: ");
                want = end + 4 + (length < end ? std::stoul(lower.substr(length + 18)) : 0);
            }
        }
        return bytes;
    }

    void exchange(int client) {
        std::string request = receive(client, true);
        if (request.find("\r\n") == std::string::npos) return;
        bool const hit = m_fault.kind != Fault::None && hits < m_fault.times && m_fault.matches(request.substr(0, request.find("\r\n\r\n")));
        hits += hit;
        Fault::Kind const kind = hit ? m_fault.kind : Fault::None;
        if (kind == Fault::Refuse) return sendAll(client, m_fault.answer);
        if (kind == Fault::CutRequest)
            request.resize(std::min(m_fault.at, request.size()));
        else // one exchange per upstream connection, so that the answer ends where the store closes
            request.insert(request.find("\r\n") + 2, "Connection: close\r\n");
        int const store = limited(::socket(AF_INET, SOCK_STREAM, 0));
        std::string answer;
        if (::connect(store, reinterpret_cast<sockaddr const*>(&m_upstream), sizeof m_upstream) == 0) {
            sendAll(store, request);
            answer = kind == Fault::CutRequest ? "" : receive(store, false);
        }
        ::close(store);
        headerBytes = std::min(answer.size(), answer.find("\r\n\r\n") + 4);
        if (kind == Fault::CutAnswer) answer.resize(std::min(m_fault.at, answer.size()));
        if (kind == Fault::CutUnsized) {
            std::size_t const length = lowered(answer.substr(0, headerBytes)).find("\r\ncontent-length:");
            if (length < headerBytes) answer.erase(length, answer.find("\r\n", length + 2) - length);
            answer.resize(std::min(answer.size(), answer.find("\r\n\r\n") + 4 + m_fault.at));
        }
        pollfd gone{client, POLLIN, 0};
        if (kind == Fault::Stall) ::poll(&gone, 1, 5000); // until the client gives up, at most 5 s
        else if (kind != Fault::CutRequest) sendAll(client, answer);
    }

    Fault m_fault;
    sockaddr_in m_upstream;
    int m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace opc::test
