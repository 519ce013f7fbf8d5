#include "tools/tessel/inspect/Board.h"

#include <nlohmann/json.hpp>

namespace tessel::tool {

namespace {

std::shared_ptr<const std::string> Frame(const std::string& event, const std::string& data) {
    return std::make_shared<const std::string>("event: " + event + "\ndata: " + data + "\n\n");
}

}  // namespace

uint64_t Board::BeginSession() {
    uint64_t session = 0;
    {
        const std::lock_guard lock(m_mutex);
        session = ++m_session;
        m_topics.clear();
        m_lines.clear();
    }
    m_news.notify_all();
    return session;
}

void Board::Publish(uint64_t session, const std::string& topic, const std::string& data) {
    {
        const std::lock_guard lock(m_mutex);
        if (session != m_session)
            return;
        Topic& place = m_topics[topic];
        if (place.data == data)
            return;
        // "page-pat" is an event "page".
        place = {++m_version, data, Frame(topic.substr(0, topic.find('-')), data)};
    }
    m_news.notify_all();
}

void Board::AddLine(uint64_t session, const std::string& kind, const std::string& text) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    {
        const std::lock_guard lock(m_mutex);
        if (session != m_session)
            return;
        const nlohmann::ordered_json line = {{"line", ++m_lastLine}, {"time", time}, {"kind", kind}, {"text", text}};
        m_lines.push_back({m_lastLine, line.dump()});
        if (m_lines.size() > kMostLines)
            m_lines.pop_front();
    }
    m_news.notify_all();
}

void Board::Close() {
    {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
    }
    m_news.notify_all();
}

bool Board::IsClosed() const {
    const std::lock_guard lock(m_mutex);
    return m_closed;
}

bool Board::HasNews(const Cursor& cursor) const {
    return cursor.session != m_session || cursor.version != m_version ||
           (!m_lines.empty() && m_lines.back().number > cursor.line);
}

Board::Frames Board::Wait(Cursor& cursor, std::chrono::milliseconds time) {
    std::unique_lock lock(m_mutex);
    Frames frames;
    if (!m_news.wait_for(lock, time, [&] { return m_closed || HasNews(cursor); }) || m_closed)
        return frames;
    if (cursor.session != m_session) {
        frames.push_back(Frame("session", std::to_string(m_session)));
        cursor = {m_session, 0, 0};
    }
    for (const auto& [name, topic] : m_topics)
        if (topic.version > cursor.version)
            frames.push_back(topic.frame);
    cursor.version = m_version;
    std::string lines;
    for (const Line& line : m_lines)
        if (line.number > cursor.line)
            lines += (lines.empty() ? "[" : ",") + line.json;
    if (!lines.empty()) {
        frames.push_back(Frame("log", lines + "]"));
        cursor.line = m_lastLine;
    }
    return frames;
}

}  // namespace tessel::tool
