#include "helpers/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

// A larger buffer does not help arguments that the C library keeps refusing.
constexpr int kMostRefusals = 16;

template <typename Char>
std::vector<std::basic_string<Char>> SplitAt(const std::basic_string<Char>& text,
                                             const std::basic_regex<Char>& separator) {
  using Iterator =
      std::regex_token_iterator<typename std::basic_string<Char>::const_iterator, Char>;
  constexpr int kBetweenMatches = -1;
  return {Iterator(text.begin(), text.end(), separator, kBetweenMatches), Iterator()};
}

template <typename Char>
void ReplaceAll(std::basic_string<Char>& text, const std::basic_string<Char>& from,
                const std::basic_string<Char>& to) {
  if (from.empty()) return;
  std::size_t inserted_end = 0;  // of the newest inserted text
  for (std::size_t at = 0; (at = text.find(from, at)) != text.npos;) {
    if (at + from.size() <= inserted_end) {
      ++at;  // lies wholly inside the inserted text: it would be replaced for ever
      continue;
    }
    text.replace(at, from.size(), to);
    inserted_end = at + to.size();
    at += from.size();
  }
}

}  // namespace

std::vector<std::string> split(const std::string& text, const std::regex& separator) {
  return SplitAt(text, separator);
}

std::vector<std::wstring> split(const std::wstring& text, const std::wregex& separator) {
  return SplitAt(text, separator);
}

std::string string_format(std::string format, ...) {
  std::string text(format.size() * 2, '\0');
  for (int refusals = 0; !text.empty() && refusals < kMostRefusals;) {
    std::va_list arguments;
    va_start(arguments, format);
    const int reported = std::vsnprintf(text.data(), text.size(), format.c_str(), arguments);
    va_end(arguments);
    if (reported < 0) {
      ++refusals;
      text.resize(text.size() * 2);
      continue;
    }
    const auto length = static_cast<std::size_t>(reported);
    const bool complete = length < text.size();
    text.resize(complete ? length : length + 1);
    if (complete) return text;
  }
  return {};
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
  ReplaceAll(text, from, to);
}

void replace_all(std::wstring& text, const std::wstring& from, const std::wstring& to) {
  ReplaceAll(text, from, to);
}

bool ends_with(const std::string& text, const std::string& suffix) {
  return text.ends_with(suffix);
}

void strip(char* source, char* destination) {
  if (source == nullptr || destination == nullptr) return;
  const std::string_view text(source);
  const std::size_t first = text.find_first_not_of(' ');
  const std::size_t length =
      first == std::string_view::npos ? 0 : text.find_last_not_of(' ') + 1 - first;
  if (length > 0) std::memmove(destination, source + first, length);
  destination[length] = '\0';
}
