// The commands that transfer contents: get, cat, put.
//
// One thread; each throws Failure. In a recursive transfer an item that fails is reported and the
// others go on; the command then ends with a kFailed Failure that counts them.
#pragma once

#include "cli/transfer.h"

namespace cli {

void Get(const TransferContext& context);
void Cat(const TransferContext& context);
void Put(const TransferContext& context);

/// Throws a kLocal Failure for a name from the service that would lead to another local place
/// ("..", "a/b").
void CheckLocalName(const std::string& name);

}  // namespace cli
