#include "cli/command_line.h"

#include <CLI/CLI.hpp>

#include "cli/report.h"
#include "host/authority.h"
#include "host/drive_finder.h"
#include "host/failure.h"
#include "host/profile.h"
#include "host/text.h"

namespace cli {
namespace {

constexpr const char* kFooter = R"(
Remote paths begin at the drive's top, which contains "My Drive" and "Shared with me"
(with --no-shared: the drive's own content). A name is matched exactly or, if there is no
exact match, without regard to case. A slash at the end of a path means a folder.

General options may precede or follow the command; a command's own options follow it.

Exit codes:
  0    done
  1    the service or the module refused or failed the operation
  2    the command line is invalid
  3    the module could not be loaded
  4    not signed in, or the sign-in failed
  5    a remote path does not exist
  6    a local file or the output could not be read or written
  7    the proxy cannot be reached or rejected the request
  130  ended by Ctrl-C or SIGTERM

Try it without an account:
  onedrive4b --emulator tree)";

/// Texts that are turned into values once all of the line is known.
struct RawOptions {
  std::string proxy;
  bool proxy_no_tunnel = false;
  std::string site;
  bool login_by_browser = false;
  bool login_by_device = false;
  std::string rate_limit;
  std::string cache_size;
};

std::string CheckRate(std::string& text) {
  return host::ParseSize(text) ? "" : "must be bytes per second, such as 500k or 2M";
}

std::string CheckSize(std::string& text) {
  return host::ParseSize(text) ? "" : "must be a number of bytes, such as 500M or 2G";
}

std::string CheckProfile(std::string& name) {
  return host::IsProfileName(name) ? "" : "use letters, digits, '.', '_' and '-'";
}

void AddConnectionOptions(CLI::App& app, Options& options, RawOptions& raw) {
  const auto add = [&](const char* name, std::string& value, const char* type, const char* help) {
    return app.add_option(name, value, help)->type_name(type)->group("Connection");
  };
  const auto flag = [&](const char* name, bool& value, const char* help) {
    return app.add_flag(name, value, help)->group("Connection");
  };
  CLI::Option* emulator = flag("--emulator", options.emulator,
                               "Use a demo drive inside this program; needs no account");
  app.add_option("--profile", options.profile, "Where the sign-in is kept (default: default)")
      ->type_name("NAME")
      ->check(CLI::Validator(CheckProfile, ""))
      ->group("Connection");
  add("--service-file", options.service_file, "FILE",
      "Use the running service that wrote this ready file; kept in memory unless --profile is "
      "given")
      ->excludes(emulator);
  add("--refresh-token-file", options.refresh_token_file, "FILE",
      "Sign in with the refresh token in this file (- is standard input) and keep it in the "
      "profile")
      ->excludes(emulator);
  add("--client-id", options.service.client_id, "ID", "The application's id at the authority");
  add("--tenant", options.authority.tenant, "NAME",
      "The organisation: its domain or id (default: organizations, whichever the account is of)");
  CLI::Option* cloud = add("--cloud", options.authority.cloud, "NAME",
                           "global, us-gov, us-dod or china (default: global)");
  std::vector<std::string> clouds;
  for (const host::Cloud& known : host::Clouds()) clouds.emplace_back(known.name);
  cloud->check(CLI::IsMember(clouds));
  CLI::Option* authority = add("--authority", options.authority.authority, "URL",
                               "Address of another authority that issues tokens; its path, if it "
                               "has one, is the organisation");
  authority->excludes(cloud);
  add("--token-url", options.service.token_url, "URL",
      "Token address of the authority; one that ends in /oauth2/token is asked in the older form")
      ->excludes(authority)
      ->excludes(cloud);
  CLI::Option* site = add("--site", raw.site, "URL", "Address of the drive, as a browser shows it");
  add("--unified-api", options.service.unified_api, "URL",
      "What is asked where the drive is (default: the cloud's)");
  add("--discovery-url", options.service.discovery_url, "URL",
      "Address of a discovery document that says where the drive is");
  add("--discovery-resource", options.service.discovery_resource, "URL",
      "Resource of the tokens for discovery");
  CLI::Option* endpoint = add("--service-endpoint", options.service.service_endpoint, "URL",
                              "Address of the drive's service, which is not asked for then");
  CLI::Option* resource = add("--service-resource", options.service.service_resource, "URL",
                              "Resource of the tokens for the drive");
  endpoint->needs(resource)->excludes(site);
  resource->needs(endpoint);
  CLI::Option* proxy =
      add("--proxy", raw.proxy, "URL",
          "socks4://, socks5:// or http://[USER:PW@]HOST[:PORT], or none (default: from "
          "https_proxy, all_proxy and no_proxy in the environment)");
  flag("--proxy-no-tunnel", raw.proxy_no_tunnel,
       "Send requests to the http proxy itself instead of tunnelling through it")
      ->needs(proxy);
  flag("--no-shared", options.hide_shared, "Hide \"Shared with me\"");
  add("--module", options.module, "FILE", "The protocol module (default: next to the program)");
}

void AddDiagnosticOptions(CLI::App& app, Options& options) {
  app.add_flag("-q,--quiet", options.quiet, "Show no progress")->group("Diagnostics");
  app.add_flag("-v", options.log.verbosity, "Log to standard error; -vv adds details")
      ->group("Diagnostics");
  app.add_option("--trace", options.log.trace_file,
                 "Write all log lines, without secrets, to this file")
      ->type_name("FILE")
      ->group("Diagnostics");
}

/// A subcommand that sets `options.command`.
CLI::App* AddCommand(CLI::App& app, Options& options, Command command, const char* name,
                     const char* help) {
  CLI::App* sub = app.add_subcommand(name, help);
  sub->callback([&options, command] { options.command = command; });
  sub->fallthrough();
  return sub;
}

void AddBrowseCommands(CLI::App& app, Options& options) {
  const auto add = [&](Command command, const char* name, const char* help) {
    CLI::App* sub = AddCommand(app, options, command, name, help);
    sub->add_flag("--json", options.json, "Write JSON");
    return sub;
  };
  const auto bytes = [&](CLI::App* sub) {
    sub->add_flag("--bytes", options.bytes, "Sizes in bytes");
  };
  add(Command::kWhoAmI, "whoami", "Show who is signed in");
  bytes(add(Command::kDf, "df", "Show the used and free space of the drive"));
  CLI::App* ls = add(Command::kLs, "ls", "List a folder");
  ls->add_option("path", options.remote, "Remote path (default: /)");
  ls->add_flag("-l", options.long_format, "Show size and time of change (UTC)");
  ls->add_flag("-R", options.recursive, "List subfolders too");
  bytes(ls);
  CLI::App* tree = add(Command::kTree, "tree", "Show a folder as a tree");
  tree->add_option("path", options.remote, "Remote path (default: /)");
  tree->add_option("-L", options.depth, "Levels to show")->check(CLI::Range(1, 1000));
  CLI::App* stat = add(Command::kStat, "stat", "Show all details of an item");
  stat->add_option("path", options.remote, "Remote path")->required();
}

void AddRateOption(CLI::App* sub, RawOptions& raw) {
  sub->add_option("--limit-rate", raw.rate_limit, "Bytes per second at most, such as 500k or 2M")
      ->check(CLI::Validator(CheckRate, "RATE"));
}

void AddTransferCommands(CLI::App& app, Options& options, RawOptions& raw) {
  CLI::App* get = AddCommand(app, options, Command::kGet, "get", "Download a file or a folder");
  get->add_option("remote", options.remote, "Remote path")->required();
  get->add_option("local", options.local, "Local file or folder (default: the working directory)");
  get->add_flag("-r,--recursive", options.recursive, "Download a folder and everything in it");
  get->add_option("--parallel", options.parallel, "Parts of a file to fetch at once")
      ->check(CLI::Range(1, 16));
  AddRateOption(get, raw);
  CLI::App* cat = AddCommand(app, options, Command::kCat, "cat", "Write a file to standard output");
  cat->add_option("path", options.remote, "Remote path")->required();
  cat->add_option("--offset", options.offset, "First byte to write (default: 0)")
      ->check(CLI::NonNegativeNumber);
  cat->add_option("--length", options.length, "Number of bytes to write (default: all that follow)")
      ->check(CLI::NonNegativeNumber);
  AddRateOption(cat, raw);
  CLI::App* put = AddCommand(app, options, Command::kPut, "put", "Upload a file or a folder");
  put->add_option("local", options.local, "Local path")->required();
  put->add_option("remote", options.target,
                  "Remote folder or path (default: the user's own drive)");
  put->add_flag("-r,--recursive", options.recursive, "Upload a folder and everything in it");
  AddRateOption(put, raw);
}

void AddChangeCommands(CLI::App& app, Options& options) {
  CLI::App* mkdir = AddCommand(app, options, Command::kMkdir, "mkdir", "Make a folder");
  mkdir->add_option("path", options.remote, "Remote path")->required();
  mkdir->add_flag("-p,--parents", options.parents,
                  "Make missing folders above it; no error if it exists");
  CLI::App* mv = AddCommand(app, options, Command::kMv, "mv", "Rename or move an item");
  mv->add_option("source", options.remote, "Remote path")->required();
  mv->add_option("target", options.target, "Remote folder to move it to, or its new path")
      ->required();
  CLI::App* rm = AddCommand(app, options, Command::kRm, "rm", "Delete an item");
  rm->add_option("path", options.remote, "Remote path")->required();
  rm->add_flag("-r,--recursive", options.recursive, "Delete a folder and everything in it");
}

void AddMountCommands(CLI::App& app, Options& options, RawOptions& raw) {
  MountSettings& settings = options.mount;
  const auto add = [&](Command command, const char* name, const char* help) {
    CLI::App* sub = AddCommand(app, options, command, name, help);
    sub->add_option("mountpoint", options.local, "Folder of the mounted drive")->required();
    return sub;
  };
  CLI::App* mount = add(Command::kMount, "mount", "Make the drive a folder");
  mount->add_flag("--foreground", settings.foreground, "Do not go into the background");
  mount->add_flag("--read-only", settings.read_only, "Allow no changes");
  mount
      ->add_option("--state", settings.state,
                   "Where local copies and unsent changes are kept (default: beside the profile)")
      ->type_name("DIR");
  mount
      ->add_option("--cache-size", raw.cache_size,
                   "Most bytes of unchanged local copies, such as 2G (default: 10G)")
      ->type_name("SIZE")
      ->check(CLI::Validator(CheckSize, ""));
  mount
      ->add_option("--refresh", settings.refresh,
                   "Seconds after which changes of others are seen (default: 30)")
      ->check(CLI::Range(1, 86400));
  mount
      ->add_option("--upload-delay", settings.upload_delay,
                   "Seconds that a file rests before it is sent (default: 5)")
      ->check(CLI::Range(0, 86400));
  mount->add_flag("--allow-other", settings.allow_other, "Let other users look inside");
  const auto timeout = [&](CLI::App* sub) {
    sub->add_option("--timeout", settings.timeout, "Seconds to wait at most (default: no limit)");
  };
  CLI::App* unmount = add(Command::kUnmount, "unmount", "Send what is left and unmount the drive");
  unmount->add_flag("--now", settings.now, "Leave what is not sent yet to the next mount");
  timeout(unmount);
  CLI::App* status = add(Command::kStatus, "status", "Show what is being sent and what is left");
  status->add_flag("--json", options.json, "Write JSON");
  timeout(add(Command::kSync, "sync", "Wait until the service has every change"));
}

void AddAccountCommands(CLI::App& app, Options& options, RawOptions& raw) {
  CLI::App* login = AddCommand(app, options, Command::kLogin, "login",
                               "Sign in with a browser, on this or another device");
  CLI::Option* browser =
      login->add_flag("--browser", raw.login_by_browser,
                      "Sign in with the browser of this machine (default where there is one)");
  login
      ->add_flag("--device", raw.login_by_device,
                 "Show a code, to be entered in a browser on any device")
      ->excludes(browser);
  AddCommand(app, options, Command::kLogout, "logout", "Forget the sign-in of the profile");
}

host::ProxyRule ChooseProxy(const Options& options, const RawOptions& raw) {
  // The emulator is in this process: no proxy could reach it.
  if (raw.proxy == "none" || options.emulator) return host::ProxyRule::None();
  const host::ProxyEnvironment environment = host::ProxyEnvironment::Read();
  if (raw.proxy.empty()) return host::ProxyRule::FromEnvironment(environment);
  return host::ProxyRule::Fixed(host::ParseProxy(raw.proxy, !raw.proxy_no_tunnel), environment);
}

/// Turns raw texts into values; throws Failure.
void Finish(Options& options, const RawOptions& raw) {
  options.proxy = ChooseProxy(options, raw);
  if (!raw.site.empty()) host::SetSite(options.service, raw.site);
  if (raw.login_by_browser) options.login_way = LoginWay::kBrowser;
  if (raw.login_by_device) options.login_way = LoginWay::kDevice;
  if (!raw.cache_size.empty()) options.mount.cache_limit = *host::ParseSize(raw.cache_size);
  if (!raw.rate_limit.empty()) options.rate_limit = *host::ParseSize(raw.rate_limit);
}

}  // namespace

std::variant<Options, int> ParseCommandLine(int argc, char** argv) {
  CLI::App app("Use a drive of OneDrive for Business", "onedrive4b");
  app.set_version_flag("--version", "onedrive4b " ONEDRIVE4B_VERSION);
  app.footer(kFooter);
  app.require_subcommand(1);
  Options options;
  RawOptions raw;
  AddConnectionOptions(app, options, raw);
  AddDiagnosticOptions(app, options);
  AddBrowseCommands(app, options);
  AddTransferCommands(app, options, raw);
  AddChangeCommands(app, options);
  AddMountCommands(app, options, raw);
  AddAccountCommands(app, options, raw);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : static_cast<int>(ExitCode::kUsage);
  }
  Finish(options, raw);
  return options;
}

}  // namespace cli
