// The HTTP library's server, with limits to what one peer can hold: the library itself waits for each read alone, takes
// any number of headers, and gives a thread to whoever connects.
#pragma once

#include <httplib.h>

#include <chrono>
#include <list>
#include <mutex>
#include <string>

namespace tessel::tool {

// A request must be there as a whole, head and body, within kRequestTime; a body at kLongBodyPath may take as long as
// it keeps up kLeastPace. At most kMostOfPeer connections of a peer, and kMostUnfinished of all, wait for something of
// the peer: the oldest of them is closed for the newest, which is how those who never finish lose to a browser. Answers
// at kEndlessPath, and a long body that keeps its pace, do not count: who serves them has limits of its own.
class HttpServer : public httplib::Server {
public:
    static constexpr size_t kMostRequestLine = 4096;
    static constexpr size_t kMostHeaderLine = 4096;
    static constexpr size_t kMostHeaders = 64;
    static constexpr size_t kMostHead = 16 * 1024;
    static constexpr size_t kMostOfPeer = 8;
    static constexpr size_t kMostUnfinished = 24;
    static constexpr std::chrono::seconds kRequestTime{10};
    static constexpr int64_t kLeastPace = 64 * 1024;  // bytes a second, over kRequestTime
    static constexpr const char* kLongBodyPath = "/api/upload";
    static constexpr const char* kEndlessPath = "/events";

    // The address that a connection comes from; all of this machine are one.
    static bool IsOfThisMachine(const std::string& peer);

private:
    struct Unfinished {
        int socket;
        std::string peer;
        bool waits;  // for the peer to send something
    };
    using Place = std::list<Unfinished>::iterator;
    // A connection counts until it is closed, or until Finish.
    class Guest {
    public:
        Guest(HttpServer& owner, int socket, const std::string& peer)
            : m_owner(owner), m_place(owner.Enter(socket, peer)) {}
        ~Guest() { Finish(); }
        Guest(const Guest&) = delete;
        Guest& operator=(const Guest&) = delete;
        void Finish();
        void SetWaits(bool waits);

    private:
        HttpServer& m_owner;
        Place m_place;
        bool m_finished = false;
    };

    bool process_and_close_socket(socket_t socket) override;
    void Serve(int socket);
    Place Enter(int socket, const std::string& peer);

    std::mutex m_mutex;                  // for the list; nothing is called out with it held
    std::list<Unfinished> m_unfinished;  // oldest first
};

}  // namespace tessel::tool
