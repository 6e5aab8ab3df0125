// Runs the cases: starts the server, measures every side of a case in turn, round after round, and
// reports the medians. Every measurement is a process of its own.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <CLI/CLI.hpp>
#include <json/reader.h>
#include <json/value.h>

#include "bench/cases.h"
#include "bench/guarded.h"
#include "bench/process.h"
#include "bench/report.h"
#include "bench/workload.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

struct Options {
  int rounds = 7;
  bool quick = false;
  bool sweep = false;
  std::string only;
  std::string json;
  std::string record;
};

class Bench {
 public:
  explicit Bench(const Options& options)
      : options_(options),
        folder_(fs::canonical("/proc/self/exe").parent_path()),
        server_({folder_ / "bench_server"}),
        origin_(server_.ReadLine()) {}

  int Run() {
    WarnWhenBusy();
    const std::string machine = Machine();
    if (options_.sweep) return Sweep();
    std::vector<Outcome> outcomes;
    for (const Case& test : Cases(options_.quick)) {
      if (test.name.find(options_.only) != std::string::npos) outcomes.push_back(Run(test));
    }
    if (outcomes.empty())
      throw std::runtime_error("no case has \"" + options_.only + "\" in its name");
    const Report report = MakeReport(outcomes);
    std::printf("%s; median of %d rounds%s\n\n%s", machine.c_str(), options_.rounds,
                options_.quick ? "; a smoke run, whose figures mean little" : "",
                ToText(report).c_str());
    const fs::path json =
        options_.json.empty() ? folder_ / "results.json" : fs::path(options_.json);
    std::ofstream file(json);
    file << ToJson(report, machine, options_.rounds);
    if (!file.flush()) throw std::runtime_error("cannot write " + json.string());
    if (!options_.record.empty()) Record(report, machine, options_.rounds, options_.record);
    return 0;
  }

 private:
  static void WarnWhenBusy() {
    double load = 0;
    if (getloadavg(&load, 1) == 1 && load > 1) {
      std::fprintf(stderr, "bench: the machine is busy (load %.1f): wall times mean little\n",
                   load);
    }
  }

  Outcome Run(const Case& test) {
    std::fprintf(stderr, "%s\n", test.title.c_str());
    std::vector<const Side*> sides = {&SideOf("module"), &SideOf("bare")};
    for (const char* name : test.others) sides.push_back(&SideOf(name));
    Outcome outcome{test, {}};
    const int rounds = options_.rounds * test.repeats;
    for (int round = 0; round < rounds; ++round) {
      for (const Side* side : sides) outcome.samples[side->name].push_back(Take(test, *side));
      // Each of a pair goes first every other time.
      std::reverse(sides.begin(), sides.end());
    }
    return outcome;
  }

  Sample Take(const Case& test, const Side& side) {
    if (std::string(side.program) == "curl") return TakeCommand(test);
    std::vector<std::string> arguments = {folder_ / side.program, test.kind, origin_};
    arguments.insert(arguments.end(), test.parameters.begin(), test.parameters.end());
    arguments.insert(arguments.end(), side.parameters.begin(), side.parameters.end());
    double process_cpu = 0;
    std::istringstream output(Process(arguments).Finish(process_cpu));
    Json::Value values;
    output >> values;
    if (values["amount"].asInt64() != test.amount) {
      throw std::runtime_error(arguments[0] + ": " + test.title + " is not complete");
    }
    const auto over_idle = [&](const char* name) {
      return static_cast<long>(values[name].asInt64() - values["idle_kib"].asInt64());
    };
    const double work_cpu = values["user"].asDouble() + values["sys"].asDouble();
    Sample sample{values["wall"].asDouble(),
                  work_cpu,
                  work_cpu,
                  over_idle("peak_kib"),
                  over_idle("after_kib"),
                  over_idle("trimmed_kib")};
    // The bare client has loaded its libraries before it could measure anything.
    if (test.kind == "start") sample.cpu = process_cpu;
    return sample;
  }

  // The command as a whole, its start included.
  Sample TakeCommand(const Case& test) {
    const auto begin = std::chrono::steady_clock::now();
    Sample sample;
    std::istringstream output(Process(Command(test)).Finish(sample.cpu));
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    sample.wall = wall.count();
    std::int64_t amount = 0;
    for (std::int64_t part = 0; output >> part;) amount += part;
    if (amount != test.amount) throw std::runtime_error("curl: " + test.title + " is not complete");
    return sample;
  }

  std::vector<std::string> Command(const Case& test) {
    std::vector<std::string> arguments = {"curl"};
    const auto next = [&](const std::vector<std::string>& more) {
      if (arguments.size() > 1) arguments.emplace_back("--next");
      arguments.insert(arguments.end(), {"-fsS", "-H", "Authorization: Bearer bench-token"});
      arguments.insert(arguments.end(), more.begin(), more.end());
    };
    const std::string items = origin_ + "/personal/demo_contoso_example/_api/v2.0/drive/items/";
    if (test.kind == "upload") {
      const std::int64_t bytes = 99 << 20;
      const std::string file = UploadedFile(bytes);
      for (std::int64_t sent = 0; sent < test.amount; sent += bytes) {
        next({"-T", file, "-o", "/dev/null", "-w", "%{size_upload}\n",
              items + "folder:/bench.bin:/content"});
      }
      return arguments;
    }
    const std::int64_t range = test.name == "ranges" ? 4 << 20 : test.amount;
    for (std::int64_t at = 0; at < test.amount; at += range) {
      next({"-r", std::to_string(at) + "-" + std::to_string(at + range - 1), "-o", "/dev/null",
            "-w", "%{size_download}\n", items + "item/content"});
    }
    return arguments;
  }

  // Without blocks of its own: reading it costs a copy and no disk.
  std::string UploadedFile(std::int64_t bytes) {
    const fs::path file = folder_ / "bench_upload.bin";
    std::ofstream(file).flush();
    fs::resize_file(file, static_cast<std::uintmax_t>(bytes));
    return file;
  }

  // What sizes of libcurl's buffers give, for the bare client.
  int Sweep() {
    for (const bool upload : {false, true}) {
      for (const Case& test : Cases(options_.quick)) {
        if (test.name != (upload ? "session" : "download")) continue;
        for (const Side& side : SweepSides(upload)) {
          std::vector<Sample> samples;
          samples.reserve(static_cast<std::size_t>(options_.rounds));
          for (int round = 0; round < options_.rounds; ++round) {
            samples.push_back(Take(test, side));
          }
          std::sort(samples.begin(), samples.end(),
                    [](const Sample& a, const Sample& b) { return a.cpu < b.cpu; });
          const Sample& middle = samples[samples.size() / 2];
          std::printf("%s, %s: wall %.3f s, CPU %.3f s\n", test.title.c_str(),
                      side.parameters[0].c_str(), middle.wall, middle.cpu);
        }
      }
    }
    return 0;
  }

  const Options options_;
  const fs::path folder_;
  Process server_;
  const std::string origin_;
};

int Main(int count, char** arguments) {
  Options options;
  CLI::App app("Measures the module beside bare libcurl");
  app.add_option("--rounds", options.rounds, "Measurements of each side")
      ->check(CLI::Range(1, 1000));
  auto* quick = app.add_flag("--quick", options.quick, "Small and few: does it work?");
  auto* sweep = app.add_flag("--sweep", options.sweep,
                             "Bare transfers under buffers of all sizes, nothing else");
  auto* only = app.add_option("--only", options.only, "Cases with this in their name");
  app.add_option("--json", options.json, "File for the figures (default: results.json here)");
  app.add_option("--record", options.record, "Document whose figures are replaced")
      ->excludes(quick, sweep, only);
  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  if (options.quick && app.count("--rounds") == 0) options.rounds = 1;
  return Bench(options).Run();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::Guarded("bench", [&] { return bench::Main(argc, argv); });
}
