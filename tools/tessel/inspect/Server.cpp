#include "tools/tessel/inspect/Server.h"

#include <httplib.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/os/Thread.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Utf8.h"
#include "tools/tessel/inspect/Upload.h"
#include "tools/tessel/inspect/WebFiles.h"

namespace tessel::tool {

namespace {

using namespace std::chrono_literals;

// So many browsers may listen, each on a thread; the rest of the threads answer.
constexpr int kMostListeners = 64;
constexpr size_t kThreads = kMostListeners + 8;
constexpr size_t kMostRequest = 64 * 1024;
// Between two updates of a browser, and without anything to say.
constexpr auto kBreath = 100ms;
constexpr auto kSilence = 10s;
constexpr auto kEndPoll = 20ms;
constexpr int kEndTries = 20;
constexpr time_t kSocketSeconds = 10;

constexpr const char* kTooLarge = "The stream is too large to be kept here.";
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

    void Set(httplib::Server& server) {
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
        server.Get("/events", [this](const httplib::Request&, httplib::Response& response) { SendEvents(response); });
        AddAction(server, "/api/act", &Session::Act);
        AddAction(server, "/api/map", &Session::Map);
        AddAction(server, "/api/unmap", &Session::Unmap);
        server.Post("/api/upload", [this](const httplib::Request& request, httplib::Response& response,
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

    void SendEvents(httplib::Response& response) {
        if (m_listeners.fetch_add(1) >= kMostListeners) {
            --m_listeners;
            response.set_header("Retry-After", "5");
            return Refuse(response, 503, "Too many pages are open.");
        }
        response.set_header("X-Accel-Buffering", "no");
        auto cursor = std::make_shared<Board::Cursor>();
        response.set_chunked_content_provider(
            "text/event-stream", [this, cursor](size_t, httplib::DataSink& sink) { return SendNews(*cursor, sink); },
            [this](bool) { --m_listeners; });
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

    void AddAction(httplib::Server& server, const char* path, Action action) {
        server.Post(path, [this, action](const httplib::Request&, httplib::Response& response,
                                         const httplib::ContentReader& read) {
            std::string body;
            const bool whole = read([&body](const char* data, size_t length) {
                if (body.size() + length > kMostRequest)
                    return false;
                body.append(data, length);
                return true;
            });
            if (!whole)
                return Refuse(response, 413, "The request is too large.");
            const Json request = Json::parse(body, nullptr, false);
            const auto session = m_owner.Current();
            if (!request.is_object() || !session)
                return Refuse(response, 400, "The request is not understood.");
            const Json answer = (session.get()->*action)(request);
            Answer(response, answer.contains("error") ? 409 : 200, answer);
        });
    }

    void TakeUpload(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& read) {
        if (request.is_multipart_form_data())
            return Refuse(response, 415, "Send the bytes of the stream, and nothing else.");
        if (request.has_header("Content-Length") &&
            request.get_header_value<uint64_t>("Content-Length") > static_cast<uint64_t>(Upload::kMostBytes))
            return Refuse(response, 413, kTooLarge);
        const bool only = !m_uploading.exchange(true);
        if (!only)
            return Refuse(response, 409, "Another stream is being sent.");
        const std::string name = ToTerminal(request.get_param_value("name").substr(0, 255));
        try {
            Upload upload(name.empty() ? "a dropped stream" : name);
            bool fits = true, begun = false;
            const bool whole = read([&](const char* data, size_t length) {
                fits = upload.Write({data, length});
                if (fits && !std::exchange(begun, true))
                    m_owner.Replace(upload.Input());
                return fits && !m_owner.m_board.IsClosed();
            });
            if (!fits)
                Refuse(response, 413, kTooLarge);
            else if (!whole || upload.Bytes() == 0)
                Refuse(response, 400, "The stream is empty, or did not come to its end.");
            else
                Answer(response, 200, {{"result", "done"}, {"bytes", upload.Bytes()}});
        } catch (const std::exception& error) {
            Refuse(response, 500, error.what());
        }
        m_uploading = false;
    }

    InspectServer& m_owner;
    std::atomic<int> m_listeners{0};
    std::atomic<bool> m_uploading{false};
};

InspectServer::InspectServer(const ListenAddress& address, PlaybackInput input)
    : m_address(address), m_server(std::make_unique<httplib::Server>()), m_routes(std::make_unique<Routes>(*this)) {
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
    // One request a connection: what a refused one leaves unread is read by nobody.
    m_server->set_keep_alive_max_count(1);
    m_server->set_read_timeout(kSocketSeconds);
    m_server->set_write_timeout(kSocketSeconds);
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
