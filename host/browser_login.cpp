#include "host/browser_login.h"

#include <array>
#include <chrono>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "base/json_text.h"
#include "host/authority.h"
#include "host/authority_error.h"
#include "host/redirect_listener.h"

namespace host {
namespace {

constexpr std::chrono::minutes kPatience{10};
constexpr std::size_t kSecretBytes = 32;  // RFC 7636, section 4.1: 43 characters

/// RFC 4648, section 5, without padding.
std::string Base64Url(const unsigned char* bytes, std::size_t size) {
  std::string text(4 * ((size + 2) / 3) + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, static_cast<int>(size));
  text.resize(static_cast<std::size_t>(length));
  while (text.ends_with('=')) text.pop_back();
  for (char& c : text) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  return text;
}

std::string RandomText() {
  std::array<unsigned char, kSecretBytes> bytes;
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw Failure(FailureKind::kFailed, "the system gives no random numbers");
  }
  return Base64Url(bytes.data(), bytes.size());
}

std::string ChallengeFor(const std::string& verifier) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned size = 0;
  if (EVP_Digest(verifier.data(), verifier.size(), digest.data(), &size, EVP_sha256(), nullptr) !=
      1) {
    throw Failure(FailureKind::kFailed, "SHA-256 cannot be computed");
  }
  return Base64Url(digest.data(), size);
}

/// An answer that brings an error document's members in its query.
HttpResponse AsErrorDocument(const RedirectListener::Parameters& answer) {
  const auto text = [&](const char* name) {
    const auto found = answer.find(name);
    return found == answer.end() ? std::string() : found->second;
  };
  Json::Value document(Json::objectValue);
  document["error"] = text("error").empty() ? "no code" : text("error");
  document["error_description"] = text("error_description");
  return {.status = 400, .content_type = "application/json", .body = base::CompactJson(document)};
}

}  // namespace

std::string LogInByBrowser(const LoginContext& context, const OpenBrowser& open) {
  const ServiceSettings& settings = context.settings;
  const std::string page = AuthorizeUrl(settings.token_url);
  if (page.empty()) throw LoginFailure("no browser login is known for this token address");
  const RedirectListener listener;
  const std::string state = RandomText();
  const std::string verifier = RandomText();
  context.redactor.AddSecret(verifier);
  const auto wanted = WantedField(settings.token_url, context.resource);
  const FormFields question = {{"client_id", settings.client_id},
                               {"response_type", "code"},
                               {"response_mode", "query"},
                               {"redirect_uri", listener.Address()},
                               wanted,
                               {"state", state},
                               {"code_challenge", ChallengeFor(verifier)},
                               {"code_challenge_method", "S256"}};
  open(page + '?' + EncodeForm(question));
  const auto answer = listener.Await(state, kPatience, context.cancellation);
  const auto code = answer.find("code");
  if (code == answer.end() || code->second.empty()) {
    throw LoginFailure(AuthorityFailure(AsErrorDocument(answer), context.redactor));
  }
  context.redactor.AddSecret(code->second);
  const HttpResponse response = PostToAuthority(context, settings.token_url,
                                                {{"grant_type", "authorization_code"},
                                                 {"client_id", settings.client_id},
                                                 {"code", code->second},
                                                 {"redirect_uri", listener.Address()},
                                                 {"code_verifier", verifier},
                                                 wanted});
  if (response.status != 200) throw LoginFailure(AuthorityFailure(response, context.redactor));
  return RefreshTokenIn(context, response);
}

}  // namespace host
