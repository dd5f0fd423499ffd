#include "bench/benchcore.h"

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <vector>

namespace vantrel::bench {

namespace {

// Function-local so that registrations from other translation units, which run
// during static initialisation in no fixed order, always find it constructed.
std::vector<cScenarioEntry>& Registry() {
  static std::vector<cScenarioEntry> registry;
  return registry;
}

std::string Figure(double value) {
  char text[32];
  if (value >= 100000)
    std::snprintf(text, sizeof text, "%.0f", value);
  else if (value >= 100)
    std::snprintf(text, sizeof text, "%.1f", value);
  else
    std::snprintf(text, sizeof text, "%.2f", value);
  return text;
}

std::string Ratio(double value, const std::optional<double>& other, bool higherIsBetter) {
  if (!other.has_value() || *other <= 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.2fx%s", value / *other, higherIsBetter ? " (higher=better)" : "");
  return text;
}

}  // namespace

bool RegisterScenario(std::string name, std::string description, tScenario run) {
  Registry().push_back({std::move(name), std::move(description), std::move(run)});
  return true;
}

std::vector<cScenarioEntry> RegisteredScenarios() {
  std::vector<cScenarioEntry> entries = Registry();
  std::sort(entries.begin(), entries.end(),
            [](const cScenarioEntry& a, const cScenarioEntry& b) { return a.name < b.name; });
  return entries;
}

cBenchFolder::cBenchFolder(const std::string& what) {
  std::string pattern = (std::filesystem::temp_directory_path() / ("vantrel-bench-" + what + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

cBenchFolder::~cBenchFolder() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

bool WriteSource(const std::string& path, std::size_t mebibytes) {
  std::ofstream out(path, std::ios::binary);
  std::vector<char> block(1 << 20);
  unsigned x = 4711;
  for (auto& b : block) b = static_cast<char>((x = x * 1103515245u + 12345u) >> 16);
  for (std::size_t i = 0; i < mebibytes; ++i) {
    block[0] = static_cast<char>(i);
    block[block.size() / 2] = static_cast<char>(i >> 8);
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  return static_cast<bool>(out);
}

double Percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  p = std::clamp(p, 0.0, 100.0);
  // Nearest rank: the smallest sample such that at least p% are at or below it.
  std::size_t rank = static_cast<std::size_t>(std::ceil(p / 100.0 * static_cast<double>(samples.size())));
  if (rank == 0) rank = 1;
  auto nth = samples.begin() + static_cast<std::ptrdiff_t>(rank - 1);
  std::nth_element(samples.begin(), nth, samples.end());
  return *nth;
}

std::string SizeText(std::size_t bytes) {
  if (bytes >= (1u << 20) && bytes % (1u << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " B";
}

std::string cBenchTable::Render() const {
  const std::vector<std::string> header = {"scenario", "measure",       "size",   "unit",           "vantrel",
                                           "floor",    "vantrel/floor", "zeromq", "vantrel/zeromq", "note"};
  std::vector<std::vector<std::string>> cells;
  cells.push_back(header);
  for (const cBenchRow& row : rows_) {
    cells.push_back({row.scenario, row.what, row.size, row.unit, Figure(row.value),
                     row.floor ? Figure(*row.floor) : "-", Ratio(row.value, row.floor, row.higherIsBetter),
                     row.zeromq ? Figure(*row.zeromq) : "-", Ratio(row.value, row.zeromq, row.higherIsBetter),
                     row.note});
  }
  std::vector<std::size_t> widths(header.size(), 0);
  for (const auto& line : cells)
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());

  std::string text;
  for (std::size_t n = 0; n < cells.size(); ++n) {
    for (std::size_t i = 0; i < cells[n].size(); ++i) {
      const std::string& cell = cells[n][i];
      // Figures are right-aligned, words left-aligned.
      const bool numeric = i >= 4 && i <= 8;
      const std::string pad(widths[i] - cell.size(), ' ');
      text += numeric ? pad + cell : cell + pad;
      if (i + 1 < cells[n].size()) text += "  ";
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    text += '\n';
    if (n == 0) {
      std::size_t total = 0;
      for (std::size_t w : widths) total += w + 2;
      text += std::string(total - 2, '-') + '\n';
    }
  }
  return text;
}

}  // namespace vantrel::bench
