// The program: serves on loopback until it is told to stop.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>
#include <json/value.h>

#include "base/files.h"
#include "base/json_text.h"
#include "emulator/service.h"

namespace {

constexpr int kExitCannotServe = 1;
constexpr int kExitUsage = 2;

constexpr const char* kFooter =
    "The service listens on loopback only, and makes a certificate authority of its own, the key\n"
    "of which is never stored. Without --data everything is forgotten at the end. With --data an\n"
    "existing drive is used as it is; a new one is filled with demo files, unless --no-seed. The\n"
    "folder also keeps the refresh tokens and the certificates, readable to you alone: clients of\n"
    "the last run can go on, if --port is the same.\n"
    "\n"
    "Exit codes: 0 stopped by SIGINT or SIGTERM; 1 cannot serve (port taken, folder or file not\n"
    "writable, damaged drive); 2 wrong usage.";

struct Arguments {
  Arguments() { service.discovery = false; }

  emulator::ServiceOptions service;
  bool plain_http = false;
  long long token_lifetime = 3600;
  long long latency_ms = 0;
  std::filesystem::path ca_file;
  std::filesystem::path ready_file;
  bool verbose = false;
};

void Declare(CLI::App& app, Arguments& arguments) {
  app.footer(kFooter);
  app.set_version_flag("--version", "onedrive4b-emulator " ONEDRIVE4B_VERSION);
  app.add_option("--host-name", arguments.service.host_name,
                 "Name in all addresses; it has to resolve to loopback")
      ->capture_default_str();
  app.add_option("--port", arguments.service.port, "Port of the service; 0: any free one")
      ->capture_default_str();
  app.add_flag("--http", arguments.plain_http, "Plain HTTP instead of TLS");
  app.add_option(
      "--data", arguments.service.data_directory,
      "Folder that keeps drives, refresh tokens and certificates; without it they live in "
      "memory");
  app.add_flag("--seed,!--no-seed", arguments.service.seed,
               "Fill new drives with demo files (default)");
  app.add_option("--ca-file", arguments.ca_file,
                 "Write the certificate authority's certificate there (removed at the end)");
  app.add_option("--ready-file", arguments.ready_file,
                 "Once serving, write the addresses and a refresh token there as JSON, readable "
                 "to you alone (removed at the end)");
  app.add_option("--token-lifetime", arguments.token_lifetime,
                 "Seconds an access token is good for")
      ->check(CLI::Range(1LL, 31536000LL))
      ->capture_default_str();
  app.add_option("--page-size", arguments.service.page_size, "Most entries on one page of a list")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_option("--latency", arguments.latency_ms, "Milliseconds that each answer is held back")
      ->check(CLI::Range(0LL, 600000LL))
      ->capture_default_str();
  app.add_option("--bandwidth", arguments.service.bandwidth,
                 "Bytes per second that each connection carries in each direction; 0: no limit")
      ->capture_default_str();
  app.add_option(
         "--request-rate", arguments.service.request_rate,
         "Requests per second, sign-in aside; more are answered 429 with Retry-After; 0: no "
         "limit")
      ->capture_default_str();
  app.add_flag("--discovery", arguments.service.discovery,
               "Serve the discovery service, too, which the real service has retired");
  app.add_flag("--verbose", arguments.verbose,
               "A line on standard error for each request, without tokens");
}

/// Queries carry page tokens and the secrets of pre-authenticated URLs: paths are enough here.
void PrintRequest(const emulator::RecordedRequest& request) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  const std::string port = request.origin.substr(request.origin.rfind(':'));
  std::cerr << port << ' ' << request.method << ' '
            << request.target.substr(0, request.target.find('?')) << ' ' << request.body_size
            << " bytes -> " << request.status << std::endl;
}

/// A file that is there while the service runs.
class TemporaryFile {
 public:
  TemporaryFile(std::filesystem::path path, const std::string& text, mode_t mode)
      : path_(std::move(path)) {
    base::ReplaceFile(path_, text, mode);
  }
  ~TemporaryFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

 private:
  std::filesystem::path path_;
};

std::string ReadyText(emulator::Service& service, bool discovery) {
  Json::Value ready;
  ready["origin"] = service.Origin();
  ready["authority"] = service.AuthorityUrl();
  ready["token_url"] = service.AuthorityUrl() + "/oauth2/v2.0/token";
  ready["unified_api"] = service.UnifiedApiUrl();
  if (discovery) {
    ready["discovery_url"] = service.DiscoveryUrl();
    ready["discovery_resource"] = service.DiscoveryResource();
  }
  ready["service_endpoint"] = service.ServiceEndpoint();
  ready["service_resource"] = service.ServiceResource();
  ready["client_id"] = service.ClientId();
  ready["refresh_token"] = service.IssueRefreshToken();
  return base::CompactJson(ready) + "\n";
}

void PrintAddresses(const emulator::Service& service) {
  std::cout << "service           " << service.ServiceEndpoint() << '\n'
            << "service resource  " << service.ServiceResource() << '\n'
            << "authority         " << service.AuthorityUrl() << '\n'
            << "unified API       " << service.UnifiedApiUrl() << '\n'
            << "contents          " << service.ContentOrigin() << '\n'
            << "client id         " << service.ClientId() << '\n'
            << "Stop with Ctrl-C." << std::endl;
}

void Serve(const Arguments& arguments, const sigset_t& signals) {
  emulator::Service service(arguments.service);
  std::optional<TemporaryFile> ca_file;
  if (!arguments.ca_file.empty()) {
    ca_file.emplace(arguments.ca_file, service.CertificateAuthorityPem(), 0644);
  }
  PrintAddresses(service);
  std::optional<TemporaryFile> ready_file;
  if (!arguments.ready_file.empty()) {
    ready_file.emplace(arguments.ready_file, ReadyText(service, arguments.service.discovery), 0600);
  }
  int signal = 0;
  sigwait(&signals, &signal);
}

/// Blocked before any thread exists, so that all of them leave these signals to sigwait.
sigset_t BlockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

int Run(int argc, char** argv) {
  const sigset_t signals = BlockStopSignals();
  CLI::App app("OneDrive for Business's service on your desk, for trying out and testing clients");
  Arguments arguments;
  Declare(app, arguments);
  try {
    app.parse(argc, argv);
    if (arguments.plain_http && !arguments.ca_file.empty()) {
      throw CLI::ValidationError("--ca-file", "there is no certificate with --http");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kExitUsage;
  }
  arguments.service.tls = !arguments.plain_http;
  arguments.service.access_token_lifetime = std::chrono::seconds(arguments.token_lifetime);
  arguments.service.latency = std::chrono::milliseconds(arguments.latency_ms);
  arguments.service.recorded_requests = 0;
  if (arguments.verbose) arguments.service.observer = PrintRequest;
  Serve(arguments, signals);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "onedrive4b-emulator: %s\n", error.what());
    return kExitCannotServe;
  }
}
