#include "host/redaction.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace host {
namespace {

constexpr std::string_view kHidden = "[hidden]";
constexpr std::size_t kShortestSecret = 4;
constexpr std::size_t kMostTokens = 100;

void ReplaceAll(std::string& line, const std::string& secret) {
  for (std::size_t at = line.find(secret); at != std::string::npos;
       at = line.find(secret, at + kHidden.size())) {
    line.replace(at, secret.size(), kHidden);
  }
}

/// Position of `word` at or after `from`, letters compared without case.
std::size_t FindWord(std::string_view line, std::string_view word, std::size_t from) {
  const auto same = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; };
  const auto found = std::search(line.begin() + static_cast<std::ptrdiff_t>(from), line.end(),
                                 word.begin(), word.end(), same);
  return found == line.end() ? std::string_view::npos
                             : static_cast<std::size_t>(found - line.begin());
}

/// Hides what follows each `word` up to one of `ends`.
void HideAfter(std::string& line, std::string_view word, std::string_view ends) {
  for (std::size_t at = FindWord(line, word, 0); at != std::string::npos;
       at = FindWord(line, word, at)) {
    at += word.size();
    std::size_t end = line.find_first_of(ends, at);
    if (end == std::string::npos) end = line.size();
    if (end == at) continue;
    line.replace(at, end - at, kHidden);
    at += kHidden.size();
  }
}

/// In each URL: what stands before "@" in the authority, and what follows "?".
void HideInUrls(std::string& line) {
  constexpr std::string_view kUrlEnd = " \t\"'<>[]{}|";
  for (std::size_t at = line.find("://"); at != std::string::npos; at = line.find("://", at)) {
    at += 3;
    const std::size_t authority_end = std::min(line.find_first_of("/?# \t\"'", at), line.size());
    const std::size_t sign = line.rfind('@', authority_end);
    if (sign != std::string::npos && sign >= at && sign < authority_end) {
      line.replace(at, sign - at, kHidden);
      at += kHidden.size() + 1;
    }
    const std::size_t end = std::min(line.find_first_of(kUrlEnd, at), line.size());
    const std::size_t query = line.find('?', at);
    if (query != std::string::npos && query < end) {
      line.replace(query + 1, end - query - 1, kHidden);
      at = query;
    }
  }
}

}  // namespace

void Redactor::AddSecret(const std::string& secret) {
  if (secret.size() < kShortestSecret) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  secrets_.insert(secret);
}

void Redactor::AddToken(const std::string& token) {
  if (token.size() < kShortestSecret) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (std::find(tokens_.begin(), tokens_.end(), token) != tokens_.end()) return;
  if (tokens_.size() == kMostTokens) tokens_.pop_front();
  tokens_.push_back(token);
}

std::string Redactor::Redact(std::string_view line) const {
  std::string out(line);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const std::string& secret : secrets_) ReplaceAll(out, secret);
    for (const std::string& token : tokens_) ReplaceAll(out, token);
  }
  HideInUrls(out);
  HideAfter(out, "bearer ", " \t\"',;");
  static constexpr std::array<std::string_view, 6> kNames = {
      "refresh_token", "access_token", "id_token", "device_code", "tempauth", "client_secret"};
  for (const std::string_view name : kNames) {
    HideAfter(out, std::string(name) + "=", "& \t\"'");
    HideAfter(out, std::string(name) + "\":\"", "\"");
  }
  HideAfter(out, "authorization: basic ", " \t\"'");
  return out;
}

}  // namespace host
