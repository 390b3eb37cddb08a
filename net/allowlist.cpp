// The senders' allow list: entries parsed with the system's strict dotted-address reader.
#include "net/allowlist.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <string>

#include "framework/qmessage.h"

namespace {

// "a.b.c.d" or "a.b.c.d/n" (n from 0 to 32); false for anything else.
bool ParseEntry(const std::string& entry, uint32_t* address, uint32_t* mask) {
  const size_t slash = entry.find('/');
  const std::string host = entry.substr(0, slash);
  in_addr a;
  if (inet_pton(AF_INET, host.c_str(), &a) != 1) return false;
  int bits = 32;
  if (slash != std::string::npos) {
    const std::string prefix = entry.substr(slash + 1);
    if (prefix.empty() || prefix.size() > 2 ||
        prefix.find_first_not_of("0123456789") != std::string::npos)
      return false;
    bits = atoi(prefix.c_str());
    if (bits > 32) return false;
  }
  *mask = bits == 0 ? 0 : ~uint32_t(0) << (32 - bits);
  *address = ntohl(a.s_addr) & *mask;
  return true;
}

}  // namespace

bool QNAllowList::Parse(const char* text) {
  nets_.clear();
  const std::string all(text ? text : "");
  bool good = true;
  for (size_t i = 0; i <= all.size();) {
    size_t end = all.find(',', i);
    if (end == std::string::npos) end = all.size();
    std::string entry = all.substr(i, end - i);
    i = end + 1;
    const size_t first = entry.find_first_not_of(" \t");
    if (first == std::string::npos) continue;  // nothing between two commas
    entry = entry.substr(first, entry.find_last_not_of(" \t") + 1 - first);
    Net n;
    if (ParseEntry(entry, &n.address, &n.mask)) {
      nets_.push_back(n);
      continue;
    }
    QERR("QNAllowList::Parse", "network.allow entry '%s' is no IPv4 address or subnet; left out",
         entry.c_str());
    good = false;
  }
  if (!good && nets_.empty()) {
    QERR("QNAllowList::Parse", "network.allow '%s' has no good entry; only 127.0.0.1 may send",
         all.c_str());
    nets_.push_back({0x7f000001u, ~uint32_t(0)});
  }
  return good;
}

bool QNAllowList::Allows(uint32_t address) const {
  if (nets_.empty()) return true;
  for (const Net& n : nets_)
    if ((address & n.mask) == n.address) return true;
  return false;
}
