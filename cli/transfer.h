// Transfers of one file, which get, cat and put use.
//
// Threads: each call runs on its caller's thread; Download adds threads of its own and waits for
// them. Ctrl-C ends a transfer with a kInterrupted Failure.
// Lifetime: all objects in the context must outlive the call.
#pragma once

#include <filesystem>
#include <string>

#include "cli/command_line.h"
#include "cli/interrupts.h"
#include "cli/output.h"
#include "cli/remote_drive.h"

namespace cli {

struct TransferContext {
  const Options& options;
  const RemoteDrive& drive;
  Output& out;
  Interrupts& interrupts;
};

/// Downloads a file to `target`, which is replaced only after the whole file has arrived and if the
/// item has not changed. Throws Failure.
void Download(const TransferContext& context, const RemoteItem& item,
              const std::filesystem::path& target);

/// Writes a file's content, or the part that the options select, to the output. Throws Failure.
void Print(const TransferContext& context, const RemoteItem& item);

/// Uploads `file` as `name` into `folder`; a file of this name gets a new version. Throws Failure.
void UploadFile(const TransferContext& context, const std::filesystem::path& file,
                const RemoteItem& folder, const std::string& name);

}  // namespace cli
