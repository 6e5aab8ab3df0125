// Answers: tells old answers of the service from new ones.
//
// A listing that was asked for before an upload ended may not know the upload's result, and must
// not undo it. So a question is noted when it is asked, and every result of a change as it comes:
// what an answer says of an item that was told of since the question does not count.
//
// Not shared between threads without the owner's lock.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace drive {

class Answers {
 public:
  using Question = std::uint64_t;

  /// Before the request goes out.
  Question Ask() {
    open_.insert(++clock_);
    return clock_;
  }

  /// After the answer was used, or failed.
  void End(Question question) {
    open_.erase(question);
    if (open_.empty()) told_.clear();
  }

  /// A change ended, and its result is in the catalog. `id` may be of an item that it removed.
  void Told(const std::string& id) {
    if (!open_.empty() && !id.empty()) told_[id] = ++clock_;
  }

  bool ToldSince(const std::string& id, Question question) const {
    const auto found = told_.find(id);
    return found != told_.end() && found->second > question;
  }

 private:
  std::uint64_t clock_ = 0;
  std::set<Question> open_;
  std::map<std::string, std::uint64_t> told_;
};

}  // namespace drive
