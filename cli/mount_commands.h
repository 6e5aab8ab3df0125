// The commands of the mounted drive: mount, unmount, status, sync.
//
// `mount` runs until the drive is unmounted; the others ask the process that does.
#pragma once

#include "cli/command_line.h"
#include "cli/interrupts.h"
#include "host/item_client.h"
#include "mount/background.h"
#include "mount/session.h"

namespace cli {

struct MountContext {
  const Options& options;
  const host::ItemClient& items;
  bool online = true;  ///< false: the service cannot be reached now
  Interrupts& interrupts;
  mounted::Background& background;
};

/// Whether the state folder of these options knows the drive, so that it can be used without the
/// service.
bool IsDriveKnown(const Options& options);

/// Mounts the drive and serves it until it is unmounted. Throws Failure.
void MountDrive(const MountContext& context);

/// Runs unmount, status or sync; false when the command is another one. Throws Failure.
bool RunMountCommand(const Options& options);

}  // namespace cli
