#include "cli/program.h"

#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>

#include <curl/curl.h>
#include <unistd.h>

#include "cli/browse_commands.h"
#include "cli/browser.h"
#include "cli/change_commands.h"
#include "cli/command_line.h"
#include "cli/emulated_service.h"
#include "cli/interrupts.h"
#include "cli/mount_commands.h"
#include "cli/output.h"
#include "cli/remote_drive.h"
#include "cli/report.h"
#include "cli/terminal_log.h"
#include "cli/transfer_commands.h"
#include "host/authorizer.h"
#include "host/browser_login.h"
#include "host/device_login.h"
#include "host/drive_finder.h"
#include "host/failure.h"
#include "host/http_client.h"
#include "host/local_files.h"
#include "host/log.h"
#include "host/module_library.h"
#include "host/profile.h"
#include "host/redaction.h"
#include "host/session.h"
#include "host/text.h"
#include "host/value_store.h"
#include "mount/mount_point.h"

namespace cli {
namespace {

constexpr std::size_t kMostTokenBytes = 1 << 16;

/// libcurl's own set-up, once for the program.
class CurlLibrary {
 public:
  CurlLibrary() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  ~CurlLibrary() { curl_global_cleanup(); }
  CurlLibrary(const CurlLibrary&) = delete;
  CurlLibrary& operator=(const CurlLibrary&) = delete;
};

std::string ReadToken(const std::string& file) {
  std::string token = host::ReadSmallFile(file, kMostTokenBytes);
  while (!token.empty() && (token.back() == '\n' || token.back() == '\r' || token.back() == ' ')) {
    token.pop_back();
  }
  if (token.empty() || token.find_first_of(" \t\r\n") != std::string::npos) {
    throw host::Failure(host::FailureKind::kUsage,
                        "the refresh token file must contain exactly one token");
  }
  return token;
}

/// Whatever the reason of its failure, for the shell it is the sign-in that failed.
template <class Action>
void AsSignIn(const Action& action) {
  try {
    action();
  } catch (const host::Failure& failure) {
    switch (failure.kind()) {
      case host::FailureKind::kModule:
      case host::FailureKind::kProxy:
      case host::FailureKind::kInterrupted:
        throw;
      default:
        throw host::Failure(host::FailureKind::kSignIn, failure.what(), failure.advice());
    }
  }
}

/// The drive could not be used where it was found: it may have moved.
class DriveIsGone : public host::Failure {
 public:
  explicit DriveIsGone(const host::Failure& failure) : host::Failure(failure) {}
};

/// One run of one command, its parts in the order in which they depend on each other.
class Program {
 public:
  Program(Options options, mounted::Background background);

  void Run(Interrupts& interrupts);

 private:
  void ChooseService();
  host::ServiceSettings StoredSettings();
  void LogIn(const host::HttpClient& http, Interrupts& interrupts);
  void FindDrive(const host::HttpClient& http, Interrupts& interrupts);
  void UseDrive(const host::HttpClient& http, Interrupts& interrupts);
  void Connect(host::Session& session);
  void KeepSignIn();
  void RunCommand(const TransferContext& context) const;
  void Mount(host::Session& session, Interrupts& interrupts);
  host::AuthorizerContext AuthorizerParts(const host::HttpClient& http, Interrupts& interrupts) {
    return {options_.service, http, profile_, log_, redactor_, interrupts.cancellation()};
  }

  Options options_;
  mounted::Background background_;
  host::Redactor redactor_;
  TerminalLog sink_;
  host::Log log_;
  host::ValueStore store_;
  host::ValueStore memory_;
  const bool is_new_;  ///< a sign-in that replaces the profile's once it has succeeded
  host::Profile profile_;
  bool looked_again_ = false;  ///< where the drive is
  std::unique_ptr<EmulatedService> emulated_;
};

Program::Program(Options options, mounted::Background background)
    : options_(std::move(options)),
      background_(std::move(background)),
      sink_(options_.log),
      log_(sink_, redactor_),
      store_(options_.emulator || (!options_.service_file.empty() && !options_.profile)
                 ? std::filesystem::path()
                 : host::ProfileFile(options_.profile.value_or("default"))),
      is_new_(options_.command == Command::kLogin || options_.emulator ||
              !options_.service_file.empty() || !options_.refresh_token_file.empty()),
      profile_(is_new_ ? memory_ : store_, options_.profile.value_or("default")) {
  if (!store_.warning().empty()) log_.Warn(store_.warning());
}

host::ServiceSettings Program::StoredSettings() {
  host::ServiceSettings settings =
      host::Profile(store_, options_.profile.value_or("default")).Settings();
  if (options_.command == Command::kLogin && settings.drive_from == host::kDriveFromUnifiedApi) {
    // It may be another account: its drive is asked for again.
    settings.service_endpoint.clear();
    settings.service_resource.clear();
    settings.drive_from.clear();
  }
  return settings;
}

void Program::ChooseService() {
  host::ServiceSettings& service = options_.service;
  host::ServiceSettings known;
  std::string token;
  if (options_.emulator) {
    emulated_ = std::make_unique<EmulatedService>();
    known = emulated_->Settings();
    token = emulated_->IssueRefreshToken();
  } else if (!options_.service_file.empty()) {
    host::ServiceFile file = host::ReadServiceFile(options_.service_file);
    known = std::move(file.settings);
    token = std::move(file.refresh_token);
  }
  if (!options_.refresh_token_file.empty()) token = ReadToken(options_.refresh_token_file);
  host::FillMissing(known, StoredSettings());
  if (const host::AuthorityChoice& choice = options_.authority;
      !choice.cloud.empty() || !choice.authority.empty() || !choice.tenant.empty()) {
    host::SetAuthority(service, choice, known);
  }
  host::FillMissing(service, known);
  host::SetAuthority(service, {});
  if (!service.discovery_url.empty() && service.discovery_resource.empty()) {
    service.discovery_resource = host::kDefaultDiscoveryResource;
  }
  if (token.empty() && profile_.RefreshToken().empty() && options_.command != Command::kLogin) {
    throw host::Failure(
        host::FailureKind::kSignIn, "not signed in",
        "run 'onedrive4b login', or use --emulator to look around without an account");
  }
  host::CheckSettings(service);
  redactor_.AddSecret(options_.proxy.For(service.token_url).password);
  redactor_.AddSecret(options_.proxy.ForModule(host::DriveAddress(service)).password);
  if (token.empty()) return;
  redactor_.AddToken(token);
  profile_.KeepRefreshToken(token);
}

void Program::Run(Interrupts& interrupts) {
  if (options_.command == Command::kLogout) return profile_.SignOut();
  ChooseService();
  const host::HttpClient http({host::CertificateBundle().string(), options_.proxy});
  if (options_.command == Command::kLogin) LogIn(http, interrupts);
  if (host::NeedsDrive(options_.service)) FindDrive(http, interrupts);
  try {
    UseDrive(http, interrupts);
  } catch (const DriveIsGone& gone) {
    looked_again_ = true;
    const std::string before = options_.service.service_endpoint;
    try {
      FindDrive(http, interrupts);
    } catch (const host::Failure& failure) {
      if (failure.kind() == host::FailureKind::kInterrupted) throw;
    }
    const bool moved = options_.service.service_endpoint != before;
    if (!moved && options_.command != Command::kMount) throw host::Failure(gone);
    UseDrive(http, interrupts);
  }
}

void Program::FindDrive(const host::HttpClient& http, Interrupts& interrupts) {
  const Interrupts::Scope scope(interrupts);
  AsSignIn([&] { host::FindDrive(options_.service, AuthorizerParts(http, interrupts)); });
  redactor_.AddSecret(options_.proxy.ForModule(host::DriveAddress(options_.service)).password);
  if (!is_new_) profile_.KeepSettings(options_.service);
}

void Program::UseDrive(const host::HttpClient& http, Interrupts& interrupts) {
  const host::ModuleLibrary module(options_.module);
  // Every request is limited on its own.
  const std::int64_t rate = (options_.rate_limit + options_.parallel - 1) / options_.parallel;
  host::Session session({module, AuthorizerParts(http, interrupts)},
                        {options_.service, options_.proxy, !options_.hide_shared, rate,
                         options_.command == Command::kMount});
  if (options_.command == Command::kMount) return Mount(session, interrupts);
  Connect(session);
  const host::ItemClient items(session);
  const RemoteDrive drive(items);
  Output out(STDOUT_FILENO);
  try {
    RunCommand({options_, drive, out, interrupts});
  } catch (const host::Failure&) {
    out.Flush();  // what was made before it failed
    throw;
  }
  out.Flush();
}

/// Signs in, which uses the drive, too.
void Program::Connect(host::Session& session) {
  try {
    session.Connect();
  } catch (const host::Failure& failure) {
    // Not when nothing answers: then nobody could say where else it is.
    const bool may_have_moved = options_.service.drive_from == host::kDriveFromUnifiedApi &&
                                !is_new_ && failure.kind() == host::FailureKind::kSignIn;
    if (may_have_moved && !looked_again_) throw DriveIsGone(failure);
    AsSignIn([] { throw; });
  }
  KeepSignIn();
}

/// A new sign-in has succeeded: now it replaces the profile's.
void Program::KeepSignIn() {
  if (!is_new_) return;
  profile_.KeepSettings(options_.service);
  profile_.MoveTo(store_);
}

/// Without network, what the state folder knows can be used all the same.
void Program::Mount(host::Session& session, Interrupts& interrupts) {
  bool online = true;
  try {
    Connect(session);
  } catch (const DriveIsGone&) {
    throw;
  } catch (const host::Failure&) {
    if (!IsDriveKnown(options_)) throw;
    online = false;
  }
  const host::ItemClient items(session);
  MountDrive({options_, items, online, interrupts, background_});
}

void Program::LogIn(const host::HttpClient& http, Interrupts& interrupts) {
  const host::ServiceSettings& service = options_.service;
  const std::string& resource = host::NeedsDrive(service)       ? service.unified_api
                                : service.discovery_url.empty() ? service.service_resource
                                                                : service.discovery_resource;
  const host::LoginContext context{service, resource, http, interrupts.cancellation(),
                                   log_,    redactor_};
  const auto say = [](const std::string& text) {
    Output out(STDOUT_FILENO);
    out.Write(text);
    out.Flush();
  };
  const Interrupts::Scope scope(interrupts);
  const bool by_browser = options_.login_way == LoginWay::kBrowser ||
                          (options_.login_way == LoginWay::kAny && HasBrowser());
  if (by_browser) {
    profile_.KeepRefreshToken(host::LogInByBrowser(context, [&](const std::string& address) {
      say("To sign in, use the browser that opens now. If none opens, open this address on this "
          "machine:\n  " +
          address + "\n");
      OpenInBrowser(address);
    }));
    return;
  }
  profile_.KeepRefreshToken(
      host::LogInByDevice(context, [&](const std::string& address, const std::string& code) {
        say("To sign in, open this address in a browser, on this or another device:\n  " + address +
            "\nand enter the code\n  " + code + "\n");
      }));
}

void Program::RunCommand(const TransferContext& context) const {
  const BrowseContext browse{options_, context.drive, context.out};
  switch (options_.command) {
    case Command::kWhoAmI:
      return WhoAmI(browse);
    case Command::kDf:
      return ShowSpace(browse);
    case Command::kLs:
      return ListFolder(browse);
    case Command::kTree:
      return ShowTree(browse);
    case Command::kStat:
      return ShowItem(browse);
    case Command::kGet:
      return Get(context);
    case Command::kCat:
      return Cat(context);
    case Command::kPut:
      return Put(context);
    case Command::kMkdir:
      return MakeFolder(options_, context.drive);
    case Command::kMv:
      return MoveItem(options_, context.drive);
    case Command::kRm:
      return RemoveItem(options_, context.drive);
    case Command::kLogin:
      context.out.Write("Signed in as ");
      return WhoAmI(browse);
    case Command::kMount:
    case Command::kUnmount:
    case Command::kStatus:
    case Command::kSync:
    case Command::kLogout:
      return;  // handled before
  }
}

int Run(int argc, char** argv) {
  // A closed pipe shows as a failed write, with a message and an exit code.
  if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) return static_cast<int>(ExitCode::kFailed);
  std::variant<Options, int> parsed = ParseCommandLine(argc, argv);
  if (const int* code = std::get_if<int>(&parsed)) return *code;
  Options& options = std::get<Options>(parsed);
  mounted::Background background;
  if (options.command == Command::kMount) {
    options.local = mounted::CheckMountPoint(options.local);
    // Threads do not survive a fork: it comes before the first one.
    if (!options.mount.foreground) background = mounted::Background::Start();
  }
  const CurlLibrary curl;
  Interrupts interrupts;
  if (RunMountCommand(options)) return static_cast<int>(ExitCode::kOk);
  Program program(std::move(options), std::move(background));
  program.Run(interrupts);
  return static_cast<int>(ExitCode::kOk);
}

}  // namespace

int RunProgram(int argc, char** argv) noexcept {
  try {
    return Run(argc, argv);
  } catch (const host::Failure& failure) {
    PrintFailure(failure);
    return static_cast<int>(ExitCodeOf(failure.kind()));
  } catch (const std::exception& error) {
    PrintFailure(host::Failure(host::FailureKind::kFailed, host::EscapeForTerminal(error.what())));
    return static_cast<int>(ExitCode::kFailed);
  }
}

}  // namespace cli
