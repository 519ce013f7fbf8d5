#include "tools/tessel/inspect/HttpServer.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

namespace tessel::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kWriteTime = std::chrono::seconds(10);
// How long, and how much of it, the rest of a refused request is read, so that the answer is not lost with it.
constexpr auto kDrainTime = std::chrono::seconds(2);
constexpr int64_t kMostDrained = int64_t{64} << 20;
constexpr std::string_view kEndOfHead = "\r\n\r\n";
constexpr std::string_view kEndOfLine = "\r\n";

bool WaitFor(int socket, short events, Clock::time_point until) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd wanted{socket, events, 0};
        const int ready = poll(&wanted, 1, static_cast<int>(left.count()));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

// -1 where nothing came in time, 0 at the end.
ssize_t Receive(int socket, char* data, size_t size, Clock::time_point until) {
    for (;;) {
        if (!WaitFor(socket, POLLIN, until))
            return -1;
        const ssize_t count = recv(socket, data, size, MSG_DONTWAIT);
        if (count >= 0 || (errno != EINTR && errno != EAGAIN))
            return count;
    }
}

void NameOf(int socket, int (*ask)(int, sockaddr*, socklen_t*), std::string& address, int& port) {
    sockaddr_storage name{};
    socklen_t size = sizeof(name);
    char host[NI_MAXHOST] = "", service[NI_MAXSERV] = "";
    if (ask(socket, reinterpret_cast<sockaddr*>(&name), &size) != 0 ||
        getnameinfo(reinterpret_cast<sockaddr*>(&name), size, host, sizeof(host), service, sizeof(service),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return;
    address = host;
    port = std::atoi(service);
}

// What is wrong with the head of a request, as a status of RFC 9110 or RFC 6585; 0 for nothing.
int StatusOf(std::string_view head, bool whole) {
    size_t lines = 0;
    for (size_t at = 0; at < head.size();) {
        const size_t end = std::min(head.find(kEndOfLine, at), head.size());
        if (lines == 0 && end - at > HttpServer::kMostRequestLine)
            return 414;
        if (end - at > HttpServer::kMostHeaderLine || ++lines > HttpServer::kMostHeaders + 1)
            return 431;
        at = end + kEndOfLine.size();
    }
    return !whole && head.size() >= HttpServer::kMostHead ? 431 : 0;
}

// A socket whose head has been read; the library reads the request through it.
class RequestStream : public httplib::Stream {
public:
    // onLong: called for a long body that keeps its pace, and for an endless answer that begins.
    RequestStream(int socket, std::string head, Clock::time_point deadline, std::function<void()> onLong)
        : m_socket(socket),
          m_read(std::move(head)),
          m_deadline(deadline),
          m_isLong(m_read.starts_with(std::string("POST ") + HttpServer::kLongBodyPath)),
          m_isEndless(m_read.starts_with(std::string("GET ") + HttpServer::kEndlessPath)),
          m_onLong(std::move(onLong)) {}

    bool is_readable() const override { return m_at < m_read.size() || WaitFor(m_socket, POLLIN, m_deadline); }
    bool is_writable() const override {
        char byte;
        return WaitFor(m_socket, POLLOUT, Clock::now() + kWriteTime) &&
               recv(m_socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0;
    }

    ssize_t read(char* data, size_t size) override {
        if (m_at == m_read.size()) {
            m_read.resize(kPiece);
            m_at = 0;
            const ssize_t count = Receive(m_socket, m_read.data(), m_read.size(), m_deadline);
            m_read.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
            if (count <= 0)
                return count;
            KeepPace(count);
        }
        const size_t count = std::min(size, m_read.size() - m_at);
        std::memcpy(data, m_read.data() + m_at, count);
        m_at += count;
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* data, size_t size) override {
        if (m_isEndless)
            m_onLong();
        for (;;) {
            if (!WaitFor(m_socket, POLLOUT, Clock::now() + kWriteTime))
                return -1;
            const ssize_t count = send(m_socket, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count >= 0 || (errno != EINTR && errno != EAGAIN))
                return count;
        }
    }

    void get_remote_ip_and_port(std::string& address, int& port) const override {
        NameOf(m_socket, getpeername, address, port);
    }
    void get_local_ip_and_port(std::string& address, int& port) const override {
        NameOf(m_socket, getsockname, address, port);
    }
    socket_t socket() const override { return m_socket; }

private:
    static constexpr size_t kPiece = 64 * 1024;

    void KeepPace(ssize_t count) {
        constexpr int64_t kBytes = HttpServer::kLeastPace * HttpServer::kRequestTime.count();
        m_sincePace += count;
        if (!m_isLong || m_sincePace < kBytes)
            return;
        m_sincePace = 0;
        m_deadline = Clock::now() + HttpServer::kRequestTime;
        m_onLong();
    }

    const int m_socket;
    std::string m_read;
    size_t m_at = 0;
    Clock::time_point m_deadline;
    const bool m_isLong;
    const bool m_isEndless;
    int64_t m_sincePace = 0;
    const std::function<void()> m_onLong;
};

void Drain(int socket) {
    shutdown(socket, SHUT_WR);
    char rest[64 * 1024];
    const auto until = Clock::now() + kDrainTime;
    for (int64_t drained = 0; drained < kMostDrained;) {
        const ssize_t count = Receive(socket, rest, sizeof(rest), until);
        if (count <= 0)
            return;
        drained += count;
    }
}

}  // namespace

bool HttpServer::IsOfThisMachine(const std::string& peer) {
    return peer == "::1" || peer.starts_with("127.") || peer.starts_with("::ffff:127.");
}

HttpServer::Place HttpServer::Enter(int socket, const std::string& peer) {
    const std::lock_guard lock(m_mutex);
    const auto isOfPeer = [&peer](const Unfinished& one) { return one.waits && one.peer == peer; };
    auto leaves = m_unfinished.end();
    if (static_cast<size_t>(std::ranges::count_if(m_unfinished, isOfPeer)) >= kMostOfPeer)
        leaves = std::ranges::find_if(m_unfinished, isOfPeer);
    else if (static_cast<size_t>(std::ranges::count_if(m_unfinished, &Unfinished::waits)) >= kMostUnfinished)
        leaves = std::ranges::find_if(m_unfinished, &Unfinished::waits);
    // Its own thread takes it off the list.
    if (leaves != m_unfinished.end()) {
        shutdown(leaves->socket, SHUT_RDWR);
        leaves->waits = false;
    }
    return m_unfinished.insert(m_unfinished.end(), {socket, peer, true});
}

void HttpServer::Guest::Finish() {
    const std::lock_guard lock(m_owner.m_mutex);
    if (!std::exchange(m_finished, true))
        m_owner.m_unfinished.erase(m_place);
}

void HttpServer::Guest::SetWaits(bool waits) {
    const std::lock_guard lock(m_owner.m_mutex);
    if (!m_finished)
        m_place->waits = waits;
}

bool HttpServer::process_and_close_socket(socket_t socket) {
    try {
        Serve(socket);
    } catch (const std::bad_alloc&) {
        // This one gets no answer.
    }
    shutdown(socket, SHUT_RDWR);
    close(socket);
    return true;
}

void HttpServer::Serve(int socket) {
    std::string peer;
    int port = 0;
    NameOf(socket, getpeername, peer, port);
    Guest guest(*this, socket, peer);
    const auto deadline = Clock::now() + kRequestTime;
    std::string head;
    size_t end = std::string::npos;
    int status = 0;
    while (status == 0 && end == std::string::npos) {
        const size_t before = head.size();
        head.resize(kMostHead);
        const ssize_t count = Receive(socket, head.data() + before, kMostHead - before, deadline);
        head.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count == 0)
            return;
        end = head.find(kEndOfHead, before - std::min(before, kEndOfHead.size() - 1));
        status = count < 0 ? 408 : StatusOf(std::string_view(head).substr(0, end), end != std::string::npos);
    }
    if (status == 0) {
        guest.SetWaits(head.starts_with("POST "));
        RequestStream stream(socket, std::move(head), deadline, [&guest] { guest.Finish(); });
        bool closed = false;
        process_request(stream, true, closed, nullptr);
    } else {
        const char* text = status == 408   ? "Request Timeout"
                           : status == 414 ? "URI Too Long"
                                           : "Header Fields Too Large";
        const std::string answer =
            "HTTP/1.1 " + std::to_string(status) + " " + text + "\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
        send(socket, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    guest.SetWaits(true);
    Drain(socket);
}

}  // namespace tessel::tool
