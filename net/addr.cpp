// QNAddress on the POSIX socket address and getaddrinfo.
#include "net/addr.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/qmessage.h"
#include "net/global.h"

static_assert(sizeof(QNSockAddr) == sizeof(sockaddr_in), "QNSockAddr must be a sockaddr_in");
static_assert(offsetof(QNSockAddr, port) == offsetof(sockaddr_in, sin_port), "port offset");
static_assert(offsetof(QNSockAddr, address) == offsetof(sockaddr_in, sin_addr), "address offset");

namespace {

// Only 1-3 digits per part, four parts, nothing else: such a text never needs a lookup.
bool ParseDotted(const char* s, uint32_t* out) {
  uint32_t value = 0;
  for (int part = 0; part < 4; ++part) {
    if (*s < '0' || *s > '9') return false;
    unsigned n = 0;
    int digits = 0;
    while (*s >= '0' && *s <= '9') {
      if (++digits > 3) return false;
      n = n * 10 + static_cast<unsigned>(*s++ - '0');
    }
    if (n > 255) return false;
    value = (value << 8) | n;
    if (part < 3 && *s++ != '.') return false;
  }
  if (*s) return false;
  *out = value;
  return true;
}

// getaddrinfo's failures as the host-lookup numbers the error table knows.
int LookupError(int rc) {
  switch (rc) {
    case EAI_NONAME: return 11001;
    case EAI_AGAIN: return 11002;
    case EAI_FAIL: return 11003;
#ifdef EAI_NODATA
    case EAI_NODATA: return 11004;
#endif
    case EAI_SYSTEM: return qnMapErrno(errno);
    default: return 11003;
  }
}

char g_dotted[32];

}  // namespace

QNAddress::QNAddress() {
  memset(&sa_, 0, sizeof(sa_));
  sa_.family = FAMILY_INET;
}

void QNAddress::Set(int family, uint32_t address, int port) {
  sa_.family = static_cast<uint16_t>(family);
  sa_.address = htonl(address);
  sa_.port = htons(static_cast<uint16_t>(port));
}

uint32_t QNAddress::GetAddress() const { return ntohl(sa_.address); }
int QNAddress::GetPort() const { return ntohs(sa_.port); }
void QNAddress::SetAddress(uint32_t address) { sa_.address = htonl(address); }
void QNAddress::SetPort(int port) { sa_.port = htons(static_cast<uint16_t>(port)); }
const char* QNAddress::GetDotted() const { return qnDottedText(GetAddress()); }

bool QNAddress::GetByName(const char* text) {
  if (!text)
    QWARN("QNAddress::GetByName", "'name' is null");
  else if (!text[0])
    QWARN("QNAddress::GetByName", "'name' is empty (name[0]=0)");
  name_ = text ? text : "";
  int colon = name_.Find(':');
  if (colon >= 0) {
    SetPort(atoi(name_.cstr() + colon + 1));
    qstring host;
    name_.GetSubstring(0, colon, &host);
    name_ = host;
  }

  uint32_t dotted;
  if (ParseDotted(name_.cstr(), &dotted)) {
    SetAddress(dotted);
    return true;
  }

  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  // An empty name is never found; asking the resolver would only cost a round trip.
  int rc = name_.IsEmpty() ? EAI_NONAME : getaddrinfo(name_.cstr(), nullptr, &hints, &found);
  if (rc != 0 || !found || !found->ai_addr) {
    if (found) freeaddrinfo(found);
    qnSetLastError(rc != 0 ? LookupError(rc) : 11004);
    qnError("QNAddress:GetByName(%s) failed", name_.cstr());
    return false;
  }
  const sockaddr_in* in = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  sa_.address = in->sin_addr.s_addr;
  freeaddrinfo(found);
  QDBG("QNAddress::GetByName", "QNAddress::GetByName(%s)='%s'\n", name_.cstr(), GetDotted());
  return true;
}

const char* qnDottedText(uint32_t address) {
  snprintf(g_dotted, sizeof(g_dotted), "%lu.%lu.%lu.%lu", (unsigned long)((address >> 24) & 255),
           (unsigned long)((address >> 16) & 255), (unsigned long)((address >> 8) & 255),
           (unsigned long)(address & 255));
  return g_dotted;
}
