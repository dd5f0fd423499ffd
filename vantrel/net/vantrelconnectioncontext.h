#pragma once
// What every connection of one service is given when it is created: the core's
// interfaces, the settings the connection reads and the restart rule.
//
// Owner: the service, which builds one context when its net port is known and
// shares it (immutable) with every connection it creates; a connection keeps its
// share. The interfaces it points to belong to the service and outlive every
// connection. Threads: read by any connection thread; never changed.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/socketoptions.h"

class iVantrelRouter;
class iVantrelConnectionOwner;
class iVantrelClientSessionFactory;
struct cCopyPolicy;
namespace vantrel::stats {
class cServiceStats;
}

// What a host link needs to know about TLS.
struct cVantrelTlsChoice {
  bool useOpenSsl = false;
  bool verifyServerCertificate = false;
  bool verifyClientCertificate = false;
  std::string certificatesPath;
};

struct cVantrelConnectionContext {
  // Null in tests that run a connection alone: nothing is routed, reaped or greeted.
  iVantrelRouter* router = nullptr;
  iVantrelConnectionOwner* owner = nullptr;
  iVantrelClientSessionFactory* sessions = nullptr;
  // Called on a socket failure the service cannot recover from; normally ends
  // the process. When it is empty or returns, the failing connection ends.
  std::function<void()> restartProcess;

  // The service's host name (the greeting's answer) and its address text for
  // peers (host name, delimiter, net port: "lg01~9011").
  std::string hostName;
  std::string addressHostText;
  std::string addressPortDelimiter = "~";
  // The net port: the greeting's answer, and the port of a host text without one.
  unsigned short netPort = 0;

  cVantrelTlsChoice tls;
  // Options of host links; client connections get theirs from their listener.
  nCommunication::nSocket::nImplementation_sho::cSocketOptions netOptions;
  nParallel::nImplementation_sho::cThreadAttributes threadAttributes;
  // Seconds of silence after which a link's writer sends a ping.
  long pingSeconds = 120;
  // Bytes of messages that may wait for one client, or on one link.
  std::uint64_t maxClientQueueBytes = std::uint64_t{64} << 20;
  std::uint64_t maxLinkQueueBytes = std::uint64_t{64} << 20;
  // A link that hears nothing for this long while requests wait is broken
  // (0: three ping intervals, at least 3 s); a request waits for its answer at
  // most answerTimeoutSeconds.
  long linkSilenceSeconds = 0;
  long answerTimeoutSeconds = 120;
  // Bytes a copy to the peer may have unacknowledged.
  std::uint64_t fileCopyWindowBytes = std::uint64_t{8} << 20;
  // What file copies may touch; null: no limits beyond the requester's rights.
  std::shared_ptr<const cCopyPolicy> copies;
  // Where connections and copies keep their counters for the monitoring
  // endpoint; null: counted by each connection alone, seen by nobody.
  std::shared_ptr<vantrel::stats::cServiceStats> stats;
};
