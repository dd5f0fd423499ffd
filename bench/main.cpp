// vantrel-bench: runs the named benchmark scenarios and prints one table.
//
//   vantrel-bench                 every scenario
//   vantrel-bench latency         one scenario
//   vantrel-bench --quick         short cases (a smoke run)
//   vantrel-bench --list          the scenarios
//
// The scenarios start their own `vantrel` services on free loopback ports; by
// default the program built beside this one.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/benchcore.h"
#include "bench/servicerunner.h"
#include "vantrel/base/log/log.h"

namespace {

// The client library reads its settings once, on first use; point it at the
// same settings the services get before any client exists.
std::string UseBenchSettings() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vantrel-bench-client-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) return std::string();
  const std::string file = pattern + "/Vantrel.ini";
  std::ofstream(file) << vantrel::bench::BenchSettingsText();
  ::setenv("VANTREL_INI", file.c_str(), 1);
  return pattern;
}

// The figures depend on what else the machine is doing; say so beside them.
std::string MachineLoad() {
  std::ifstream in("/proc/loadavg");
  double one = 0, five = 0, fifteen = 0;
  if (!(in >> one >> five >> fifteen)) return "load unknown";
  char text[96];
  std::snprintf(text, sizeof text, "load average %.2f %.2f %.2f on %u cpus", one, five, fifteen,
                std::thread::hardware_concurrency());
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vantrel::bench;
  CLI::App app{"vantrel-bench - the bus beside a plain TCP relay"};
  cBenchOptions options;
  options.serviceProgram = VANTREL_PROGRAMS_DIR "/vantrel";
  std::vector<std::string> names;
  bool list = false;
  long caseMs = 0;
  app.add_option("scenarios", names, "scenarios to run (default: all)");
  app.add_flag("--quick", options.quick, "short cases (200 ms each)");
  app.add_option("--case-ms", caseMs, "measuring time of one case in milliseconds (default 1000)")
      ->check(CLI::PositiveNumber);
  app.add_option("--service", options.serviceProgram, "the vantrel program to start")->capture_default_str();
  app.add_option("--service-log-level", options.serviceLogLevel, "log level of the started services")
      ->capture_default_str();
  std::string clientLogLevel = "critical";
  app.add_option("--client-log-level", clientLogLevel, "log level of the benchmark's own clients")
      ->capture_default_str();
  std::vector<std::string> settings;
  app.add_option("--setting", settings, "a 'Key = value' line for every started service (repeatable)");
  app.add_option("--large-copy-mib", options.largeCopyMiB, "size of longlink's large copy (its memory is watched)")
      ->capture_default_str();
  app.add_option("--peers", options.peerCounts, "manyhosts: peer counts to run (default 16 64 256 1000)")
      ->check(CLI::PositiveNumber);
  app.add_option("--crowd-held", options.crowdHeld, "crowd: clients registered at once for the cost per client")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_flag("--list", list, "list the scenarios and exit");
  CLI11_PARSE(app, argc, argv);

  tQXLogMessageSeverity parsedLevel;
  if (!vantrel::log::ParseLevel(clientLogLevel, parsedLevel)) {
    std::fprintf(stderr, "vantrel-bench: unknown log level '%s'\n", clientLogLevel.c_str());
    return 2;
  }
  for (const std::string& line : settings) AddBenchSetting(line);
  options.caseBudget = std::chrono::milliseconds(caseMs > 0 ? caseMs : options.quick ? 200 : 1000);
  const std::vector<cScenarioEntry> scenarios = RegisteredScenarios();
  if (list) {
    for (const cScenarioEntry& entry : scenarios)
      std::printf("%-12s %s\n", entry.name.c_str(), entry.description.c_str());
    return 0;
  }
  for (const std::string& name : names) {
    bool known = false;
    for (const cScenarioEntry& entry : scenarios) known = known || entry.name == name;
    if (!known) {
      std::fprintf(stderr, "vantrel-bench: unknown scenario '%s' (see --list)\n", name.c_str());
      return 2;
    }
  }

  // The table is the only thing on standard output. The library prints its
  // settings banner there, and the services inherit it, so everything else is
  // sent to standard error.
  std::fflush(stdout);
  const int tableFd = ::dup(STDOUT_FILENO);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  FILE* tableOut = tableFd >= 0 ? ::fdopen(tableFd, "w") : stdout;
  // Failed registrations while a service starts are expected; the benchmark
  // reports its own failures.
  vantrel::log::Configure(clientLogLevel, "");

  const std::string settingsFolder = UseBenchSettings();
  cBenchTable table;
  int status = 0;
  const std::string loadBefore = MachineLoad();
  for (const cScenarioEntry& entry : scenarios) {
    if (!names.empty() && std::find(names.begin(), names.end(), entry.name) == names.end()) continue;
    std::fprintf(stderr, "vantrel-bench: running %s\n", entry.name.c_str());
    if (!entry.run(options, table)) {
      std::fprintf(stderr, "vantrel-bench: scenario %s failed\n", entry.name.c_str());
      status = 1;
    }
  }
  std::fputs(table.Render().c_str(), tableOut);
  std::fprintf(tableOut, "case time %lld ms; before: %s; after: %s\n",
               static_cast<long long>(options.caseBudget.count()), loadBefore.c_str(), MachineLoad().c_str());
  std::fflush(tableOut);
  if (!settingsFolder.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(settingsFolder, ignored);
  }
  return status;
}
