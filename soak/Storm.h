#ifndef HUTIL_SOAK_STORM_H_
#define HUTIL_SOAK_STORM_H_

#include <array>
#include <cstdint>

/// What a client does with its connection.
enum Deed {
  kExchange,   ///< Sends messages, waits for the echo of each, closes.
  kHalfClose,  ///< Sends everything, ends its own direction, reads the echo to the end.
  kReset,      ///< Sends and resets at once, with the echo under way.
  kHangUp,     ///< Closes without a word; without a handshake too.
  kBabble,     ///< Sends what the server cannot expect, and closes.
  kDeedCount
};

extern const char* const kDeedNames[kDeedCount];

struct Tally {
  uint64_t connections = 0;
  uint64_t messages = 0;   ///< Sent by clients that wait for the echo,
  uint64_t bytes = 0;      ///< and what these came to,
  uint64_t lost = 0;       ///< of which so many never came back
  uint64_t corrupted = 0;  ///< and so many as others.
  uint64_t refused = 0;    ///< Connections and handshakes that failed.

  Tally& operator+=(const Tally& other);
};

/// By deed, first of clear clients, then of TLS ones.
using Tallies = std::array<std::array<Tally, kDeedCount>, 2>;

/// Many clients at once against the echo servers on these two ports of the loopback.
Tallies Storm(uint16_t clear_port, uint16_t tls_port, int seconds);

#endif  // HUTIL_SOAK_STORM_H_
