#include "programs/vantrel-cli/monitorview.h"

#include <httplib.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/platform/terminal.h"

namespace vantrel::cli {

namespace {
constexpr int kExitOk = 0;
constexpr int kExitNoService = 3;
constexpr int kBarWidth = 30;

// The endpoint's /status document, or nothing with the reason in `error`.
std::optional<nlohmann::json> FetchStatus(const cMonitorTarget& target, std::string& error) {
  if (target.port == 0) {
    error = "the monitoring endpoint is off (MonitorPort = 0)";
    return std::nullopt;
  }
  // An endpoint listening on every address is reached through loopback.
  const std::string host = target.address == "0.0.0.0" ? "127.0.0.1" : target.address;
  httplib::Client client(host, target.port);
  client.set_connection_timeout(2, 0);
  client.set_read_timeout(5, 0);
  const auto response = client.Get("/status");
  if (!response) {
    error = "cannot reach the monitoring endpoint on " + host + " port " + std::to_string(target.port) + " (" +
            httplib::to_string(response.error()) + ")";
    return std::nullopt;
  }
  if (response->status != 200) {
    error = "the monitoring endpoint answered " + std::to_string(response->status);
    return std::nullopt;
  }
  auto document = nlohmann::json::parse(response->body, nullptr, false);
  if (document.is_discarded() || !document.is_object()) {
    error = "the monitoring endpoint's answer is not a status document";
    return std::nullopt;
  }
  return document;
}

std::uint64_t Number(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

std::string Text(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::string Duration(double seconds) {
  if (seconds < 0) seconds = 0;
  const auto whole = static_cast<long long>(seconds + 0.5);
  char text[32];
  if (whole >= 3600)
    std::snprintf(text, sizeof text, "%lldh%02lldm", whole / 3600, whole / 60 % 60);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  return text;
}

// A table printed with every column as wide as its widest cell.
class cTable {
 public:
  explicit cTable(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void Print(const char* title) const {
    std::printf("%s\n", title);
    if (rows_.size() == 1) {
      std::printf("  (none)\n");
      return;
    }
    std::vector<std::size_t> widths(rows_.front().size(), 0);
    for (const auto& row : rows_)
      for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    for (const auto& row : rows_) {
      std::string line = " ";
      for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i) {
        line += ' ';
        line += row[i];
        if (i + 1 < row.size()) line.append(widths[i] - row[i].size(), ' ');
      }
      std::printf("%s\n", line.c_str());
    }
  }

 private:
  std::vector<std::vector<std::string>> rows_;
};

std::vector<std::string> Traffic(const nlohmann::json& entry) {
  return {std::to_string(Number(entry, "messages_in")),
          HumanBytes(static_cast<double>(Number(entry, "bytes_in"))),
          std::to_string(Number(entry, "messages_out")),
          HumanBytes(static_cast<double>(Number(entry, "bytes_out"))),
          std::to_string(Number(entry, "answers_delivered")),
          std::to_string(Number(entry, "answers_not_delivered")),
          std::to_string(Number(entry, "drops")),
          HumanBytes(static_cast<double>(Number(entry, "queued_bytes")))};
}

const std::vector<std::string> kTrafficHeader = {"MSGS IN",   "BYTES IN",   "MSGS OUT", "BYTES OUT",
                                                 "DELIVERED", "NOT DELIV.", "DROPS",    "QUEUED"};

std::vector<std::string> Joined(std::vector<std::string> front, const std::vector<std::string>& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

std::string Percent(std::uint64_t done, std::uint64_t total) {
  if (total == 0) return "-";
  char text[16];
  std::snprintf(text, sizeof text, "%.1f%%", 100.0 * static_cast<double>(std::min(done, total)) / total);
  return text;
}
}  // namespace

std::string HumanBytes(double bytes) {
  static const char* const kUnits[] = {"B", "KB", "MB", "GB", "TB"};
  int unit = 0;
  while (bytes >= 1000 && unit < 4) {
    bytes /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

void cMonitorTarget::Configure(CLI::App& app) {
  app.add_option_function<unsigned short>(
      "--monitor-port",
      [this](const unsigned short& given) {
        port = given;
        portGiven_ = true;
      },
      "the service's monitoring port (default: MonitorPort of the settings)");
}

void cMonitorTarget::Resolve() {
  // The settings print their TLS block on standard output, which is for results.
  const vantrel::platform::cStandardOutputToError redirect;
  const cVantrelIni& settings = cVantrelIni::Instance();
  address = settings.MonitorAddress();
  if (!portGiven_) port = settings.MonitorPort();
}

void cStatusCommand::Register(CLI::App& app) {
  CLI::App* sub = app.add_subcommand("status", "show the local service's clients, links, counters and copies");
  target_.Configure(*sub);
  sub->add_flag("--json", json_, "print the endpoint's JSON document as it is");
  sub->callback([this] { chosen_ = true; });
}

int cStatusCommand::Run() {
  target_.Resolve();
  std::string error;
  const auto status = FetchStatus(target_, error);
  if (!status) {
    std::fprintf(stderr, "vantrel-cli: %s\n", error.c_str());
    return kExitNoService;
  }
  if (json_) {
    std::printf("%s\n", status->dump(2).c_str());
    return kExitOk;
  }
  const nlohmann::json empty = nlohmann::json::object();
  const nlohmann::json& ports = status->contains("ports") ? (*status)["ports"] : empty;
  const double uptime = status->value("uptime_seconds", 0.0);
  std::printf("service %s  version %s  up %s  clients port %llu  net port %llu  TLS %s\n",
              Text(*status, "host").c_str(), Text(*status, "version").c_str(), Duration(uptime).c_str(),
              static_cast<unsigned long long>(Number(ports, "clients")),
              static_cast<unsigned long long>(Number(ports, "net")), status->value("tls", false) ? "on" : "off");

  const nlohmann::json& totals = status->contains("totals") ? (*status)["totals"] : empty;
  cTable sums(Joined({"TOTALS"}, kTrafficHeader));
  for (const char* kind : {"clients", "links"})
    if (totals.contains(kind)) sums.Add(Joined({kind}, Traffic(totals[kind])));
  sums.Print("");
  std::printf("  copies: %llu succeeded, %llu failed\n\n",
              static_cast<unsigned long long>(Number(totals, "copies_succeeded")),
              static_cast<unsigned long long>(Number(totals, "copies_failed")));

  cTable clients(Joined({"NAME", "STATE", "FOR"}, kTrafficHeader));
  for (const auto& client : status->value("clients", nlohmann::json::array()))
    clients.Add(Joined({Text(client, "name"), Text(client, "state"), Duration(client.value("connected_seconds", 0.0))},
                       Traffic(client)));
  clients.Print("CLIENTS");
  std::printf("\n");

  cTable links(Joined({"PEER", "DIRECTION", "TLS", "STATE", "FOR"}, Joined(kTrafficHeader, {"PENDING"})));
  for (const auto& link : status->value("links", nlohmann::json::array()))
    links.Add(Joined({Text(link, "peer"), Text(link, "direction"), link.value("tls", false) ? "yes" : "no",
                      Text(link, "state"), Duration(link.value("connected_seconds", 0.0))},
                     Joined(Traffic(link), {std::to_string(Number(link, "pending_answers"))})));
  links.Print("LINKS");
  std::printf("\n");

  cTable copies({"DIRECTION", "PEER", "REQUESTER", "SOURCE", "DESTINATION", "DONE", "SIZE", "%", "RATE"});
  for (const auto& copy : status->value("copies", nlohmann::json::array())) {
    const std::uint64_t done = Number(copy, "bytes_done");
    const std::uint64_t total = Number(copy, "bytes_total");
    const double seconds = copy.value("elapsed_seconds", 0.0);
    copies.Add({Text(copy, "direction"), Text(copy, "peer"), Text(copy, "requester"), Text(copy, "source"),
                Text(copy, "destination"), HumanBytes(static_cast<double>(done)),
                HumanBytes(static_cast<double>(total)), Percent(done, total),
                seconds > 0 ? HumanBytes(static_cast<double>(done) / seconds) + "/s" : "-"});
  }
  copies.Print("COPIES IN FLIGHT");
  return kExitOk;
}

void cCopyProgressView::Configure(CLI::App& app) {
  target_.Configure(app);
  app.add_flag("--progress", lines_, "print a progress line every second (on a terminal a bar is drawn anyway)");
}

void cCopyProgressView::Begin(const std::string& source, const std::string& host, const std::string& destination,
                              std::optional<std::uint64_t> size) {
  terminal_ = vantrel::platform::StandardErrorIsTerminal();
  target_.Resolve();
  source_ = source;
  host_ = host;
  destination_ = destination;
  size_ = size.value_or(0);
  lastDone_ = 0;
  start_ = std::chrono::steady_clock::now();
}

std::chrono::milliseconds cCopyProgressView::Interval() const {
  return std::chrono::milliseconds(terminal_ ? 250 : 1000);
}

std::optional<std::uint64_t> cCopyProgressView::poll() {
  std::string error;
  const auto status = FetchStatus(target_, error);
  if (!status) return std::nullopt;
  for (const auto& copy : status->value("copies", nlohmann::json::array())) {
    if (Text(copy, "direction") == "send" && Text(copy, "source") == source_ &&
        Text(copy, "destination") == destination_) {
      if (Number(copy, "bytes_total") > 0) size_ = Number(copy, "bytes_total");
      return Number(copy, "bytes_done");
    }
  }
  // Not begun yet, or already ended: as far as the last look saw.
  return lastDone_;
}

bool cCopyProgressView::Update() {
  const auto done = poll();
  const bool moved = done && *done > lastDone_;
  if (moved) lastDone_ = *done;
  // Nobody may watch, but the time-out still needs to know that the copy moves.
  if (terminal_ || lines_)
    show(lastDone_, size_, std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count());
  return moved;
}

void cCopyProgressView::show(std::uint64_t done, std::uint64_t total, double seconds) {
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  const std::string eta =
      rate > 0 && total > done ? Duration(static_cast<double>(total - done) / rate) : std::string("-");
  const std::string amount = HumanBytes(static_cast<double>(done)) + " of " + HumanBytes(static_cast<double>(total));
  const std::string speed = HumanBytes(rate) + "/s";
  if (terminal_) {
    const double fraction = total > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(total)) : 0;
    const int filled = static_cast<int>(fraction * kBarWidth);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(kBarWidth - filled), '.');
    // Cleared to the end of the line: the previous text may have been longer.
    std::fprintf(stderr, "\r[%s] %6s  %s  %s  ETA %s  %s\033[K", bar.c_str(), Percent(done, total).c_str(),
                 amount.c_str(), speed.c_str(), eta.c_str(), Duration(seconds).c_str());
  } else {
    std::fprintf(stderr, "copy %s -> %s:%s: %s (%s), %s, ETA %s, %.1f s\n", source_.c_str(), host_.c_str(),
                 destination_.c_str(), amount.c_str(), Percent(done, total).c_str(), speed.c_str(), eta.c_str(),
                 seconds);
  }
  std::fflush(stderr);
  shown_ = true;
}

void cCopyProgressView::End() {
  if (terminal_ && shown_) std::fputc('\n', stderr);
  std::fflush(stderr);
}

}  // namespace vantrel::cli
