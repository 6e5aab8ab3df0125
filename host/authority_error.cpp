#include "host/authority_error.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "base/json_text.h"
#include "host/text.h"

namespace host {
namespace {

constexpr std::size_t kLongestDescription = 300;
constexpr std::size_t kLongestType = 60;

struct KnownRefusal {
  std::int64_t code;
  const char* what;
  const char* advice;
};

constexpr const char* kLogInAgain = "run 'onedrive4b login' again";
constexpr const char* kAskConsent =
    "run 'onedrive4b login' and agree, or ask an administrator to agree for the organisation";
constexpr const char* kOtherWay =
    "sign in with the browser of this machine: 'onedrive4b login --browser'";

constexpr auto kKnownRefusals = std::to_array<KnownRefusal>({
    {50011, "the application's registration does not allow the program's redirect address",
     "add http://localhost to it, under the platform for mobile and desktop applications"},
    {50020, "this account belongs to another organisation", "give --tenant with the account's own"},
    {50059, "the authority does not know which organisation is meant", "give --tenant"},
    {50076, "the organisation asks for a second factor", kLogInAgain},
    {50078, "the second factor has to be given again", kLogInAgain},
    {50079, "the account has to set up a second factor first", kLogInAgain},
    {50105, "the account was not assigned to the application",
     "ask an administrator to assign it, or to make assignment optional"},
    {50158, "the organisation asks for another step of the sign-in", kLogInAgain},
    {50173, "the sign-in was withdrawn, perhaps because the password was changed", kLogInAgain},
    {50199, "the sign-in has to be confirmed by a person", kLogInAgain},
    {53000, "the organisation allows managed devices only", "ask an administrator"},
    {53003, "a rule of the organisation forbids this sign-in", "ask an administrator"},
    {65001, "nobody has agreed yet that the application may use the drive", kAskConsent},
    {65004, "it was declined in the browser", kLogInAgain},
    {70000, "the stored sign-in is not valid", kLogInAgain},
    {70008, "the sign-in has expired because it was not used", kLogInAgain},
    {70011, "the authority does not know the permission that is asked for",
     "check --tenant and --cloud, and the address of the drive"},
    {70043, "the sign-in has expired by a rule of the organisation", kLogInAgain},
    {90002, "the authority does not know this organisation", "check --tenant and --cloud"},
    {90094, "an administrator has to agree that the application may use the drive", kAskConsent},
    {500011, "the organisation has no such service",
     "check --tenant and --cloud, and the address of the drive"},
    {530033, "a rule of the organisation forbids signing in with a device code", kOtherWay},
    {530035, "a rule of the organisation forbids signing in with a device code", kOtherWay},
    {700016, "the organisation does not know this client id",
     "check --client-id; an application of one organisation only also needs --tenant"},
    {700082, "the sign-in has expired because it was not used", kLogInAgain},
    {7000218, "the application's registration does not allow public clients",
     "set \"Allow public client flows\" to yes in it"},
});

/// What the authority says, fit for a message: its first line, since trace ids for its operator
/// follow. It may quote a token, which is recognised as a whole only, so before anything is cut.
std::string FirstLine(const std::string& text, const Redactor& redactor, std::size_t longest) {
  const std::string redacted = redactor.Redact(text);
  return Shortened(EscapeForTerminal(redacted.substr(0, redacted.find_first_of("\r\n"))), longest);
}

/// The number behind the description's first mark, "AADSTS70008: ..."; 0: there is none.
std::int64_t CodeIn(const std::string& description) {
  constexpr std::string_view kMark = "AADSTS";
  const std::size_t at = description.find(kMark);
  std::int64_t code = 0;
  if (at == std::string::npos) return code;
  const std::string_view rest = std::string_view(description).substr(at + kMark.size());
  std::from_chars(rest.data(), rest.data() + rest.size(), code);
  return code;
}

const KnownRefusal* FindRefusal(std::int64_t code) {
  const auto* const found =
      std::find_if(kKnownRefusals.begin(), kKnownRefusals.end(),
                   [&](const KnownRefusal& known) { return known.code == code; });
  return found == kKnownRefusals.end() ? nullptr : found;
}

const char* AdviceFor(const std::string& error) {
  if (error == "consent_required") return kAskConsent;
  if (error == "unauthorized_client" || error == "invalid_client") {
    return "check --client-id and the application's registration";
  }
  return kLogInAgain;
}

}  // namespace

std::string AuthorityError(const HttpResponse& response) {
  const auto document = base::ParseJsonObject(response.body);
  if (!document || response.status >= 500) return {};
  return base::TextMember(*document, "error").value_or("");
}

Failure AuthorityFailure(const HttpResponse& response, const Redactor& redactor) {
  const auto document = base::ParseJsonObject(response.body);
  const std::string error = document ? base::TextMember(*document, "error").value_or("") : "";
  const std::string description =
      document ? base::TextMember(*document, "error_description").value_or("") : "";
  const std::string said = FirstLine(description, redactor, kLongestDescription);
  std::string what = "the authority refused: " + FirstLine(error, redactor, kLongestDescription);
  if (!said.empty()) what += ": " + said;
  if (error.empty()) {
    const std::string type =
        response.content_type.empty() ? "no content type" : response.content_type;
    what = "the authority answered HTTP " + std::to_string(response.status) + " (" +
           FirstLine(type, redactor, kLongestType) + ") instead of tokens";
  }
  if (response.status == 429 || response.status == 503) return {FailureKind::kThrottled, what};
  if (error.empty() || response.status >= 500) return {FailureKind::kTrouble, what};
  const std::int64_t code = CodeIn(description);
  const KnownRefusal* const known = FindRefusal(code);
  if (known == nullptr) return {FailureKind::kSignIn, what, AdviceFor(error)};
  return {FailureKind::kSignIn,
          "the authority refused: " + std::string(known->what) + " (" +
              FirstLine(error, redactor, kLongestType) + ", AADSTS" + std::to_string(code) + ")",
          known->advice};
}

std::optional<std::chrono::seconds> SecondsMember(const Json::Value& object, const char* name) {
  std::int64_t value = 0;
  if (object[name].isInt64()) {
    value = object[name].asInt64();
  } else {
    const std::string text = base::TextMember(object, name).value_or("");
    const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
    if (read.ec != std::errc() || read.ptr != text.data() + text.size()) return std::nullopt;
  }
  // A longer time would overflow where it is added to another one.
  constexpr std::int64_t kLongest = 100LL * 365 * 86400;
  return std::chrono::seconds(std::clamp<std::int64_t>(value, 0, kLongest));
}

}  // namespace host
