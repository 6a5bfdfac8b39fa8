#include "LinkModel.hpp"

#include "HttpRequestCounter.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t chunkBytes = 64 * 1024;       // the most read at once, and the token bucket's depth
constexpr std::size_t queueBytes = 4 * 1024 * 1024; // what one direction holds before it stops reading

[[noreturn]] void fail(char const* what) { throw std::system_error(errno, std::generic_category(), what); }

// Sends at once, without waiting for a delayed ACK.
void noDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Bytes are tokens, refilled at `rate` per second up to one chunk.
class TokenBucket {
public:
    explicit TokenBucket(double rate) : rate_(rate), tokens_(chunkBytes), last_(Clock::now()) {}

    // When `bytes` (at most a chunk) may go.
    Clock::time_point readyAt(std::size_t bytes, Clock::time_point now) {
        tokens_ = std::min(double(chunkBytes), tokens_ + rate_ * std::chrono::duration<double>(now - last_).count());
        last_ = now;
        double const missing = double(bytes) - tokens_;
        if (missing <= 0)
            return now;
        return now + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(missing / rate_));
    }

    void take(std::size_t bytes) { tokens_ -= double(bytes); }

private:
    double rate_;
    double tokens_;
    Clock::time_point last_;
};

bool sendAll(int fd, std::vector<char> const& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        ssize_t const n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR)
            return false;
        sent += std::size_t(std::max<ssize_t>(n, 0));
    }
    return true;
}

struct Chunk {
    Clock::time_point due;
    std::vector<char> bytes;
};

// Forwards what `from` sends to `to`, each chunk `oneWay` after it came and at most the rate, and
// half-closes `to` at the end. A failed side ends both directions; a readable `wake` ends this one.
void forward(int from, int to, int wake, LinkModel::Shape const& shape, HttpRequestCounter* counter) {
    TokenBucket bucket(shape.bytesPerSecond);
    std::deque<Chunk> queue;
    std::size_t queued = 0;
    bool reading = true;
    while (reading || !queue.empty()) {
        auto const now = Clock::now();
        timespec wait{};
        timespec* timeout = nullptr; // none: until `from` has bytes
        if (!queue.empty()) {
            auto const ready = std::max(queue.front().due, bucket.readyAt(queue.front().bytes.size(), now));
            if (ready <= now) {
                if (!sendAll(to, queue.front().bytes))
                    break;
                bucket.take(queue.front().bytes.size());
                queued -= queue.front().bytes.size();
                queue.pop_front();
                continue;
            }
            auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(ready - now).count();
            wait = {time_t(ns / 1000000000), long(ns % 1000000000)};
            timeout = &wait;
        }
        pollfd fds[2] = {{wake, POLLIN, 0}, {reading && queued < queueBytes ? from : -1, POLLIN, 0}};
        if (ppoll(fds, 2, timeout, nullptr) < 0 && errno != EINTR)
            break;
        if (fds[0].revents != 0)
            return;
        if (fds[1].revents == 0)
            continue;
        std::vector<char> bytes(chunkBytes);
        ssize_t const n = recv(from, bytes.data(), bytes.size(), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        if (n == 0) {
            reading = false;
            continue;
        }
        bytes.resize(std::size_t(n));
        if (counter)
            counter->feed(bytes.data(), bytes.size());
        queued += bytes.size();
        queue.push_back({Clock::now() + shape.oneWay, std::move(bytes)});
    }
    if (reading || !queue.empty()) { // failed: the other direction stops too
        shutdown(from, SHUT_RDWR);
        shutdown(to, SHUT_RDWR);
    } else {
        shutdown(to, SHUT_WR);
    }
}

} // namespace

struct LinkModel::State {
    struct Connection {
        int client;
        int store;
        HttpRequestCounter counter;
        std::atomic<int> running{2};
        std::thread up;   // client to store
        std::thread down; // store to client

        Connection(int c, int s, State& link)
            : client(c), store(s), counter([&link](std::string const& method) { link.count(method); }) {
            up = std::thread([this, &link] {
                forward(client, store, link.wakeRead, link.shape, &counter);
                --running;
            });
            down = std::thread([this, &link] {
                forward(store, client, link.wakeRead, link.shape, nullptr);
                --running;
            });
        }
        ~Connection() {
            up.join();
            down.join();
            close(client);
            close(store);
        }
    };

    Shape shape;
    sockaddr_in target{};
    int listener = -1;
    unsigned short port = 0;
    int wakeRead = -1; // readable once the link stops
    int wakeWrite = -1;
    std::thread acceptor;
    std::list<Connection> connections; // the acceptor's alone
    mutable std::mutex mutex;
    std::map<std::string, long> requests;

    void count(std::string const& method) {
        std::lock_guard<std::mutex> lock(mutex);
        ++requests[method];
    }

    void connect(int client) {
        int const store = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (store < 0 || ::connect(store, reinterpret_cast<sockaddr const*>(&target), sizeof target) != 0) {
            close(store);
            close(client);
            return;
        }
        noDelay(client);
        noDelay(store);
        connections.emplace_back(client, store, *this);
    }

    void accept() {
        for (;;) {
            connections.remove_if([](Connection const& c) { return c.running == 0; });
            bool const room = connections.size() < shape.maxConnections;
            pollfd fds[2] = {{wakeRead, POLLIN, 0}, {room ? listener : -1, POLLIN, 0}};
            poll(fds, 2, 50); // now and then, to remove finished connections
            if (fds[0].revents != 0)
                break;
            if (fds[1].revents != 0) {
                int const client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                if (client < 0)
                    std::this_thread::sleep_for(std::chrono::milliseconds(10)); // out of descriptors, say
                else
                    connect(client);
            }
        }
        for (Connection& c : connections) { // unblocks a thread waiting to send
            shutdown(c.client, SHUT_RDWR);
            shutdown(c.store, SHUT_RDWR);
        }
        connections.clear();
    }
};

LinkModel::LinkModel(std::string const& host, unsigned short port, Shape shape) : state_(std::make_unique<State>()) {
    State& s = *state_;
    s.shape = shape;
    s.target.sin_family = AF_INET;
    s.target.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &s.target.sin_addr) != 1)
        throw std::system_error(EINVAL, std::generic_category(), "not an IPv4 address: " + host);
    sockaddr_in self{};
    self.sin_family = AF_INET;
    self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof self;
    s.listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s.listener < 0 || bind(s.listener, reinterpret_cast<sockaddr*>(&self), sizeof self) != 0 || listen(s.listener, 128) != 0 ||
        getsockname(s.listener, reinterpret_cast<sockaddr*>(&self), &length) != 0)
        fail("listen");
    s.port = ntohs(self.sin_port);
    int wake[2];
    if (pipe2(wake, O_CLOEXEC) != 0)
        fail("pipe");
    s.wakeRead = wake[0];
    s.wakeWrite = wake[1];
    s.acceptor = std::thread([&s] { s.accept(); });
}

LinkModel::~LinkModel() {
    State& s = *state_;
    char const stop = 0;
    (void)!write(s.wakeWrite, &stop, 1);
    s.acceptor.join();
    close(s.listener);
    close(s.wakeRead);
    close(s.wakeWrite);
}

std::string LinkModel::url() const { return "http://127.0.0.1:" + std::to_string(state_->port); }

std::map<std::string, long> LinkModel::requests() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->requests;
}
