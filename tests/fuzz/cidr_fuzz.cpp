// cidr_fuzz.cpp - networks and network numbers of any text, addresses of any bytes.
//
// The match is held against one that compares bit by bit; the text of an address is a network that has the address.

#include "fuzz.h"

#include "korutil/korCidr.h"
#include "korutil/korHostResolutions.h"
#include "korutil/korInetIfTable.h"

#include <arpa/inet.h>
#include <sys/socket.h>

namespace kor::fuzz {
namespace {

struct Address {
    sockaddr_storage storage = {};
    uint8_t* bytes;
    long width; // bits

    Address(bool wide, const char* source)
    {
        storage.ss_family = wide ? AF_INET6 : AF_INET;
        bytes = wide ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_addr.s6_addr
                     : reinterpret_cast<uint8_t*>(&reinterpret_cast<sockaddr_in*>(&storage)->sin_addr);
        width = wide ? 128 : 32;
        std::memcpy(bytes, source, static_cast<size_t>(width / 8));
    }
    const sockaddr* head() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

bool slowMatch(const Address& address, const std::string& text)
{
    size_t slash = text.find('/');
    uint8_t network[16];
    if (inet_pton(address.storage.ss_family, text.substr(0, slash).c_str(), network) != 1) {
        return false;
    }
    long prefix = std::strtol(text.c_str() + slash + 1, nullptr, 10);
    long bits = prefix < 0 || prefix > address.width ? address.width : prefix;
    long same = 0;
    while (same < bits && ((address.bytes[same / 8] ^ network[same / 8]) & 0x80 >> same % 8) == 0) {
        same++;
    }
    return same == bits;
}

void checkMatch(korEx* ex, const Address& address, const std::string& text)
{
    bool isNetwork = text.find('/') != std::string::npos;
    bool matched = _korCidr_Match(ex, 0, address.head(), text.c_str()) != 0;
    demand(isNetwork ? korEx_GetErrorCode(ex) == 0 && matched == slowMatch(address, text)
                     : korEx_GetErrorCode(ex) != 0);
    korEx_Clear(ex);
}

} // namespace

void check(korEx* ex, const std::string& input)
{
    if (input.size() < 17) {
        return;
    }
    Address address((input[0] & 1) != 0, input.data() + 1);
    std::string text = input.c_str() + 17;
    checkMatch(ex, address, text);
    char host[64];
    _kor_AddressToHostPort(ex, 0, address.head(), host, sizeof host, nullptr, 0);
    demand(korEx_GetErrorCode(ex) == 0);
    demand(_korCidr_Match(ex, 0, address.head(), (host + std::string("/-1")).c_str()) == 1);
    checkMatch(ex, address, host + ("/" + text));
    inet_network(text.c_str());
}

} // namespace kor::fuzz
