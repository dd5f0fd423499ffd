// vantrel: the message bus service of one host. Listens for the host's client
// processes on the clients port (loopback) and for other hosts' services on the
// net port, and routes messages between them. Runs in the foreground; SIGINT
// and SIGTERM (Ctrl+C, or the service manager's stop) stop it in order. Where the
// system's service manager starts programs itself (Windows), it also runs as
// that manager's service and registers itself with --install-service.
//
// Exit codes: see kFooter (shown by --help).
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vantrel/base/env/integer.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/descriptors.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/memory.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/base/platform/servicemanager.h"
#include "vantrel/base/platform/stoprequest.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/supervision/Clock.h"
#include "vantrel/supervision/supervisedservice.h"
#include "vantrel/version.h"

namespace {

constexpr unsigned short kDefaultClientsPort = 9010;
constexpr unsigned short kDefaultNetPort = 9011;
// How long a relaunched service waits for its predecessor's ports.
constexpr long kRelaunchWaitMs = 30000;
constexpr long kRelaunchProbeMs = 100;

constexpr const char* kFooter =
    "Relaunch arguments: /w waits for the previous instance's ports, /s reports start-up errors to the log only.\n"
    "\n"
    "Exit codes:\n"
    "  0   stopped by SIGINT or SIGTERM (or the service manager); the service was installed or removed\n"
    "  1   TLS is on but CertificatesPath is empty\n"
    "  2   start-up failed: bad option, unreadable settings or log file, ports in use, host name unresolvable;\n"
    "      the service could not be installed or removed, or was installed (not installed) already\n"
    "  42  an unrecoverable socket failure; a relaunched successor (or systemd) takes over\n"
    "\n"
    "Environment:\n"
    "  VANTREL_CLIENT_PORT  the clients port when --clients-port is not given\n"
    "  VANTREL_INI          the settings file when --config is not given\n"
    "  VANTREL_LOG_LEVEL    the log level when --log-level is not given\n"
    "  VANTREL_LOG_FILE     the log file when --log-file is not given\n"
    "  RQ_BIN               the folder of the program a relaunch starts\n"
    "\n"
    "SIGHUP reopens the log file (for rotation).";

class cVantrelService : public cSupervisedVantrelClass {
 public:
  explicit cVantrelService(bool logOnly) { SetReportToLogOnly(logOnly); }
  void f_Terminate() override { f_TerminateInternal(); }
};

// True once `port` can be bound again.
bool PortFree(unsigned short port, c_Socket::tBindScope scope) {
  try {
    StreamSocket probe(false, "probe");
    probe.CreateListenerSocket(port, scope);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// A relaunched service starts while its predecessor may still be leaving.
void WaitForPorts(unsigned short clientsPort, unsigned short netPort) {
  RQPManualEvent never;
  for (long waited = 0; waited < kRelaunchWaitMs; waited += kRelaunchProbeMs) {
    if (PortFree(netPort, c_Socket::eAllAddresses) && PortFree(clientsPort, c_Socket::eLoopbackOnly)) return;
    never.Wait(kRelaunchProbeMs);
  }
  VLOG_WARN("vantrel - ports %d/%d still busy after %ld ms", clientsPort, netPort, kRelaunchWaitMs);
}

// Each link and each client holds a descriptor; the usual soft limit of 1,024
// would stop a controller of many hosts well before its hard limit does.
void RaiseDescriptorLimit() {
  std::string error;
  const auto before = vantrel::platform::gDescriptorLimit(&error);
  const auto after = vantrel::platform::gRaiseDescriptorLimit(&error);
  if (!before || !after) {
    VLOG_WARN("vantrel - open descriptors limit unknown: %s", error);
    return;
  }
  const auto text = [](std::uint64_t value) {
    return value == vantrel::platform::kNoDescriptorLimit ? std::string("unlimited") : std::to_string(value);
  };
  if (!error.empty()) {
    VLOG_WARN("vantrel - open descriptors limit %s (hard limit %s), not raised: %s", text(after->soft),
              text(after->hard), error);
  } else {
    VLOG_INFO("vantrel - open descriptors limit %s, was %s (hard limit %s)", text(after->soft), text(before->soft),
              text(after->hard));
  }
}

constexpr const char* kDisplayName = "Vantrel message bus service";
constexpr long kUninstallStopWaitMs = 30000;

// `path` (UTF-8) made absolute against the current folder, in UTF-8.
std::string AbsolutePath(const std::string& path) {
  const std::u8string text =
      std::filesystem::absolute(std::filesystem::path(std::u8string(path.begin(), path.end()))).generic_u8string();
  return std::string(text.begin(), text.end());
}

// Registers this program with the service manager, with the options that were
// given (paths made absolute: the service does not start in this folder).
int InstallService(const std::vector<std::pair<std::string, std::string>>& options, bool silent) {
  using vantrel::platform::tServiceChange;
  std::vector<std::string> arguments;
  for (const auto& [name, value] : options) {
    arguments.push_back(name);
    const bool isPath = name == "--config" || name == "--log-file";
    arguments.push_back(isPath ? AbsolutePath(value) : value);
  }
  if (silent) arguments.emplace_back("/s");
  std::string error;
  const char* service = vantrel::platform::gServiceName();
  switch (vantrel::platform::gInstallService(kDisplayName, RQPExecutablePath(), arguments, &error)) {
    case tServiceChange::eDone:
      std::printf("vantrel: installed the service %s (automatic start, restarted on failure)\n", service);
      if (!error.empty()) std::fprintf(stderr, "vantrel: %s\n", error.c_str());
      return 0;
    case tServiceChange::eAlreadyThere:
      std::fprintf(stderr, "vantrel: the service %s is installed already; remove it first with --uninstall-service\n",
                   service);
      return 2;
    default:
      std::fprintf(stderr, "vantrel: cannot install the service %s: %s\n", service, error.c_str());
      return 2;
  }
}

int UninstallService() {
  using vantrel::platform::tServiceChange;
  std::string error;
  const char* service = vantrel::platform::gServiceName();
  switch (vantrel::platform::gUninstallService(kUninstallStopWaitMs, &error)) {
    case tServiceChange::eDone:
      std::printf("vantrel: removed the service %s\n", service);
      return 0;
    case tServiceChange::eNotThere:
      std::fprintf(stderr, "vantrel: the service %s is not installed\n", service);
      return 2;
    default:
      std::fprintf(stderr, "vantrel: cannot remove the service %s: %s\n", service, error.c_str());
      return 2;
  }
}

}  // namespace

int main(int argc, char** argv) {
  cSupervisedVantrelClass::RememberProcessArguments(argc, argv);

  // The relaunch arguments are not options in CLI11's sense; take them out first.
  bool waitForPorts = false;
  bool silent = false;
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "/w" || arg == "/W") {
      waitForPorts = true;
    } else if (arg == "/s" || arg == "/S") {
      silent = true;
    } else {
      args.push_back(arg);
    }
  }

  CLI::App app{"vantrel - the message bus service of this host", "vantrel"};
  unsigned short clientsPort = kDefaultClientsPort;
  unsigned short netPort = kDefaultNetPort;
  std::string config;
  std::string logLevel;
  std::string logFile;
  auto* clientsPortOption =
      app.add_option("--clients-port", clientsPort, "port of the local clients (default 9010 or VANTREL_CLIENT_PORT)");
  app.add_option("--net-port", netPort, "port of the other hosts' services (default 9011)");
  app.add_option("--config", config, "the settings file (instead of the usual search for Vantrel.ini)");
  app.add_option("--log-level", logLevel, "trace, debug, info, warning, error, critical or off (default info)");
  app.add_option("--log-file", logFile, "write the log to this file instead of standard error");
  bool installService = false;
  bool uninstallService = false;
  auto* installOption = app.add_flag("--install-service", installService,
                                     "register this program, with the options given, as the system's service "
                                     "(automatic start, restarted on failure) and exit");
  app.add_flag("--uninstall-service", uninstallService, "stop and remove the registered service and exit")
      ->excludes(installOption);
  app.set_version_flag("--version", std::string("vantrel ") + VANTREL_VERSION_STRING);
  app.footer(kFooter);
  std::reverse(args.begin(), args.end());
  try {
    app.parse(args);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }

  if (uninstallService) {
    std::size_t others = 0;
    for (const auto* option : app.get_options()) others += option->count();
    if (others > 1 || waitForPorts || silent) {
      std::fprintf(stderr, "vantrel: --uninstall-service takes no other option\n");
      return 2;
    }
    return UninstallService();
  }
  if (installService) {
    std::vector<std::pair<std::string, std::string>> given;
    for (const auto* option : app.get_options()) {
      if (option->count() == 0 || option->get_expected_min() == 0) continue;
      given.emplace_back(option->get_name(), option->as<std::string>());
    }
    return InstallService(given, silent);
  }

  if (logLevel.empty()) {
    const char* env = std::getenv("VANTREL_LOG_LEVEL");
    logLevel = env != nullptr && *env != '\0' ? env : "info";
  }
  if (logFile.empty()) {
    const char* env = std::getenv("VANTREL_LOG_FILE");
    if (env != nullptr) logFile = env;
  }
  tQXLogMessageSeverity parsed;
  if (!vantrel::log::ParseLevel(logLevel, parsed)) {
    std::fprintf(stderr, "vantrel: unknown log level '%s'\n", logLevel.c_str());
    return 2;
  }
  // Every line is written through, so that a watched log file shows the
  // service's progress as it happens.
  vantrel::log::SetFlushEveryLine(true);
  std::string problem;
  if (!vantrel::log::Configure(logLevel, logFile, &problem)) {
    // A service that runs on without the log it was told to write is blind.
    std::fprintf(stderr, "vantrel: cannot open the log file %s: %s\n", logFile.c_str(), problem.c_str());
    return 2;
  }
  if (clientsPortOption->count() == 0) {
    // Clients read the same variable the same way, so a bad value is refused
    // here too rather than quietly listening where no client will look.
    std::string error;
    const auto fromEnv = vantrel::env::ClientPortFromEnvironment(kDefaultClientsPort, &error);
    if (!fromEnv) {
      VLOG_ERROR("vantrel - %s", error);
      std::fprintf(stderr, "vantrel: %s\n", error.c_str());
      return 2;
    }
    clientsPort = *fromEnv;
  }
  // Must be set before the settings are read for the first time.
  if (!config.empty()) RQPSetEnvironment("VANTREL_INI", config);
  // A settings file named on purpose that cannot be read stops the start: the
  // built-in defaults are not what was asked for.
  if (const char* named = std::getenv("VANTREL_INI"); named != nullptr && *named != '\0') {
    problem = nEnvSettings::gSettingsFileProblem(named);
    if (!problem.empty()) {
      VLOG_ERROR("vantrel - settings file %s: %s", named, problem);
      std::fprintf(stderr, "vantrel: settings file %s: %s\n", named, problem.c_str());
      return 2;
    }
  }

  // Stop requests are taken by this thread once the service runs, never by a
  // handler; blocked here, before any thread starts, so every thread inherits it.
  vantrel::platform::BlockStopRequests();

  RaiseDescriptorLimit();
  // Copies pass their chunks from the link's reader to the file's writer; a
  // heap that gave every freed chunk back would fault fresh pages in for each
  // one, which halves a copy's rate once more than a few chunks are in flight.
  // Memory kept this way is returned when connections leave.
  if (!vantrel::platform::gKeepFreedMemory(std::size_t{64} << 20))
    VLOG_DEBUG("vantrel - the heap keeps its own policy for freed memory");
  nClock::gActivateProcess();
  if (waitForPorts) WaitForPorts(clientsPort, netPort);

  // The service's whole life, on the main thread or, under the service
  // manager, on the thread the manager gives it.
  const auto run = [&]() {
    int status = 0;
    // Nobody sees a message box of a service.
    cVantrelService service(silent || vantrel::platform::gRunsAsService());
    service.SetClientsPortZ5181(clientsPort);
    service.SetNetPortZ5181(netPort);
    if (!service.vInitZ1()) {
      VLOG_ERROR("vantrel - start-up failed (clients port %d, net port %d)", clientsPort, netPort);
      service.f_TerminateZ2();
      status = 2;
    } else {
      VLOG_INFO("vantrel ready: clients port %d, net port %d, host %s", service.GetClientsPortZ5181(),
                service.GetNetPortZ5181(), service.GetAddressHostText());
      vantrel::log::Flush();
      int signal = vantrel::platform::WaitForStopRequest();
      for (; signal == vantrel::platform::kReopenRequest; signal = vantrel::platform::WaitForStopRequest()) {
        // Log rotation: the old file has been moved away; write a new one.
        if (vantrel::log::Reopen(&problem))
          VLOG_INFO("vantrel - log file reopened");
        else
          VLOG_ERROR("vantrel - cannot reopen the log file %s: %s; logging on to the old one", logFile, problem);
      }
      VLOG_INFO("vantrel - signal %d, stopping", signal);
      service.f_TerminateZ2();
      VLOG_INFO("vantrel - stopped");
    }
    vantrel::log::Flush();
    return status;
  };
  const std::optional<int> asService = vantrel::platform::gRunAsService(run);
  const int status = asService ? *asService : run();
  vantrel::log::Flush();
  return status;
}
