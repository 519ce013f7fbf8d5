#include "tools/tessel/inspect/Server.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>

#include "platform/os/Thread.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/InputKind.h"
#include "tools/tessel/Utf8.h"
#include "tools/tessel/inspect/HttpServer.h"
#include "tools/tessel/inspect/Upload.h"
#include "tools/tessel/inspect/WebFiles.h"

namespace tessel::tool {

namespace {

using namespace std::chrono_literals;

// So many browsers may listen, each on a thread, and so many of another machine; the rest of the threads answer. There
// are more of them than connections that wait for something.
constexpr int kMostListeners = 64;
constexpr int kMostListenersOfPeer = 8;
constexpr size_t kThreads = kMostListeners + HttpServer::kMostUnfinished + 8;
constexpr size_t kMostRequest = 64 * 1024;
// Between two updates of a browser, and without anything to say.
constexpr auto kBreath = 100ms;
constexpr auto kSilence = 10s;
// An upload is looked at after so many bytes, and again whenever twice as many have come.
constexpr int64_t kFirstLook = 8 * 1024;
constexpr auto kEndPoll = 20ms;
constexpr int kEndTries = 20;

constexpr std::string_view kPage = "/index.html";
constexpr const char* kTokenPlace = "{{token}}";
constexpr const char* kPolicy =
    "default-src 'self'; img-src 'self' data:; object-src 'none'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

void Answer(httplib::Response& response, int status, const Json& json) {
    response.status = status;
    response.set_content(json.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

void Refuse(httplib::Response& response, int status, const std::string& text) {
    Answer(response, status, {{"error", text}});
}

}  // namespace

class InspectServer::Routes {
public:
    explicit Routes(InspectServer& owner) : m_owner(owner) {}

    void Set(HttpServer& server) {
        server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
            return IsAllowed(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                                : httplib::Server::HandlerResponse::Handled;
        });
        server.set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
            Refuse(response, 500, "This could not be done.");
        });
        for (const WebFile& file : WebFiles())
            if (file.path == kPage)
                server.Get("/", [this, &file](const httplib::Request&, httplib::Response& response) {
                    SendPage(file, response);
                });
            else
                server.Get(std::string(file.path), [&file](const httplib::Request&, httplib::Response& response) {
                    response.set_content(file.content.data(), file.content.size(), std::string(file.type));
                });
        server.Get(HttpServer::kEndlessPath, [this](const httplib::Request& request, httplib::Response& response) {
            SendEvents(request.remote_addr, response);
        });
        AddAction(server, "/api/act", &Session::Act);
        AddAction(server, "/api/map", &Session::Map);
        AddAction(server, "/api/unmap", &Session::Unmap);
        server.Post("/api/room", [this](const httplib::Request& request, httplib::Response& response,
                                        const httplib::ContentReader& read) { TellRoom(request, response, read); });
        server.Post(HttpServer::kLongBodyPath,
                    [this](const httplib::Request& request, httplib::Response& response,
                           const httplib::ContentReader& read) { TakeUpload(request, response, read); });
    }

    int Listeners() const { return m_listeners; }

private:
    using Action = Json (Session::*)(const Json&);

    bool IsAllowed(const httplib::Request& request, httplib::Response& response) const {
        const std::string host = request.get_header_value("Host");
        if (!m_owner.m_guard->IsOurHost(host))
            return Refuse(response, 403, "This is not the address of this page."), false;
        if (!Guard::IsOurOrigin(request.get_header_value("Origin"), host))
            return Refuse(response, 403, "Another site asks for this."), false;
        const bool reads = request.method == "GET" || request.method == "HEAD";
        if (!reads && !m_owner.m_guard->IsToken(request.get_header_value("X-Tessel-Token")))
            return Refuse(response, 403, "The page's token is missing; load the page anew."), false;
        return true;
    }

    void SendPage(const WebFile& file, httplib::Response& response) const {
        std::string page(file.content);
        page.replace(page.find(kTokenPlace), std::strlen(kTokenPlace), m_owner.m_guard->Token());
        response.set_content(page, std::string(file.type));
    }

    void SendEvents(const std::string& peer, httplib::Response& response) {
        if (!AddListener(peer)) {
            response.set_header("Retry-After", "5");
            return Refuse(response, 503, "Too many pages are open.");
        }
        response.set_header("X-Accel-Buffering", "no");
        auto cursor = std::make_shared<Board::Cursor>();
        response.set_chunked_content_provider(
            "text/event-stream", [this, cursor](size_t, httplib::DataSink& sink) { return SendNews(*cursor, sink); },
            [this, peer](bool) { RemoveListener(peer); });
    }

    bool AddListener(const std::string& peer) {
        const std::lock_guard lock(m_mutex);
        int& ofPeer = m_listenersOf[peer];
        if (m_listeners >= kMostListeners || (ofPeer >= kMostListenersOfPeer && !HttpServer::IsOfThisMachine(peer)))
            return false;
        ++ofPeer;
        ++m_listeners;
        return true;
    }

    void RemoveListener(const std::string& peer) {
        const std::lock_guard lock(m_mutex);
        if (--m_listenersOf[peer] == 0)
            m_listenersOf.erase(peer);
        --m_listeners;
    }

    bool SendNews(Board::Cursor& cursor, httplib::DataSink& sink) {
        Board& board = m_owner.m_board;
        const Board::Frames frames = board.Wait(cursor, kSilence);
        if (board.IsClosed())
            return sink.done(), true;
        // A word now and then shows whether anybody is there.
        if (frames.empty())
            return sink.write(":\n\n", 3);
        for (const auto& frame : frames)
            if (!sink.write(frame->data(), frame->size()))
                return false;
        std::this_thread::sleep_for(kBreath);
        return true;
    }

    // The object that was sent; null, and an answer, where there is none.
    Json ReadRequest(httplib::Response& response, const httplib::ContentReader& read) const {
        std::string body;
        bool fits = true;
        const bool whole = read([&](const char* data, size_t length) {
            fits = body.size() + length <= kMostRequest;
            if (fits)
                body.append(data, length);
            return fits;
        });
        if (!fits)
            return Refuse(response, 413, "The request is too large."), nullptr;
        Json request = whole ? Json::parse(body, nullptr, false) : Json();
        if (!request.is_object())
            return Refuse(response, 400, "The request is not understood."), nullptr;
        return request;
    }

    void AddAction(HttpServer& server, const char* path, Action action) {
        server.Post(path, [this, action](const httplib::Request&, httplib::Response& response,
                                         const httplib::ContentReader& read) {
            const Json request = ReadRequest(response, read);
            const auto session = m_owner.Current();
            if (request.is_null())
                return;
            if (!session)
                return Refuse(response, 409, "There is no stream yet.");
            const Json answer = (session.get()->*action)(request);
            Answer(response, answer.contains("error") ? 409 : 200, answer);
        });
    }

    // False, with the reason as the answer, where a stream of so many bytes cannot be taken.
    bool HasRoom(const std::string& peer, uint64_t bytes, httplib::Response& response) const {
        if (!m_owner.m_allowUploads && !HttpServer::IsOfThisMachine(peer))
            return Refuse(response, 403,
                          "Streams are taken from this machine alone, unless tessel is started with "
                          "--allow-uploads."),
                   false;
        if (const auto room = static_cast<uint64_t>(Upload::Room()); bytes > room)
            return Refuse(response, 413,
                          "The stream is too large to be kept here: there is room for " +
                              std::to_string(room / 1'000'000) + " MB."),
                   false;
        if (m_uploading)
            return Refuse(response, 409, kBusy), false;
        return true;
    }

    // {"bytes"}: asked before a stream is sent, for a browser hears of a refusal only when all has been sent.
    void TellRoom(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& read) {
        const Json asked = ReadRequest(response, read);
        if (asked.is_null())
            return;
        const auto bytes = asked.find("bytes");
        if (bytes == asked.end() || !bytes->is_number_unsigned())
            return Refuse(response, 400, "The request is not understood.");
        if (HasRoom(request.remote_addr, bytes->get<uint64_t>(), response))
            Answer(response, 200, {{"result", "done"}});
    }

    void TakeUpload(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& read) {
        if (request.is_multipart_form_data())
            return Refuse(response, 415, "Send the bytes of the stream, and nothing else.");
        const bool knowsLength = request.has_header("Content-Length");
        if (!HasRoom(request.remote_addr, knowsLength ? request.get_header_value<uint64_t>("Content-Length") : 0,
                     response))
            return;
        if (m_uploading.exchange(true))
            return Refuse(response, 409, kBusy);
        try {
            Receive(ToTerminal(request.get_param_value("name").substr(0, 255)), response, read);
        } catch (const std::exception& error) {
            Refuse(response, 500, error.what());
        }
        m_uploading = false;
    }

    // It is inspected as soon as it is seen to be a transport stream; the one before it stays for what is none.
    void Receive(const std::string& name, httplib::Response& response, const httplib::ContentReader& read) {
        Upload upload(name.empty() ? "a dropped stream" : name);
        bool fits = true, begun = false;
        int64_t lookAt = kFirstLook;
        std::optional<std::string> doubt;
        const auto look = [&] {
            doubt = upload.Doubt();
            lookAt = 2 * upload.Bytes();
            begun = !doubt;
            if (begun)
                m_owner.Replace(upload.Input());
            return begun || upload.Bytes() < static_cast<int64_t>(kHeadToJudge);
        };
        const bool whole = read([&](const char* data, size_t length) {
            fits = upload.Write({data, length});
            return fits && !m_owner.m_board.IsClosed() && (begun || upload.Bytes() < lookAt || look());
        });
        if (!fits)
            return Refuse(response, 413, "There is no room for the rest of the stream.");
        if (whole && !begun)
            look();
        if (!begun && doubt)
            return Refuse(response, 415, "This is no transport stream: " + *doubt + ".");
        if (!whole)
            return Refuse(response, 400, "The stream did not come to its end.");
        Answer(response, 200, {{"result", "done"}, {"bytes", upload.Bytes()}});
    }

    static constexpr const char* kBusy = "Another stream is being sent; send this one when that has come.";

    InspectServer& m_owner;
    std::mutex m_mutex;  // for those who are listening
    std::atomic<int> m_listeners{0};
    std::map<std::string, int> m_listenersOf;  // by peer
    std::atomic<bool> m_uploading{false};
};

InspectServer::InspectServer(const ListenAddress& address, PlaybackInput input, bool allowUploads)
    : m_address(address),
      m_allowUploads(allowUploads),
      m_server(std::make_unique<HttpServer>()),
      m_routes(std::make_unique<Routes>(*this)) {
    Bind();
    m_guard = std::make_unique<Guard>(m_address);
    m_routes->Set(*m_server);
    Replace(std::move(input));
}

void InspectServer::Bind() {
    // Not as the library would have it: two may then have one port, and each gets half of the browsers.
    m_server->set_socket_options([](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    m_server->new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    m_server->set_payload_max_length(static_cast<size_t>(Upload::kMostBytes));
    m_server->set_tcp_nodelay(true);
    m_server->set_default_headers({{"Content-Security-Policy", kPolicy},
                                   {"X-Content-Type-Options", "nosniff"},
                                   {"Referrer-Policy", "no-referrer"},
                                   {"Cross-Origin-Resource-Policy", "same-origin"},
                                   {"Cache-Control", "no-store"}});
    errno = 0;
    if (m_address.port == 0)
        m_address.port = m_server->bind_to_any_port(m_address.host);
    else if (!m_server->bind_to_port(m_address.host, m_address.port))
        m_address.port = -1;
    if (m_address.port > 0)
        return;
    const int error = errno;
    m_address.port = 0;
    throw Failure("cannot listen: " +
                  std::string(error == EADDRINUSE ? "the port is taken"
                              : error != 0        ? std::strerror(error)
                                                  : "there is no such address") +
                  "; choose another with --listen, or port 0 for any that is free");
}

InspectServer::~InspectServer() {
    m_board.Close();
    // Those that listen hear the end; one that does not read is not waited for.
    for (int i = 0; i < kEndTries && m_routes->Listeners() != 0; ++i)
        std::this_thread::sleep_for(kEndPoll);
    m_server->stop();
    if (m_thread.joinable())
        m_thread.join();
}

void InspectServer::Start() {
    m_thread = std::thread([this] {
        NameThread("inspect-http");
        YieldToOthers();
        m_server->listen_after_bind();
    });
}

std::string InspectServer::Url() const {
    return "http://" + m_address.Text() + "/";
}

std::shared_ptr<Session> InspectServer::Current() {
    const std::lock_guard lock(m_mutex);
    return m_session;
}

void InspectServer::Replace(PlaybackInput input) {
    const std::lock_guard replacing(m_replacing);
    std::shared_ptr<Session> old;
    {
        const std::lock_guard lock(m_mutex);
        old.swap(m_session);
    }
    old.reset();
    auto session = std::make_shared<Session>(m_board, std::move(input));
    const std::lock_guard lock(m_mutex);
    m_session = std::move(session);
}

}  // namespace tessel::tool
