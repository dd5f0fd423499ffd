#pragma once
// Settings tables: parsed settings files, looked up by key.
//
// A settings file holds `key = value` lines. Keys match without regard to case;
// keys and values are trimmed of surrounding blanks; a value is everything after
// the first '=' (it may itself contain '=', ';' or '#'). Lines whose first
// non-blank character is ';' or '#' are comments. "[section]" lines are accepted
// and play no part in look-up: every key is found by its name alone. Any other
// line without '=' (or with an empty key) is logged with its line number and
// skipped. When a key appears twice, the later line wins (logged). Quotes are
// not interpreted: they are part of the value.
//
// Tables are identified by an integer handle (always >= 1). Once loaded a table
// never changes and lives until the process ends.
//
// Threads: every function may be called from any thread; the registry of tables
// is guarded by one internal lock, held only for the look-up itself.
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "vantrel/base/env/envcontainer.h"

namespace nEnvSettings {

// Largest settings file read; a longer file is refused with a log line.
inline constexpr std::size_t kMaxSettingsFileBytes = 1024 * 1024;

// Finds `fileName` (null: "Vantrel.ini") and loads it into a new table whose
// handle is stored in `table`. Looked for, in this order: the file named by the
// environment variable VANTREL_INI, the current folder, the folder of the running
// program, the installed configuration folder. A candidate that exists but cannot
// be read is logged and the search goes on. When no file is found the built-in
// defaults are used (one log line per call).
// Returns true when a file was loaded, false when the built-in defaults were
// taken; `table` holds a valid handle in both cases.
bool gFileInitTable(RQEnvContainerClass& env, const char* fileName, int& table);

// Fills `out` with the value of `key` when the table holds it; otherwise leaves
// `out` empty. Nothing is logged for a missing key.
void gGetPropertyString(std::optional<std::string>& out, int table, const char* key);

// The value text of `key`. A missing key (or an unknown table) gives the empty
// text and is logged once per table and key.
std::string gGetPropertyStream(int table, const char* key);

// True when the table holds `key` (whatever its value, the empty text included).
bool gHasProperty(int table, const char* key);

// ---- for the search itself and for tests ----

// The candidate paths gFileInitTable tries, in order.
std::vector<std::string> gSearchPath(RQEnvContainerClass& env, const char* fileName);

// Loads the first candidate that exists and can be read; else the built-in
// defaults (logged). Same result as gFileInitTable.
bool gFileInitTableFrom(const std::vector<std::string>& candidates, int& table);

// Loads one file into a new table. False (and logged) when the file is missing,
// not a regular file, unreadable or too long; `table` is then unchanged.
bool gLoadTableFromFile(const std::string& path, int& table);
// Why the settings file at `path` cannot be read (it is missing, not a regular
// file, unreadable or too long); empty when it can.
std::string gSettingsFileProblem(const std::string& path);

// Parses `text` into a new table; `origin` names it in log lines.
int gLoadTableFromText(std::string_view text, const std::string& origin);

// The parse alone: the keys (lower case) and values that a table of `text`
// would hold. Lines it skips are logged as above; registers nothing.
std::unordered_map<std::string, std::string> gParseSettings(std::string_view text, const std::string& origin);

// The built-in defaults: the text of the default settings file shipped with the
// product, and the table parsed from it (parsed once, on first use).
std::string_view gBuiltInDefaults();
int gBuiltInDefaultsTable();

}  // namespace nEnvSettings
