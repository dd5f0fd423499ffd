#include "vantrel/base/env/settings.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

#include "vantrel/base/env/defaultini.inc"
#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/process.h"

#ifndef VANTREL_SYSCONFDIR
#define VANTREL_SYSCONFDIR "/usr/local/etc/vantrel"
#endif

namespace nEnvSettings {
namespace {

constexpr const char* kDefaultFileName = "Vantrel.ini";

// One parsed settings file. Immutable once registered.
struct cTable {
  std::string origin;
  std::unordered_map<std::string, std::string> values;  // lower-case key -> value
};

// Owns every table ever loaded (handle = index + 1) and the set of missing keys
// already reported. Process-wide; guarded by its mutex.
struct cRegistry {
  std::mutex mutex;
  std::deque<std::unique_ptr<const cTable>> tables;
  std::set<std::pair<int, std::string>> reportedMissing;
};

cRegistry& Registry() {
  // Never destroyed: threads that outlive main may still look up settings.
  static cRegistry* registry = new cRegistry();
  return *registry;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

// A line quoted in a log message, cut short so that a binary file cannot flood the log.
std::string Quote(std::string_view line) {
  constexpr std::size_t kMax = 80;
  return line.size() <= kMax ? std::string(line) : std::string(line.substr(0, kMax)) + "...";
}

}  // namespace

std::unordered_map<std::string, std::string> gParseSettings(std::string_view text, const std::string& origin) {
  std::unordered_map<std::string, std::string> values;
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);  // UTF-8 byte order mark

  int lineNo = 0;
  while (!text.empty() || lineNo == 0) {
    ++lineNo;
    const std::size_t end = text.find('\n');
    const std::string_view raw = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);

    const std::string_view line = Trim(raw);
    if (line.empty() || line.front() == ';' || line.front() == '#') continue;
    if (line.front() == '[') {
      if (line.back() != ']')
        VLOG_WARN("nEnvSettings - %s:%d: malformed section line skipped: %s", origin, lineNo, Quote(line));
      continue;
    }
    const std::size_t eq = line.find('=');
    const std::string_view key = eq == std::string_view::npos ? std::string_view() : Trim(line.substr(0, eq));
    if (key.empty()) {
      VLOG_WARN("nEnvSettings - %s:%d: malformed line skipped (expected key = value): %s", origin, lineNo, Quote(line));
      continue;
    }
    const std::string_view value = Trim(line.substr(eq + 1));
    auto [it, inserted] = values.insert_or_assign(Lower(key), std::string(value));
    if (!inserted)
      VLOG_WARN("nEnvSettings - %s:%d: key %s given again; this later value is used", origin, lineNo, std::string(key));
  }
  return values;
}

namespace {

int Register(std::unique_ptr<const cTable> table) {
  cRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.tables.push_back(std::move(table));
  return static_cast<int>(registry.tables.size());
}

const cTable* Find(int handle) {
  cRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  if (handle < 1 || static_cast<std::size_t>(handle) > registry.tables.size()) return nullptr;
  return registry.tables[static_cast<std::size_t>(handle) - 1].get();
}

const std::string* Lookup(int handle, const char* key) {
  if (key == nullptr) return nullptr;
  const cTable* table = Find(handle);
  if (table == nullptr) return nullptr;
  // The table is immutable once registered, so the look-up needs no lock.
  auto it = table->values.find(Lower(key));
  return it == table->values.end() ? nullptr : &it->second;
}

}  // namespace

std::string_view gBuiltInDefaults() {
  return std::string_view(reinterpret_cast<const char*>(kDefaultIniBytes), sizeof kDefaultIniBytes - 1);
}

int gBuiltInDefaultsTable() {
  static const int handle = gLoadTableFromText(gBuiltInDefaults(), "built-in defaults");
  return handle;
}

int gLoadTableFromText(std::string_view text, const std::string& origin) {
  return Register(std::make_unique<const cTable>(cTable{origin, gParseSettings(text, origin)}));
}

bool gLoadTableFromFile(const std::string& path, int& table) {
  std::error_code ec;
  const auto status = std::filesystem::status(path, ec);
  if (ec || !std::filesystem::exists(status)) return false;  // quietly: callers search on
  if (!std::filesystem::is_regular_file(status)) {
    VLOG_ERROR("nEnvSettings::gLoadTableFromFile - %s is not a regular file", path);
    return false;
  }
  const auto size = std::filesystem::file_size(path, ec);
  if (ec || size > kMaxSettingsFileBytes) {
    VLOG_ERROR("nEnvSettings::gLoadTableFromFile - %s: %s", path,
               ec ? ec.message() : fmt::sprintf("longer than %d bytes", kMaxSettingsFileBytes));
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  std::string text;
  if (in) text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (!in && !in.eof()) {
    VLOG_ERROR("nEnvSettings::gLoadTableFromFile - %s cannot be read", path);
    return false;
  }
  if (text.size() > kMaxSettingsFileBytes) {  // grew while we looked
    VLOG_ERROR("nEnvSettings::gLoadTableFromFile - %s: longer than %d bytes", path, kMaxSettingsFileBytes);
    return false;
  }
  table = gLoadTableFromText(text, path);
  return true;
}

std::string gSettingsFileProblem(const std::string& path) {
  std::error_code ec;
  const auto status = std::filesystem::status(path, ec);
  if (!std::filesystem::exists(status)) return ec ? ec.message() : "no such file";
  if (!std::filesystem::is_regular_file(status)) return "not a regular file";
  const auto size = std::filesystem::file_size(path, ec);
  if (ec) return ec.message();
  if (size > kMaxSettingsFileBytes) return fmt::sprintf("longer than %d bytes", kMaxSettingsFileBytes);
  std::ifstream in(path, std::ios::binary);
  if (!in) return "cannot be opened for reading";
  return std::string();
}

std::vector<std::string> gSearchPath(RQEnvContainerClass& env, const char* fileName) {
  const std::string name = fileName != nullptr && *fileName != '\0' ? fileName : kDefaultFileName;
  std::vector<std::string> candidates;
  if (const char* named = env.RQEGetEnv("VANTREL_INI"); named != nullptr && *named != '\0')
    candidates.emplace_back(named);

  std::error_code ec;
  const auto cwd = std::filesystem::current_path(ec);
  candidates.push_back(ec ? name : (cwd / name).string());

  const std::filesystem::path exe = RQPExecutablePath();
  if (exe.has_parent_path()) candidates.push_back((exe.parent_path() / name).string());

  // A relative installed folder belongs to the installation's root, the folder
  // above the program's own.
  std::filesystem::path installed(VANTREL_SYSCONFDIR);
  if (installed.is_relative() && exe.has_parent_path()) installed = exe.parent_path().parent_path() / installed;
  candidates.push_back((installed / name).string());
  return candidates;
}

bool gFileInitTableFrom(const std::vector<std::string>& candidates, int& table) {
  for (const std::string& path : candidates) {
    if (gLoadTableFromFile(path, table)) {
      VLOG_INFO("nEnvSettings::gFileInitTable - settings read from %s", path);
      return true;
    }
  }
  std::string searched;
  for (const std::string& path : candidates) searched += (searched.empty() ? "" : ", ") + path;
  VLOG_WARN("nEnvSettings::gFileInitTable - no settings file found (searched %s); using the built-in defaults",
            searched);
  table = gBuiltInDefaultsTable();
  return false;
}

bool gFileInitTable(RQEnvContainerClass& env, const char* fileName, int& table) {
  const std::vector<std::string> candidates = gSearchPath(env, fileName);
  if (const char* named = env.RQEGetEnv("VANTREL_INI"); named != nullptr && *named != '\0') {
    std::error_code ec;
    if (!std::filesystem::exists(named, ec))
      VLOG_ERROR("nEnvSettings::gFileInitTable - VANTREL_INI names %s, which does not exist", named);
  }
  return gFileInitTableFrom(candidates, table);
}

void gGetPropertyString(std::optional<std::string>& out, int table, const char* key) {
  out.reset();
  if (const std::string* value = Lookup(table, key)) out = *value;
}

bool gHasProperty(int table, const char* key) { return Lookup(table, key) != nullptr; }

std::string gGetPropertyStream(int table, const char* key) {
  if (const std::string* value = Lookup(table, key)) return *value;
  const std::string name = key != nullptr ? key : "(null)";
  bool first;
  {
    cRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    first = registry.reportedMissing.emplace(table, Lower(name)).second;
  }
  if (first) {
    const cTable* t = Find(table);
    if (t == nullptr)
      VLOG_ERROR("nEnvSettings::gGetPropertyStream - unknown settings table %d (key %s)", table, name);
    else
      VLOG_ERROR("nEnvSettings::gGetPropertyStream - required key %s missing in %s", name, t->origin);
  }
  return std::string();
}

}  // namespace nEnvSettings
