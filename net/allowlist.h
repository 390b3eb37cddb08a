// QNAllowList: the IPv4 senders a port takes datagrams from, as "network.allow" lists them:
// addresses and subnets separated by commas ("127.0.0.1, 10.1.0.0/16"). An empty list allows
// everyone. A subnet's address bits past its prefix are ignored (10.1.2.3/16 is 10.1.0.0/16).
// Portable apart from the address parse; any thread may ask once it is read.
#pragma once

#include <cstdint>
#include <vector>

class QNAllowList {
 public:
  // Reads `text`. An entry that is no address or subnet is an error naming it and left out;
  // when no entry is left, only 127.0.0.1 is allowed (deaf rather than open by a typing
  // mistake). False when any entry was bad.
  bool Parse(const char* text);
  bool AllowsEveryone() const { return nets_.empty(); }
  // Whether `address` (host order) may send.
  bool Allows(uint32_t address) const;

 private:
  struct Net {
    uint32_t address, mask;  // host order; address has no bits outside mask
  };
  std::vector<Net> nets_;
};
