#include <memory>

#include "cli/progress.h"
#include "cli/transfer.h"
#include "cli/upload_source.h"
#include "host/text.h"

namespace cli {
namespace {

void ShowProgress(long long /*total*/, long long done, void* progress, double /*rate*/) {
  static_cast<Progress*>(progress)->MoveTo(done);
}

}  // namespace

void UploadFile(const TransferContext& context, const std::filesystem::path& file,
                const RemoteItem& folder, const std::string& name) {
  CheckWritable(folder);
  CheckNewName(name);
  UploadSource source(file);
  Progress progress(file.string(), source.size(), context.options.quiet);
  const auto handle = std::make_shared<_FS_HANDLE>();
  handle->progress = &ShowProgress;
  handle->progressctx = &progress;
  const Interrupts::Scope scope(context.interrupts);
  const host::Cancellation::Transfers transfers(context.interrupts.cancellation(), {handle});
  const host::NewPlace place{folder.item.id, name, JoinRemotePath(folder.path, name)};
  try {
    context.drive.items().Upload({place, source.size(), handle}, source, file.string());
  } catch (const host::Failure&) {
    context.interrupts.cancellation().Check();
    source.Check();
    throw;
  }
  context.interrupts.cancellation().Check();
  source.Check();
  progress.Finish();
}

}  // namespace cli
