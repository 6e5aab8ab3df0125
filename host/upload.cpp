#include <memory>

#include "host/progress.h"
#include "host/text.h"
#include "host/transfer.h"
#include "host/upload_source.h"

namespace host {
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
  _FS_FILE_V2 record;
  record.filename = name;
  record.size = source.size();
  const Interrupts::Scope scope(context.interrupts);
  const Cancellation::Transfers transfers(context.interrupts.cancellation(), {handle});
  const AERROR result = context.drive.protocol().Upload(folder.record.id.c_str(), handle, &source,
                                                        &record, UPLOAD_FLAG{}, nullptr);
  context.interrupts.cancellation().Check();
  source.Check();
  context.drive.session().Check(result, "uploading " + Quoted(file.string()) + " to " +
                                            Quoted(JoinRemotePath(folder.path, name)));
  progress.Finish();
}

}  // namespace host
