#include "host/log.h"

#include <utility>

#include "host/text.h"

namespace host {
namespace {

constexpr std::size_t kMostErrorLines = 20;

// The module's line when the service has asked for fewer requests and it is going to wait.
constexpr std::string_view kWaiting = "time(s) backoff left";

thread_local ErrorLines* collector = nullptr;
thread_local ThrottleWatch* throttle_watch = nullptr;

}  // namespace

ErrorLines::ErrorLines() noexcept : outer_(collector) { collector = this; }

ErrorLines::~ErrorLines() { collector = outer_; }

ThrottleWatch::ThrottleWatch(std::function<void()> told)
    : outer_(throttle_watch), told_(std::move(told)) {
  throttle_watch = this;
}

ThrottleWatch::~ThrottleWatch() { throttle_watch = outer_; }

void Log::Write(LOGLEVEL level, const char* format, std::va_list arguments) {
  if (throttle_watch != nullptr && format != nullptr &&
      std::string_view(format).find(kWaiting) != std::string_view::npos) {
    throttle_watch->told_();
  }
  if (format == nullptr || (level != LOGLEVEL_ERROR && !sink_.Wants(level))) return;
  Line(level, FormattedV(format, arguments));
}

void Log::Line(LOGLEVEL level, std::string_view text) {
  const bool collected = level == LOGLEVEL_ERROR && collector != nullptr;
  const bool wanted = sink_.Wants(level);
  if (!collected && !wanted) return;
  const std::string line = EscapeForTerminal(redactor_.Redact(text));
  if (collected) {
    auto& lines = collector->lines_;
    if (lines.size() == kMostErrorLines) lines.erase(lines.begin());
    lines.push_back(line);
  }
  if (wanted) sink_.Write(level, line);
}

void Log::Warn(std::string_view text) { sink_.Warn(redactor_.Redact(text)); }

}  // namespace host
