// Who may ask: pages of other sites may not, by whatever name they reach us; and who changes something needs the
// token that our own page was given.
#pragma once

#include <string>
#include <string_view>

namespace tessel::tool {

struct ListenAddress {
    std::string host;  // without the brackets of IPv6
    int port = 0;

    bool IsLoopback() const;
    // "127.0.0.1:8210", "[::1]:8210"
    std::string Text() const;
};

// "HOST:PORT"; Misuse for anything else.
ListenAddress ParseListenAddress(const std::string& text);

class Guard {
public:
    explicit Guard(ListenAddress address);

    // host: the header. A name that somebody else's name server could answer for is refused.
    bool IsOurHost(std::string_view host) const;
    // origin: the header, or empty where there is none.
    static bool IsOurOrigin(std::string_view origin, std::string_view host);
    // Takes as long for a wrong token as for the right one.
    bool IsToken(std::string_view token) const;
    const std::string& Token() const { return m_token; }

private:
    const ListenAddress m_address;
    const std::string m_token;
};

}  // namespace tessel::tool
