#pragma once
// TCP stream sockets as the system offers them, named by what the socket layer
// does with them: open, bind, listen, accept, connect, send, receive, wait,
// shut down, close, set options, look names up, format addresses. Each
// platform implements this header in its own folder; nothing here is specific
// to one system.
//
// Every socket these calls create is non-blocking and close-on-exec from the
// start. A send never waits and never raises a signal when the peer is gone.
//
// Ownership: a tSocket belongs to whoever holds it and must be closed with
// gCloseSocket (cUniqueSocket does that). The calls keep no state of their own.
// Threads: any thread; on one socket, one thread may receive while others send,
// wait, or shut it down.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vantrel::platform {

// A native socket. Valid sockets are never negative; kNoSocket names none.
using tSocket = std::intptr_t;
inline constexpr tSocket kNoSocket = -1;

// Why a call failed, sorted by what its caller does about it.
enum class tSocketFault {
  eNone,
  eWouldBlock,      // nothing can be done without waiting
  eInterrupted,     // a signal ended the call early; call again
  eInProgress,      // a connect goes on: wait until writable, then gConnectOutcome
  eRefused,         // nobody listens at that address
  eTimedOut,        // the peer or a wait did not answer in time
  eAddressInUse,    // the port is taken
  eConnectionGone,  // accept only: that connection died before it was taken; the listener is fine
  eNoResources,     // out of descriptors, buffers or memory for now
  eOther,
};

// The outcome of a call: its fault and the system's error number, for the text.
struct cSocketResult {
  tSocketFault fault = tSocketFault::eNone;
  int code = 0;
  bool Ok() const { return fault == tSocketFault::eNone; }
  // The system's text for `code`.
  std::string Text() const;
};

// The error the last failed call of this thread left behind (code 0: none).
cSocketResult gLastSocketError();
// What a wait that ran out of time reports, with the system's own code and text.
cSocketResult gTimedOut();

// ---- addresses ------------------------------------------------------------------

enum class tAddressFamily { eIPv4, eIPv6 };

// One IPv4 or IPv6 address with its port, in the system's own form.
struct cSocketAddress {
  tAddressFamily family = tAddressFamily::eIPv4;
  std::uint32_t size = 0;  // bytes of `storage` in use
  alignas(8) unsigned char storage[128] = {};
};

// An address as text ("127.0.0.1", "::1") and its port; empty and 0 when unknown.
struct cEndpoint {
  std::string address;
  unsigned short port = 0;
};

enum class tLookup { eAnyFamily, eIPv4Only };

struct cLookupResult {
  std::vector<cSocketAddress> addresses;  // in the resolver's order of preference
  std::string error;                      // the resolver's text when there are none
};

// Resolves a host name or a numeric address for a stream connection to `port`
// (0: no port). Blocks for as long as the resolver takes.
cLookupResult gLookUp(const std::string& host, unsigned short port, tLookup lookup);
// True when `text` is a numeric IPv4 or IPv6 address rather than a name.
bool gIsNumericAddress(const std::string& text);
cEndpoint gFormatAddress(const cSocketAddress& address);
// The local and the remote end of a socket; empty for a socket that has none
// or is not an IP socket.
cEndpoint gLocalEndpoint(tSocket socket);
cEndpoint gPeerEndpoint(tSocket socket);

// ---- life of a socket -----------------------------------------------------------

// A new stream socket; kNoSocket when the system has none to give (`result` says why).
tSocket gOpenStreamSocket(tAddressFamily family, cSocketResult& result);
void gCloseSocket(tSocket socket);
// Ends both directions. Every call blocked on the socket returns, in any thread.
void gShutdownSocket(tSocket socket);
// Ends sending only: the peer reads what was sent, then end of stream; reads go on.
void gShutdownSending(tSocket socket);
// True while `socket` names an open socket of this process.
bool gIsOpenSocket(tSocket socket);

// ---- options --------------------------------------------------------------------

cSocketResult gSetNonBlocking(tSocket socket, bool nonBlocking);
// Lets gReceive with `mayWait` wait inside the call while sends still never
// wait. False where the system cannot have both on one socket: the socket then
// stays non-blocking, every receive reports eWouldBlock when nothing is there,
// and the caller waits in gPoll (where a wake-up can end the wait).
bool gAllowBlockingReceive(tSocket socket);
// Sends small segments at once instead of coalescing them.
cSocketResult gSetNoDelay(tSocket socket);
// Declares the connection dead when sent data stays unacknowledged this long.
cSocketResult gSetUnacknowledgedTimeout(tSocket socket, std::uint32_t milliseconds);
// Lets a listener bind a port that connections of an earlier listener still hold.
cSocketResult gSetReuseAddress(tSocket socket);
// Keeps a socket that another library created out of programs this process
// starts (ours are created so).
cSocketResult gSetCloseOnExec(tSocket socket);

// ---- listening and connecting ---------------------------------------------------

enum class tListenAddress { eLoopback, eAny };

// Binds an IPv4 socket to the loopback or the wildcard address (port 0: any free port).
cSocketResult gBindIPv4(tSocket socket, tListenAddress address, unsigned short port);
// Listens with the system's largest backlog.
cSocketResult gListen(tSocket socket);
// Takes one waiting connection: eWouldBlock when there is none, eConnectionGone
// when it died first, eNoResources when the process is out of descriptors.
tSocket gAccept(tSocket listener, cSocketResult& result);
// Starts connecting. eNone: connected already; eInProgress: wait until the
// socket is writable, then ask gConnectOutcome.
cSocketResult gStartConnect(tSocket socket, const cSocketAddress& address);
cSocketResult gConnectOutcome(tSocket socket);

// ---- moving bytes ---------------------------------------------------------------

// Receives at most `size` bytes. With `mayWait` a blocking socket waits in the
// call until data comes; otherwise eWouldBlock comes back at once when there is
// none. Returns the bytes received; 0 with an Ok result is the end of the stream.
std::size_t gReceive(tSocket socket, void* buffer, std::size_t size, bool mayWait, cSocketResult& result);

struct cSendBuffer {
  const void* data = nullptr;
  std::size_t size = 0;
};
// Sends as much of `parts`, in order, as the socket takes now. Returns the bytes
// sent; 0 with eWouldBlock when the socket takes nothing now.
std::size_t gSendGathered(tSocket socket, const cSendBuffer* parts, std::size_t count, cSocketResult& result);

// ---- waiting --------------------------------------------------------------------

// Wakes the waits that watch it: once signalled it stays signalled, so every
// present and future gPoll with it returns at once.
// Ownership: held by the socket whose waits it ends. Threads: any thread
// signals it; any number of threads wait on it.
class cWakeup {
 public:
  // When the system cannot make one, Valid() is false and Failure() says why.
  cWakeup();
  ~cWakeup();
  cWakeup(const cWakeup&) = delete;
  cWakeup& operator=(const cWakeup&) = delete;

  bool Valid() const { return native_ != kNoSocket; }
  const cSocketResult& Failure() const { return failure_; }
  void Signal() const;
  // The system's handle, for gPoll.
  std::intptr_t Native() const { return native_; }

 private:
  std::intptr_t native_ = kNoSocket;
  cSocketResult failure_;
};

enum class tReadiness { eReadable, eWritable };
enum class tPollResult { eReady, eWoken, eTimedOut, eFailed };

// Now on std::chrono::steady_clock, in microseconds: the clock of every deadline
// these calls take.
inline std::int64_t gSteadyNowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Waits until `socket` is ready (a failed socket counts as ready: the next call
// on it says how), `wakeup` (may be null) is signalled, or the deadline passes.
// `socket` kNoSocket waits for the wake-up or the deadline only. The deadline is
// in microseconds of gSteadyNowUs; negative: none. An interrupted
// wait goes on. eFailed: the wait itself failed (gLastSocketError tells why).
tPollResult gPoll(tSocket socket, tReadiness readiness, const cWakeup* wakeup, std::int64_t deadlineUs);

// Owns one socket and closes it when destroyed. Move-only; one thread at a time.
class cUniqueSocket {
 public:
  cUniqueSocket() = default;
  explicit cUniqueSocket(tSocket socket) : socket_(socket) {}
  ~cUniqueSocket() { Reset(); }
  cUniqueSocket(cUniqueSocket&& other) noexcept : socket_(other.Release()) {}
  cUniqueSocket& operator=(cUniqueSocket&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  cUniqueSocket(const cUniqueSocket&) = delete;
  cUniqueSocket& operator=(const cUniqueSocket&) = delete;

  bool Valid() const { return socket_ != kNoSocket; }
  tSocket Get() const { return socket_; }
  // Gives up ownership; the caller closes the socket.
  tSocket Release() {
    const tSocket socket = socket_;
    socket_ = kNoSocket;
    return socket;
  }
  void Reset(tSocket socket = kNoSocket) {
    if (socket_ != kNoSocket) gCloseSocket(socket_);
    socket_ = socket;
  }

 private:
  tSocket socket_ = kNoSocket;
};

}  // namespace vantrel::platform
