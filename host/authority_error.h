// What the authority's refusals mean for people.
//
// The numbers are those of the public list of the authority's error codes ("Microsoft Entra
// authentication and authorization error codes").
//
// Pure functions, callable from any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <json/value.h>

#include "host/failure.h"
#include "host/http_client.h"
#include "host/redaction.h"

namespace host {

/// The member "error" of an error document; empty when the answer is none. Then it comes from a
/// server that has trouble, or from something in between, such as the login page of a network.
std::string AuthorityError(const HttpResponse& response);

/// Why the authority gave no tokens, in one line that holds no secret, with what to do about it.
/// kSignIn only when it refuses; kThrottled or kTrouble when it may give them later.
Failure AuthorityFailure(const HttpResponse& response, const Redactor& redactor);

/// A time in seconds, which the authority may write as a number or as text.
std::optional<std::chrono::seconds> SecondsMember(const Json::Value& object, const char* name);

}  // namespace host
