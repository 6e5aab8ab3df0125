// The commands that change nothing: whoami, df, ls, tree, stat.
//
// Each writes to `out` and throws Failure. One thread.
#pragma once

#include "cli/command_line.h"
#include "cli/output.h"
#include "cli/remote_drive.h"

namespace cli {

struct BrowseContext {
  const Options& options;
  const RemoteDrive& drive;
  Output& out;
};

void WhoAmI(const BrowseContext& context);
void ShowSpace(const BrowseContext& context);
void ListFolder(const BrowseContext& context);
void ShowTree(const BrowseContext& context);
void ShowItem(const BrowseContext& context);

}  // namespace cli
