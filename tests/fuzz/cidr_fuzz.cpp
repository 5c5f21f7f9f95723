// cidr_fuzz.cpp - networks and network numbers of any text, addresses of any bytes.
//
// The match is held against one that compares bit by bit; the text of an address is a network that has the address.

#include "korutil/korCidr.h"
#include "korutil/korHostResolutions.h"
#include "korutil/korInetIfTable.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>

namespace {

void demand(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

struct Address {
    sockaddr_storage storage = {};
    uint8_t* bytes;
    unsigned width; // bits

    Address(bool wide, const uint8_t* source)
    {
        storage.ss_family = wide ? AF_INET6 : AF_INET;
        bytes = wide ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_addr.s6_addr
                     : reinterpret_cast<uint8_t*>(&reinterpret_cast<sockaddr_in*>(&storage)->sin_addr);
        width = wide ? 128 : 32;
        std::memcpy(bytes, source, width / 8);
    }
    const sockaddr* head() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

bool bitAt(const uint8_t* bytes, unsigned index)
{
    return (bytes[index / 8] >> (7 - index % 8) & 1) != 0;
}

bool slowMatch(const Address& address, const std::string& text)
{
    size_t slash = text.find('/');
    uint8_t network[16];
    if (inet_pton(address.storage.ss_family, text.substr(0, slash).c_str(), network) != 1) {
        return false;
    }
    long prefix = std::strtol(text.c_str() + slash + 1, nullptr, 10);
    unsigned bits = prefix < 0 || prefix > address.width ? address.width : static_cast<unsigned>(prefix);
    for (unsigned i = 0; i < bits; i++) {
        if (bitAt(address.bytes, i) != bitAt(network, i)) {
            return false;
        }
    }
    return true;
}

void checkMatch(korEx* ex, const Address& address, const std::string& text)
{
    bool matched = _korCidr_Match(ex, 0, address.head(), text.c_str()) != 0;
    bool isNetwork = text.find('/') != std::string::npos;
    demand((korEx_GetErrorCode(ex) == 0) == isNetwork);
    demand(!isNetwork || matched == slowMatch(address, text));
    korEx_Clear(ex);
}

void checkText(korEx* ex, const Address& address)
{
    char host[64];
    _kor_AddressToHostPort(ex, 0, address.head(), host, sizeof host, nullptr, 0);
    demand(korEx_GetErrorCode(ex) == 0);
    demand(_korCidr_Match(ex, 0, address.head(), (std::string(host) + "/-1").c_str()) == 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 17) {
        return 0;
    }
    Address address((data[0] & 1) != 0, data + 1);
    std::string text(reinterpret_cast<const char*>(data + 17), size - 17);
    text.resize(std::strlen(text.c_str()));
    korEx* ex = korEx_Create();
    checkMatch(ex, address, text);
    checkText(ex, address);
    char near[INET6_ADDRSTRLEN];
    inet_ntop(address.storage.ss_family, address.bytes, near, sizeof near);
    checkMatch(ex, address, near + ("/" + text));
    inet_network(text.c_str());
    korEx_Destroy(ex);
    return 0;
}
