// QNAddress: an IPv4 address with a port, as the socket layer hands it to the system.
//
// The first 16 bytes of the object are exactly the system's IPv4 socket address (family, port
// and address in network byte order, 8 zero bytes), so a QNAddress is passed to the socket calls
// as it is; the class therefore has no virtual functions and keeps that block first. A new
// address is (2, port 0, any). `name` remembers the text last given to GetByName.
//
// Dotted texts ("127.0.0.1") are formatted into one process-wide buffer: a returned pointer is
// valid until the next such call and must not be shared across threads.
#pragma once

#include <cstdint>

#include "framework/qstring.h"

// The system's IPv4 socket address, field by field.
struct QNSockAddr {
  uint16_t family;   // host order: always 2
  uint16_t port;     // network order
  uint32_t address;  // network order; 0 = any
  uint8_t zero[8];
};

class QNAddress {
 public:
  enum : int { FAMILY_INET = 2 };

  QNAddress();

  // Stores family, address and port; address and port are given in host order.
  void Set(int family, uint32_t address, int port);
  // "host", "host:port" or "a.b.c.d[:port]". Warns about a null or empty text and goes on. A
  // dotted address is taken without a lookup; anything else is looked up, and a failed lookup
  // reports through qnError and answers false with the address unchanged.
  bool GetByName(const char* text);

  int GetFamily() const { return sa_.family; }
  // Host order.
  uint32_t GetAddress() const;
  int GetPort() const;
  void SetAddress(uint32_t address);
  void SetPort(int port);
  // The host part of the text last given to GetByName.
  const char* GetName() const { return name_.cstr(); }
  // The address as "%lu.%lu.%lu.%lu", in the process-wide buffer.
  const char* GetDotted() const;

  // The 16-byte system address, for the socket calls.
  QNSockAddr* SockAddr() { return &sa_; }
  const QNSockAddr* SockAddr() const { return &sa_; }

 private:
  QNSockAddr sa_;
  qstring name_;
};

// Formats a host-order address as "%lu.%lu.%lu.%lu" (most significant byte first) into the
// process-wide buffer and answers it.
const char* qnDottedText(uint32_t address);
