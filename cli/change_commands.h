// The commands that change the tree: mkdir, mv, rm.
//
// One thread; each throws Failure.
#pragma once

#include "cli/command_line.h"
#include "cli/remote_drive.h"

namespace cli {

void MakeFolder(const Options& options, const RemoteDrive& drive);
void MoveItem(const Options& options, const RemoteDrive& drive);
void RemoveItem(const Options& options, const RemoteDrive& drive);

}  // namespace cli
