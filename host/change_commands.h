// The commands that change the tree: mkdir, mv, rm.
//
// One thread; each throws Failure.
#pragma once

#include "host/command_line.h"
#include "host/remote_drive.h"

namespace host {

void MakeFolder(const Options& options, const RemoteDrive& drive);
void MoveItem(const Options& options, const RemoteDrive& drive);
void RemoveItem(const Options& options, const RemoteDrive& drive);

}  // namespace host
