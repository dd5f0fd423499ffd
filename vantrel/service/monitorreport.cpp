#include "vantrel/service/monitorreport.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>

namespace vantrel::monitor {

using vantrel::stats::cConnectionStats;
using vantrel::stats::cCopyProgress;
using vantrel::stats::cServiceStats;
using vantrel::stats::cTrafficTotals;
using vantrel::stats::tConnectionKind;

namespace {

double SecondsSince(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

nlohmann::json Counters(const cTrafficTotals& totals) {
  return {{"messages_in", totals.messagesIn},
          {"bytes_in", totals.bytesIn},
          {"messages_out", totals.messagesOut},
          {"bytes_out", totals.bytesOut},
          {"answers_delivered", totals.delivered},
          {"answers_not_delivered", totals.notDelivered},
          {"drops", totals.drops},
          {"queued_bytes", totals.queuedBytes}};
}

// Live and retired counts of one kind of connection, added up.
cTrafficTotals Sum(const cServiceStats::cSnapshot& snapshot, tConnectionKind kind) {
  cTrafficTotals sum = kind == tConnectionKind::eClient ? snapshot.retiredClients : snapshot.retiredLinks;
  for (const auto& connection : snapshot.connections)
    if (connection->kind == kind) sum += cTrafficTotals::Of(connection->counters);
  return sum;
}

// A label value: backslash, double quote and line feed escaped.
std::string Label(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    if (c == '\\' || c == '"') {
      escaped += '\\';
      escaped += c;
    } else if (c == '\n') {
      escaped += "\\n";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

// Writes one metric family: its help and type lines once, then its samples.
class cMetricWriter {
 public:
  explicit cMetricWriter(std::ostringstream& out) : out_(out) {}
  void Family(const char* name, const char* type, const char* help) {
    name_ = name;
    out_ << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
  }
  void Sample(const std::string& labels, double value) {
    out_ << name_;
    if (!labels.empty()) out_ << '{' << labels << '}';
    out_ << ' ' << value << '\n';
  }
  void Sample(const std::string& labels, std::uint64_t value) {
    out_ << name_;
    if (!labels.empty()) out_ << '{' << labels << '}';
    out_ << ' ' << value << '\n';
  }

 private:
  std::ostringstream& out_;
  const char* name_ = "";
};

const char* KindName(tConnectionKind kind) { return kind == tConnectionKind::eClient ? "client" : "link"; }

}  // namespace

std::string gStatusJson(const cServiceIdentity& identity, const cServiceStats::cSnapshot& snapshot) {
  nlohmann::json clients = nlohmann::json::array();
  nlohmann::json links = nlohmann::json::array();
  for (const auto& connection : snapshot.connections) {
    const cTrafficTotals totals = cTrafficTotals::Of(connection->counters);
    nlohmann::json entry = Counters(totals);
    entry["id"] = connection->id;
    entry["state"] = vantrel::stats::StateName(connection->State());
    entry["connected_seconds"] = SecondsSince(connection->since);
    if (connection->kind == tConnectionKind::eClient) {
      entry["name"] = connection->Name();
      clients.push_back(std::move(entry));
    } else {
      entry["peer"] = connection->Name();
      entry["direction"] = connection->outgoing ? "outgoing" : "incoming";
      entry["tls"] = connection->tls;
      entry["pending_answers"] = totals.pendingAnswers;
      links.push_back(std::move(entry));
    }
  }
  nlohmann::json copies = nlohmann::json::array();
  for (const auto& copy : snapshot.copies) {
    copies.push_back({{"direction", copy->direction == cCopyProgress::tDirection::eSend ? "send" : "receive"},
                      {"source", copy->source},
                      {"destination", copy->destination},
                      {"peer", copy->peer},
                      {"requester", copy->requester},
                      {"bytes_done", vantrel::stats::Read(copy->bytesDone)},
                      {"bytes_total", vantrel::stats::Read(copy->bytesTotal)},
                      {"elapsed_seconds", SecondsSince(copy->started)}});
  }
  const nlohmann::json status = {
      {"version", identity.version},
      {"host", identity.hostText},
      {"ports", {{"clients", identity.clientsPort}, {"net", identity.netPort}, {"monitor", identity.monitorPort}}},
      {"tls", identity.tls},
      {"uptime_seconds", SecondsSince(identity.started)},
      {"totals",
       {{"clients", Counters(Sum(snapshot, tConnectionKind::eClient))},
        {"links", Counters(Sum(snapshot, tConnectionKind::eLink))},
        {"copies_succeeded", snapshot.copiesSucceeded},
        {"copies_failed", snapshot.copiesFailed}}},
      {"clients", std::move(clients)},
      {"links", std::move(links)},
      {"copies", std::move(copies)}};
  // Invalid UTF-8 in a name or path is replaced, never a reason to fail.
  return status.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string gMetricsText(const cServiceIdentity& identity, const cServiceStats::cSnapshot& snapshot) {
  std::ostringstream out;
  out.precision(17);
  cMetricWriter metric(out);
  metric.Family("vantrel_info", "gauge", "Version and host text of this service (always 1).");
  metric.Sample("version=\"" + Label(identity.version) + "\",host=\"" + Label(identity.hostText) + "\"",
                std::uint64_t{1});
  metric.Family("vantrel_uptime_seconds", "gauge", "Seconds since the service started.");
  metric.Sample("", SecondsSince(identity.started));

  const cTrafficTotals clients = Sum(snapshot, tConnectionKind::eClient);
  const cTrafficTotals links = Sum(snapshot, tConnectionKind::eLink);
  const auto both = [&](const char* name, const char* type, const char* help, std::uint64_t cTrafficTotals::*field) {
    metric.Family(name, type, help);
    metric.Sample("kind=\"client\"", clients.*field);
    metric.Sample("kind=\"link\"", links.*field);
  };
  both("vantrel_messages_received_total", "counter", "Frames received from local clients and from linked hosts.",
       &cTrafficTotals::messagesIn);
  both("vantrel_bytes_received_total", "counter", "Bytes of frames received.", &cTrafficTotals::bytesIn);
  both("vantrel_messages_sent_total", "counter", "Frames written to local clients and to linked hosts.",
       &cTrafficTotals::messagesOut);
  both("vantrel_bytes_sent_total", "counter", "Bytes of frames written.", &cTrafficTotals::bytesOut);
  both("vantrel_drops_total", "counter", "Messages refused at a full queue or dropped as not owed.",
       &cTrafficTotals::drops);
  both("vantrel_queued_bytes", "gauge", "Bytes of messages waiting to be written.", &cTrafficTotals::queuedBytes);

  metric.Family("vantrel_answers_sent_total", "counter", "Delivery answers written, by answer.");
  metric.Sample("kind=\"client\",answer=\"delivered\"", clients.delivered);
  metric.Sample("kind=\"client\",answer=\"not_delivered\"", clients.notDelivered);
  metric.Sample("kind=\"link\",answer=\"delivered\"", links.delivered);
  metric.Sample("kind=\"link\",answer=\"not_delivered\"", links.notDelivered);
  metric.Family("vantrel_pending_answers", "gauge", "Requests sent on links that wait for the peer's answer.");
  metric.Sample("", links.pendingAnswers);

  std::uint64_t clientCount = 0;
  std::uint64_t linkStates[3] = {0, 0, 0};
  for (const auto& connection : snapshot.connections) {
    if (connection->kind == tConnectionKind::eClient)
      ++clientCount;
    else
      ++linkStates[static_cast<int>(connection->State())];
  }
  metric.Family("vantrel_clients", "gauge", "Local client connections open now.");
  metric.Sample("", clientCount);
  metric.Family("vantrel_clients_connected_total", "counter", "Local client connections accepted.");
  metric.Sample("", snapshot.clientsSeen);
  metric.Family("vantrel_links", "gauge", "Links to other hosts, by state.");
  for (const auto state : {vantrel::stats::tLinkState::eConnecting, vantrel::stats::tLinkState::eConnected,
                           vantrel::stats::tLinkState::eClosed})
    metric.Sample(std::string("state=\"") + vantrel::stats::StateName(state) + "\"",
                  linkStates[static_cast<int>(state)]);
  metric.Family("vantrel_links_opened_total", "counter", "Links made or accepted.");
  metric.Sample("", snapshot.linksSeen);
  metric.Family("vantrel_copies_in_flight", "gauge", "File copies between hosts running now.");
  metric.Sample("", static_cast<std::uint64_t>(snapshot.copies.size()));
  metric.Family("vantrel_copies_total", "counter", "File copies between hosts ended, by result.");
  metric.Sample("result=\"succeeded\"", snapshot.copiesSucceeded);
  metric.Sample("result=\"failed\"", snapshot.copiesFailed);

  // One series per connection, named by its client or peer.
  const auto each = [&](const char* name, const char* type, const char* help, std::uint64_t cTrafficTotals::*field) {
    metric.Family(name, type, help);
    for (const auto& connection : snapshot.connections) {
      const char* kind = KindName(connection->kind);
      metric.Sample(std::string("kind=\"") + kind + "\",id=\"" + std::to_string(connection->id) + "\",name=\"" +
                        Label(connection->Name()) + "\"",
                    cTrafficTotals::Of(connection->counters).*field);
    }
  };
  each("vantrel_connection_messages_received_total", "counter", "Frames received on one connection.",
       &cTrafficTotals::messagesIn);
  each("vantrel_connection_messages_sent_total", "counter", "Frames written on one connection.",
       &cTrafficTotals::messagesOut);
  each("vantrel_connection_bytes_received_total", "counter", "Bytes received on one connection.",
       &cTrafficTotals::bytesIn);
  each("vantrel_connection_bytes_sent_total", "counter", "Bytes written on one connection.", &cTrafficTotals::bytesOut);
  each("vantrel_connection_queued_bytes", "gauge", "Bytes waiting to be written on one connection.",
       &cTrafficTotals::queuedBytes);
  return out.str();
}

}  // namespace vantrel::monitor
