// The command line: every option of the program, its help text and its checks.
//
// Plain values; parsing is done once, before threads are started.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "cli/terminal_log.h"
#include "host/settings.h"

namespace cli {

/// How a person signs in.
enum class LoginWay {
  kAny,      ///< with the browser of this machine when there is one, else with a code
  kBrowser,  ///< with the browser of this machine
  kDevice,   ///< with a code, in any browser
};

enum class Command {
  kWhoAmI,
  kDf,
  kLs,
  kTree,
  kStat,
  kGet,
  kCat,
  kPut,
  kMkdir,
  kMv,
  kRm,
  kMount,
  kUnmount,
  kStatus,
  kSync,
  kLogin,
  kLogout
};

/// What the commands of a mounted drive are given. `local` is the mount point.
struct MountSettings {
  bool foreground = false;
  bool read_only = false;
  bool allow_other = false;
  std::string state;                                  ///< empty: in the profile's folder
  std::int64_t cache_limit = std::int64_t{10} << 30;  ///< bytes
  unsigned refresh = 30;                              ///< seconds
  unsigned upload_delay = 5;                          ///< seconds
  std::optional<unsigned> timeout;                    ///< seconds; sync, unmount
  bool now = false;                                   ///< unmount: wait for nothing
};

struct Options {
  Command command = Command::kWhoAmI;
  std::string remote;  ///< the command's remote path (mv: the source)
  std::string local;   ///< get, put: the local path, empty for the default
  std::string target;  ///< mv: the target; put: the remote target, empty for the default

  bool json = false;
  bool long_format = false;
  bool recursive = false;
  bool bytes = false;    ///< sizes in plain bytes
  bool parents = false;  ///< mkdir: make missing parents
  bool quiet = false;
  unsigned depth = 0;  ///< tree: levels to show, 0 for all
  unsigned parallel = 1;
  std::int64_t rate_limit = 0;         ///< bytes per second, 0 for none
  std::int64_t offset = 0;             ///< cat: first byte to show
  std::optional<std::int64_t> length;  ///< cat: most bytes to show

  MountSettings mount;

  std::optional<std::string> profile;
  host::ServiceSettings service;
  host::AuthorityChoice authority;
  LoginWay login_way = LoginWay::kAny;
  host::ProxyRule proxy = host::ProxyRule::None();
  bool hide_shared = false;
  bool emulator = false;
  std::string service_file;
  std::string refresh_token_file;
  std::string module;
  LogOptions log;
};

/// The options, or the exit code with which the program ends at once, after it has printed the
/// help, the version or an error of the command line.
std::variant<Options, int> ParseCommandLine(int argc, char** argv);

}  // namespace cli
