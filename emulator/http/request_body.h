// Small request bodies, read whole.
// Threads: the connection's own. Lifetime: results own their text. Contents of files do not come
// this way: they are streamed.
#pragma once

#include <string>

#include <json/value.h>

#include "emulator/http/message.h"
#include "emulator/text/encoding.h"

namespace emulator {

/// Throws ServiceError (413) beyond one mebibyte.
std::string ReadText(Request& request);

/// The fields of an application/x-www-form-urlencoded body; of any other kind, none.
FormFields ReadForm(Request& request);

/// The object in the body; an empty one when there is no body. Throws ServiceError (400).
Json::Value ReadJsonObject(Request& request);

}  // namespace emulator
