// The HTTP side: the page, its event stream, and what it asks for.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tools/tessel/inspect/Board.h"
#include "tools/tessel/inspect/Guard.h"
#include "tools/tessel/inspect/Session.h"

namespace tessel::tool {

class HttpServer;

class InspectServer {
public:
    // Listens; Failure when the address is taken. input: the first session. allowUploads: from other machines too.
    InspectServer(const ListenAddress& address, PlaybackInput input, bool allowUploads);
    ~InspectServer();
    InspectServer(const InspectServer&) = delete;
    InspectServer& operator=(const InspectServer&) = delete;

    void Start();
    std::string Url() const;

private:
    class Routes;

    void Bind();
    std::shared_ptr<Session> Current();
    // The session before it ends first: there is one at a time.
    void Replace(PlaybackInput input);

    ListenAddress m_address;
    const bool m_allowUploads;
    Board m_board;
    std::unique_ptr<HttpServer> m_server;
    std::unique_ptr<Guard> m_guard;
    std::unique_ptr<Routes> m_routes;
    std::mutex m_replacing;
    std::mutex m_mutex;  // for the session's pointer
    std::shared_ptr<Session> m_session;
    std::thread m_thread;
};

}  // namespace tessel::tool
