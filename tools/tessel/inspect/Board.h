// What the browsers are shown: the last state of every topic, and the last lines of the log. Whoever is slow reads
// the newest when it comes round, so nothing piles up for anybody.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tessel::tool {

class Board {
public:
    // How far a browser has read.
    struct Cursor {
        uint64_t session = 0;
        uint64_t version = 0;
        uint64_t line = 0;
    };
    // Server-sent events, ready to be sent.
    using Frames = std::vector<std::shared_ptr<const std::string>>;

    // Forgets all. The number of the new session.
    uint64_t BeginSession();
    // data: JSON on one line. Without effect for a session that is over, and for what is there already.
    void Publish(uint64_t session, const std::string& topic, const std::string& data);
    void AddLine(uint64_t session, const std::string& kind, const std::string& text);
    // No more comes.
    void Close();

    // What is new behind the cursor, which moves on; none when nothing came in time.
    Frames Wait(Cursor& cursor, std::chrono::milliseconds time);
    bool IsClosed() const;

private:
    struct Topic {
        uint64_t version;
        std::string data;
        std::shared_ptr<const std::string> frame;
    };
    struct Line {
        uint64_t number;
        std::string json;
    };
    bool HasNews(const Cursor& cursor) const;

    static constexpr size_t kMostLines = 500;

    mutable std::mutex m_mutex;
    std::condition_variable m_news;
    bool m_closed = false;
    uint64_t m_session = 0;
    uint64_t m_version = 0;
    std::map<std::string, Topic> m_topics;
    std::deque<Line> m_lines;
    uint64_t m_lastLine = 0;
};

}  // namespace tessel::tool
