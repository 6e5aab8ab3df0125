#include "bench/report.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <json/value.h>
#include <json/writer.h>
#include <sys/utsname.h>

#include "bench/canned_answers.h"
#include "bench/charts.h"

namespace bench {
namespace {

constexpr long kMostTransferMemory = 4096;  // KiB
constexpr double kMostPageMemory = 10;      // times the page
constexpr double kMostStartCpu = 10;        // ms
constexpr double kLeastScaling = 0.95;

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
  std::array<char, 256> text{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.data();
}

template <typename Get>
auto Median(std::size_t count, const Get& get) {
  std::vector<decltype(get(std::size_t{}))> values;
  for (std::size_t index = 0; index < count; ++index) values.push_back(get(index));
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

Sample MedianOf(const std::vector<Sample>& samples) {
  const auto of = [&](auto Sample::*member) {
    return Median(samples.size(), [&](std::size_t round) { return samples[round].*member; });
  };
  return {of(&Sample::wall),          of(&Sample::cpu),      of(&Sample::work_cpu),
          of(&Sample::over_idle_kib), of(&Sample::kept_kib), of(&Sample::trimmed_kib)};
}

Row RowOf(const Outcome& outcome, const Side& side) {
  const std::vector<Sample>& ours = outcome.samples.at("module");
  const std::vector<Sample>& theirs = outcome.samples.at(side.name);
  const auto ratio = [&](const std::vector<Sample>& top, const std::vector<Sample>& bottom,
                         double Sample::*member) {
    return Median(ours.size(), [&](std::size_t round) {
      return top[round].*member / std::max(bottom[round].*member, 1e-6);
    });
  };
  return {&outcome,
          &side,
          MedianOf(ours),
          MedianOf(theirs),
          ratio(theirs, ours, &Sample::wall),
          ratio(ours, theirs, &Sample::cpu)};
}

double MicrosecondsPer(const Case& test, double seconds) {
  return seconds * 1e6 / static_cast<double>(test.amount);
}

std::string MiB(long kib) {
  return Format("%.1f MiB", static_cast<double>(std::max(kib, 0L)) / 1024);
}

void AddTransferMemory(const Row& row, std::vector<Verdict>& verdicts) {
  verdicts.push_back({row.outcome->test.title + ": memory over idle", MiB(row.module.over_idle_kib),
                      "<= 4 MiB", row.module.over_idle_kib <= kMostTransferMemory});
}

void AddPageMemory(const Row& row, std::vector<Verdict>& verdicts) {
  const Case& test = row.outcome->test;
  const auto page = static_cast<double>(PageItems("http://127.0.0.1:40000", test.amount).size());
  const double times = static_cast<double>(row.module.over_idle_kib) * 1024 / page;
  verdicts.push_back({test.title + ": memory over idle",
                      Format("%.1f x its %.1f MiB", times, page / (1 << 20)), "<= 10 x its body",
                      times <= kMostPageMemory});
  verdicts.push_back({test.title + ": memory kept afterwards",
                      MiB(row.module.kept_kib) + ", bare " + MiB(row.other.kept_kib) +
                          "; with free pages returned " + MiB(row.module.trimmed_kib),
                      "<= 1 MiB", row.module.kept_kib <= 1024});
}

// The verdicts that one case gives, from the row beside the bare client.
void Judge(const Row& row, std::vector<Verdict>& verdicts) {
  const Case& test = row.outcome->test;
  if (test.least_speed > 0) {
    verdicts.push_back({test.title + ": speed", Format("%.3f", row.speed),
                        Format(">= %.2f", test.least_speed), row.speed >= test.least_speed});
  }
  if (test.most_cpu > 0) {
    verdicts.push_back({test.title + ": client CPU", Format("%.3f", row.cpu),
                        Format("<= %.2f", test.most_cpu), row.cpu <= test.most_cpu});
  }
  if (test.most_added_us > 0) {
    const double added = MicrosecondsPer(test, row.module.cpu - row.other.cpu);
    verdicts.push_back({test.title + ": added CPU per call", Format("%.1f us", added),
                        Format("<= %.0f us", test.most_added_us), added <= test.most_added_us});
  }
  if (test.kind == "start") {
    const double ms = row.module.work_cpu * 1e3;
    verdicts.push_back({test.title + ": CPU from dlopen on", Format("%.1f ms", ms), "<= 10 ms",
                        ms <= kMostStartCpu});
  }
  if (test.name == "download" || test.name == "session") AddTransferMemory(row, verdicts);
  if (test.name == "list-page") AddPageMemory(row, verdicts);
}

const Row* Find(const std::vector<Row>& rows, const std::string& test,
                const std::string& side = "bare") {
  for (const Row& row : rows) {
    if (row.outcome->test.name == test && row.side == &SideOf(side)) return &row;
  }
  return nullptr;
}

// Entries of a long listing cost what those of a short one do.
void JudgeGrowth(const std::vector<Row>& rows, std::vector<Verdict>& verdicts) {
  const Row* few = Find(rows, "list-short");
  const Row* many = Find(rows, "list-long");
  if (few == nullptr || many == nullptr) return;
  const double of_few = MicrosecondsPer(few->outcome->test, few->module.cpu);
  const double of_many = MicrosecondsPer(many->outcome->test, many->module.cpu);
  verdicts.push_back({"CPU per entry, of 10,000 and of 100,000",
                      Format("%.2f us, %.2f us", of_few, of_many), "within 10 %",
                      of_many <= of_few * 1.1});
}

// More threads must gain the module what they gain the bare client.
void JudgeScaling(const std::vector<Row>& rows, std::vector<Verdict>& verdicts) {
  for (const std::string kind : {"lookup-threads-", "delayed-threads-", "read-threads-"}) {
    for (const std::string threads : {"4", "16"}) {
      for (const std::string side : {"bare", "shared"}) {
        const Row* one = Find(rows, kind + "1", side);
        const Row* more = Find(rows, kind + threads, side);
        if (one == nullptr || more == nullptr) continue;
        const double scaling = more->speed / one->speed;
        verdicts.push_back({more->outcome->test.title + ": gain over 1, of that of " +
                                (side == "bare" ? "bare handles" : "shared handles"),
                            Format("%.3f", scaling), Format(">= %.2f", kLeastScaling),
                            scaling >= kLeastScaling});
      }
    }
  }
}

std::string Time(double seconds) {
  return seconds < 0.1 ? Format("%.1f ms", seconds * 1e3) : Format("%.3f s", seconds);
}

std::string Rate(const Case& test, double wall) {
  const double amount = static_cast<double>(test.amount);
  if (test.kind == "download" || test.kind == "upload") {
    return Format("%.2f GiB/s", amount / wall / (1 << 30));
  }
  if (test.kind == "start") return "-";
  return Format("%.0f/s", amount / wall);
}

using Lines = std::vector<std::vector<std::string>>;

std::string Table(const Lines& lines) {
  std::vector<std::size_t> widths(lines[0].size());
  for (const auto& line : lines) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      widths[column] = std::max(widths[column], line[column].size());
    }
  }
  std::string text;
  for (std::size_t number = 0; number < lines.size(); ++number) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      const std::string& cell = lines[number][column];
      text += "| " + cell + std::string(widths[column] - cell.size() + 1, ' ');
    }
    text += "|\n";
    if (number > 0) continue;
    for (const std::size_t width : widths) text += "|" + std::string(width + 2, '-');
    text += "|\n";
  }
  return text;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::vector<Chart> Charts(const Report& report) {
  Chart speed{"speed", "Speed of the module, libcurl with the best buffers = 1", {}};
  Chart cpu{"cpu", "CPU time of the module, libcurl with the best buffers = 1", {}};
  Chart transfers{"transfers", "Download of 1 GiB, GiB/s", {}};
  for (const Row& row : report.rows) {
    const Case& test = row.outcome->test;
    const bool bare = std::string(row.side->name) == "bare";
    if (bare && test.kind != "start") {
      speed.bars.push_back({test.title, row.speed, test.least_speed});
      if (test.title.find("thread") == std::string::npos) {
        cpu.bars.push_back({test.title, row.cpu, test.most_cpu});
      }
    }
    if (test.name != "download") continue;
    const auto gib = static_cast<double>(test.amount) / (1 << 30);
    if (bare) transfers.bars.push_back({"module", gib / row.module.wall, 0});
    transfers.bars.push_back({row.side->title, gib / row.other.wall, 0});
  }
  return {speed, cpu, transfers};
}

std::string Today() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  return Format("%04d-%02d-%02d", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday);
}

}  // namespace

Report MakeReport(const std::vector<Outcome>& outcomes) {
  Report report;
  for (const Outcome& outcome : outcomes) {
    for (const Side& side : Sides()) {
      const bool compared = outcome.samples.contains(side.name);
      if (compared && &side != &SideOf("module")) report.rows.push_back(RowOf(outcome, side));
    }
  }
  for (const Row& row : report.rows) {
    if (std::string(row.side->name) == "bare") Judge(row, report.verdicts);
  }
  JudgeScaling(report.rows, report.verdicts);
  JudgeGrowth(report.rows, report.verdicts);
  return report;
}

std::string ToText(const Report& report) {
  Lines lines = {{"Case", "Module beside", "Wall", "Its wall", "Rate", "Its rate", "Speed ratio",
                  "CPU", "Its CPU", "CPU ratio", "Memory", "Its memory"}};
  for (const Row& row : report.rows) {
    const Case& test = row.outcome->test;
    const bool command = std::string(row.side->program) == "curl";
    lines.push_back({test.title, row.side->title, Time(row.module.wall), Time(row.other.wall),
                     Rate(test, row.module.wall), Rate(test, row.other.wall),
                     Format("%.3f", row.speed), Time(row.module.cpu), Time(row.other.cpu),
                     Format("%.3f", row.cpu), MiB(row.module.over_idle_kib),
                     command ? "-" : MiB(row.other.over_idle_kib)});
  }
  Lines verdicts = {{"Target", "Measured", "Wanted", ""}};
  for (const Verdict& verdict : report.verdicts) {
    verdicts.push_back(
        {verdict.what, verdict.measured, verdict.target, verdict.met ? "met" : "missed"});
  }
  return Table(lines) + "\n" + Table(verdicts);
}

std::string ToJson(const Report& report, const std::string& machine, int rounds) {
  Json::Value document;
  document["machine"] = machine;
  document["date"] = Today();
  document["rounds"] = rounds;
  const auto values = [](const Sample& sample) {
    Json::Value value;
    value["wall_s"] = sample.wall;
    value["cpu_s"] = sample.cpu;
    value["peak_over_idle_kib"] = Json::Int64{sample.over_idle_kib};
    value["kept_kib"] = Json::Int64{sample.kept_kib};
    value["kept_after_trim_kib"] = Json::Int64{sample.trimmed_kib};
    return value;
  };
  for (const Row& row : report.rows) {
    Json::Value value;
    value["case"] = row.outcome->test.name;
    value["amount"] = Json::Int64{row.outcome->test.amount};
    value["baseline"] = row.side->name;
    value["module"] = values(row.module);
    value["other"] = values(row.other);
    value["speed_ratio"] = row.speed;
    value["cpu_ratio"] = row.cpu;
    document["rows"].append(value);
  }
  for (const Verdict& verdict : report.verdicts) {
    Json::Value value;
    value["what"] = verdict.what;
    value["measured"] = verdict.measured;
    value["target"] = verdict.target;
    value["met"] = verdict.met;
    document["targets"].append(value);
  }
  return document.toStyledString();
}

std::string Machine() {
  std::ifstream processors("/proc/cpuinfo");
  std::string model = "unknown processor";
  for (std::string line; std::getline(processors, line);) {
    if (line.starts_with("model name")) model = line.substr(line.find(": ") + 2);
  }
  utsname kernel{};
  uname(&kernel);
  const std::string release = kernel.release;
  double load = 0;
  getloadavg(&load, 1);
  return model + ", " + std::to_string(std::thread::hardware_concurrency()) +
         " processors, Linux " + release.substr(0, release.find('-')) +
         Format(", load %.1f at the start", load);
}

void Record(const Report& report, const std::string& machine, int rounds,
            const std::string& document) {
  const std::filesystem::path path(document);
  const std::filesystem::path folder = path.parent_path() / path.stem();
  std::filesystem::create_directories(folder);
  std::string section = "\n" + Today() + ", " + machine + ", median of " + std::to_string(rounds) +
                        " rounds, `scripts/bench --record`.\n\n" + ToText(report);
  for (const Chart& chart : Charts(report)) {
    const std::string file = std::string(chart.name) + ".svg";
    WriteFile(folder / file, ToSvg(chart));
    section += "\n![" + chart.title + "](" + folder.filename().string() + "/" + file + ")\n";
  }
  const std::string begin = "<!-- figures begin -->\n";
  std::string text = ReadFile(path);
  const std::size_t from = text.find(begin);
  const std::size_t to = text.find("<!-- figures end -->");
  if (from == std::string::npos || to == std::string::npos || to < from) {
    throw std::runtime_error(document + " has no marks for the figures");
  }
  const std::size_t after = from + begin.size();
  WriteFile(path, text.replace(after, to - after, section + "\n"));
}

}  // namespace bench
