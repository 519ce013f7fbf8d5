#include "tools/tessel/inspect/Guard.h"

#include <arpa/inet.h>
#include <sys/random.h>

#include <array>
#include <charconv>
#include <cstdint>

#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

bool IsAddress(const std::string& host) {
    in6_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1 || inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

// False when text is no "HOST:PORT".
bool Split(std::string_view text, ListenAddress& out) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0)
        return false;
    std::string_view host = text.substr(0, colon);
    const std::string_view port = text.substr(colon + 1);
    if (host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != std::string_view::npos)
        return false;
    out.host = host;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), out.port);
    return error == std::errc() && end == port.data() + port.size() && !host.empty() && out.port >= 0 &&
           out.port <= 0xFFFF;
}

std::string MakeToken() {
    std::array<uint8_t, 24> bytes;
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw Failure("the system gives no random numbers");
    std::string token;
    for (const uint8_t byte : bytes)
        for (const int digit : {byte >> 4, byte & 0x0F})
            token += "0123456789abcdef"[digit];
    return token;
}

}  // namespace

bool ListenAddress::IsLoopback() const {
    return host == "localhost" || host == "::1" || (host.starts_with("127.") && IsAddress(host));
}

std::string ListenAddress::Text() const {
    const bool brackets = host.find(':') != std::string::npos;
    return (brackets ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

ListenAddress ParseListenAddress(const std::string& text) {
    ListenAddress address;
    if (!Split(text, address))
        throw Misuse("\"" + text + "\": --listen takes an address and a port, as 127.0.0.1:8210 or [::1]:8210");
    return address;
}

Guard::Guard(ListenAddress address) : m_address(std::move(address)), m_token(MakeToken()) {}

bool Guard::IsOurHost(std::string_view host) const {
    ListenAddress asked;
    if (!Split(host, asked) && !Split(std::string(host) + ":80", asked))
        return false;
    if (asked.port != m_address.port)
        return false;
    if (m_address.IsLoopback())
        return asked.IsLoopback();
    return asked.IsLoopback() || asked.host == m_address.host || IsAddress(asked.host);
}

bool Guard::IsOurOrigin(std::string_view origin, std::string_view host) {
    constexpr std::string_view kScheme = "http://";
    return origin.empty() || (origin.starts_with(kScheme) && origin.substr(kScheme.size()) == host);
}

bool Guard::IsToken(std::string_view token) const {
    uint32_t difference = token.size() == m_token.size() ? 0 : 1;
    for (size_t i = 0; i < m_token.size(); ++i)
        difference |= static_cast<uint8_t>(m_token[i]) ^ static_cast<uint8_t>(i < token.size() ? token[i] : 0);
    return difference == 0;
}

}  // namespace tessel::tool
