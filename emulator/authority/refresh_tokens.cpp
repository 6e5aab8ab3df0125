#include "emulator/authority/refresh_tokens.h"

#include <stdexcept>

#include "base/json_text.h"
#include "emulator/text/random_text.h"

namespace emulator {
namespace {

Json::Value ToEntry(const std::string& text, const RefreshToken& token) {
  Json::Value entry;
  entry["token"] = text;
  entry["user"] = ToJson(token.user);
  entry["revoked"] = token.revoked;
  return entry;
}

std::string Record(const std::string& text, const RefreshToken& token) {
  Json::Value record;
  record["tokens"].append(ToEntry(text, token));
  return base::CompactJson(record);
}

}  // namespace

RefreshTokens::RefreshTokens(const std::filesystem::path& file) {
  if (file.empty()) return;
  journal_.emplace(file);
  try {
    Read();
  } catch (const std::exception& error) {
    throw std::runtime_error("cannot use the tokens in " + file.string() + ": " + error.what());
  }
}

void RefreshTokens::Read() {
  for (const std::string& text : journal_->TakeRecords()) {
    const auto record = base::ParseJson(text);
    if (!record) throw std::runtime_error("a record is not a JSON document");
    for (const Json::Value& entry : (*record)["tokens"]) {
      tokens_[entry["token"].asString()] = {ToIdentity(entry["user"]), entry["revoked"].asBool()};
    }
  }
}

std::string RefreshTokens::Issue(const Identity& user) {
  std::string text = "AQABAAAA" + RandomToken(96);
  const RefreshToken token{.user = user};
  if (journal_) journal_->Append(Record(text, token));
  tokens_[text] = token;
  return text;
}

const RefreshToken* RefreshTokens::Find(std::string_view token) const {
  const auto found = tokens_.find(token);
  return found == tokens_.end() ? nullptr : &found->second;
}

void RefreshTokens::Revoke(std::string_view token) {
  const auto found = tokens_.find(token);
  if (found == tokens_.end()) return;
  found->second.revoked = true;
  if (journal_) journal_->Append(Record(found->first, found->second));
}

void RefreshTokens::RevokeAll() {
  Json::Value record;
  for (auto& [text, token] : tokens_) {
    token.revoked = true;
    record["tokens"].append(ToEntry(text, token));
  }
  if (journal_) journal_->Replace(base::CompactJson(record));
}

}  // namespace emulator
