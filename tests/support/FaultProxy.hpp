#pragma once

// A fault-injecting HTTP proxy on loopback, between the s3 scheme and a store: every request goes
// upstream on a connection of its own, and the exchanges a fault matches are cut (also as an answer
// that looks whole, without its Content-Length), stalled, refused, have their answer dropped after
// the store acted, have one byte of a body flipped (the request's when it has one, else the
// answer's), or wait until enough requests are there at once (Gather: a proof of requests side by
// side). It serves at most 4,000 connections, side by side, none longer than a few seconds.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace opc::test {

struct Fault {
    enum Kind { None, CutRequest, CutAnswer, CutUnsized, Stall, Refuse, Corrupt, Gather } kind;
    Fault(Kind k = None, std::function<bool(std::string const&)> m = {}, std::size_t a = 0, int t = 1, std::string s = "")
        : kind(k), matches(std::move(m)), at(a), times(t), answer(std::move(s)) {}
    std::function<bool(std::string const&)> matches; ///< which exchanges, by request line and headers
    std::size_t at;                                  ///< for cuts: the bytes that still pass (CutUnsized: of the body);
                                                     ///< Corrupt: the body's byte flipped (its last when shorter);
                                                     ///< Gather: the requests open at once that each of the first
                                                     ///< `times` waits for (at most 3 s) before it goes on
    int times;                                       ///< how many matching exchanges it hits
    std::string answer;                              ///< Refuse: the proxy's own answer
};

class FaultProxy {
public:
    FaultProxy(std::string const& upstream, Fault fault) : m_fault(std::move(fault)), m_upstream(address(std::stoi(upstream.substr(upstream.rfind(':') + 1)))) {
        sockaddr_in local = address(0);
        socklen_t length = sizeof local;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&local), length) || ::listen(m_socket, 64) ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&local), &length))
            throw std::runtime_error("no loopback socket");
        endpoint = "http://127.0.0.1:" + std::to_string(ntohs(local.sin_port));
        m_thread = std::thread([this] {
            std::list<std::pair<std::thread, std::shared_ptr<std::atomic<bool>>>> exchanges; // side by side
            for (int served = 0; !m_stop && served < 4000;) {
                for (auto it = exchanges.begin(); it != exchanges.end();)
                    it = *it->second ? (it->first.join(), exchanges.erase(it)) : std::next(it);
                pollfd waiting{m_socket, POLLIN, 0};
                int const client = ::poll(&waiting, 1, 100) == 1 && !m_stop ? ::accept(m_socket, nullptr, nullptr) : -1;
                if (client < 0) continue;
                ++served;
                auto ended = std::make_shared<std::atomic<bool>>(false);
                exchanges.emplace_back(std::thread([this, client, ended] {
                    exchange(limited(client));
                    ::close(client);
                    *ended = true;
                }), ended);
            }
            for (auto& running : exchanges) running.first.join();
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
    std::atomic<int> matched{0}; ///< exchanges the fault matches, hit or not (repeats show here)
    std::atomic<std::size_t> headerBytes{0}; ///< status line and headers of the last answer
    std::atomic<int> peak{0}; ///< the most requests at once between their arrival and their answer
    /// How many requests of each kind came through since the last call, as "GET 2 HEAD 1": the
    /// method, but LIST for a listing and COPY for a server-side copy.
    std::string requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::string text;
        for (auto const& [method, count] : m_requests) text += (text.empty() ? "" : " ") + method + " " + std::to_string(count);
        m_requests.clear();
        return text;
    }

private:
    static sockaddr_in address(int port) { return sockaddr_in{AF_INET, htons(std::uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}}; }
    static int limited(int socket) { // no read or write waits more than 5 s, nor for a delayed ACK
        timeval const limit{5, 0};
        for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) ::setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit);
        int const on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        return socket;
    }
    static void sendAll(int socket, std::string const& bytes) {
        for (ssize_t sent = 0, n; std::size_t(sent) < bytes.size(); sent += n)
            if ((n = ::send(socket, bytes.data() + sent, bytes.size() - std::size_t(sent), MSG_NOSIGNAL)) <= 0) return;
    }
    // Where "\r\nContent-Length:" starts in `head`, in any case.
    static std::size_t lengthAt(std::string head) {
        std::transform(head.begin(), head.end(), head.begin(), ::tolower);
        return head.find("\r\ncontent-length:");
    }
    // Everything until the peer closes, or (`request`) one request with its Content-Length of body.
    static std::string receive(int socket, bool request) {
        std::string bytes;
        char chunk[65536];
        std::size_t end = std::string::npos, want = SIZE_MAX;
        for (ssize_t n; bytes.size() < want && (n = ::recv(socket, chunk, sizeof chunk, 0)) > 0;) {
            bytes.append(chunk, std::size_t(n));
            if (request && end == std::string::npos && (end = bytes.find("\r\n\r\n")) != std::string::npos) {
                std::size_t const length = lengthAt(bytes.substr(0, end));
                want = end + 4 + (length < end ? std::stoul(bytes.substr(length + 17)) : 0);
            }
        }
        return bytes;
    }

    // One more hit, when the fault has any left (exchanges run side by side).
    bool claim() {
        for (int seen = hits; seen < m_fault.times;)
            if (hits.compare_exchange_weak(seen, seen + 1)) return true;
        return false;
    }

    // Flips byte `at` of the body of `message` (its last when the body is shorter); false when it has none.
    bool flip(std::string& message) const {
        std::size_t const body = message.find("\r\n\r\n");
        if (body == std::string::npos || body + 4 >= message.size()) return false;
        message[std::min(body + 4 + m_fault.at, message.size() - 1)] ^= char(0xff);
        return true;
    }

    void exchange(int client) {
        std::string request = receive(client, true);
        if (request.find("\r\n") == std::string::npos) return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            std::string const line = request.substr(0, request.find("\r\n")), head = request.substr(0, request.find("\r\n\r\n"));
            std::string method = line.substr(0, line.find(' '));
            if (line.find("list-type=") != std::string::npos) method = "LIST";
            if (head.find("x-amz-copy-source:") != std::string::npos) method = "COPY";
            ++m_requests[method];
        }
        bool const matching = m_fault.kind != Fault::None && m_fault.matches(request.substr(0, request.find("\r\n\r\n")));
        matched += matching;
        bool const hit = matching && claim();
        Fault::Kind const kind = hit ? m_fault.kind : Fault::None;
        // Counted until its answer goes: a client's next request cannot overlap its last one.
        int const now = ++m_open;
        for (int seen = peak; now > seen && !peak.compare_exchange_weak(seen, now);) {}
        {
            std::unique_lock<std::mutex> lock(m_gatherMutex);
            m_gathered.notify_all();
            if (kind == Fault::Gather)
                m_gathered.wait_for(lock, std::chrono::seconds(3), [&] { return m_open >= int(m_fault.at); });
        }
        if (kind == Fault::Refuse) return --m_open, sendAll(client, m_fault.answer);
        bool const corruptAnswer = kind == Fault::Corrupt && !flip(request);
        if (kind == Fault::CutRequest) request.resize(std::min(m_fault.at, request.size()));
        else request.insert(request.find("\r\n") + 2, "Connection: close\r\n"); // so the answer ends where the store closes
        int const store = limited(::socket(AF_INET, SOCK_STREAM, 0));
        std::string answer;
        if (::connect(store, reinterpret_cast<sockaddr const*>(&m_upstream), sizeof m_upstream) == 0) {
            sendAll(store, request);
            answer = kind == Fault::CutRequest ? "" : receive(store, false);
        }
        ::close(store);
        if (corruptAnswer) flip(answer);
        headerBytes = std::min(answer.size(), answer.find("\r\n\r\n") + 4);
        if (std::size_t const length = lengthAt(answer.substr(0, headerBytes)); kind == Fault::CutUnsized && length < headerBytes)
            answer.erase(length, answer.find("\r\n", length + 2) - length);
        if (kind == Fault::CutAnswer || kind == Fault::CutUnsized)
            answer.resize(std::min(answer.size(), m_fault.at + (kind == Fault::CutUnsized ? answer.find("\r\n\r\n") + 4 : 0)));
        --m_open;
        pollfd gone{client, POLLIN, 0};
        if (kind == Fault::Stall) ::poll(&gone, 1, 5000); // until the client gives up, at most 5 s
        else if (kind != Fault::CutRequest) sendAll(client, answer);
    }

    Fault m_fault;
    std::mutex m_mutex;
    std::map<std::string, int> m_requests;
    sockaddr_in m_upstream;
    int m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_open{0};
    std::mutex m_gatherMutex;
    std::condition_variable m_gathered; ///< a request arrived
    std::thread m_thread;
};

} // namespace opc::test
