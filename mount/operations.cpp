#include "mount/operations.h"

#include <cerrno>
#include <memory>
#include <new>
#include <span>
#include <stop_token>
#include <string>

#include <unistd.h>

#include "base/files.h"
#include "mount/errno_table.h"
#include "mount/file_system.h"

namespace mounted {
namespace {

/// What a program only sees as an input/output error stands in the log.
int InputOutputError(const std::string& what) {
  base::WriteAll(STDERR_FILENO, "onedrive4b: input/output error: " + what + "\n");
  return EIO;
}

/// The error number of the exception that is being handled.
int CurrentErrno() noexcept {
  try {
    throw;
  } catch (const drive::Error& error) {
    const int number = ErrnoOf(error.reason());
    return number == EIO ? InputOutputError(error.what()) : number;
  } catch (const std::system_error& error) {
    return error.code().value();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (const std::exception& error) {
    return InputOutputError(error.what());
  }
}

FileSystem& FileSystemOf(fuse_req_t request) {
  return *static_cast<FileSystem*>(fuse_req_userdata(request));
}

/// Does the work of a request, during which it may be interrupted, and then answers it.
/// `work(file_system, stop)` returns what `answer(file_system, result)` answers with.
template <class Work, class Answer>
void Serve(fuse_req_t request, const Work& work, const Answer& answer) noexcept {
  FileSystem& files = FileSystemOf(request);
  int error = 0;
  try {
    const auto result = [&] {
      const Requests::Waiting waiting(files.requests(), request);
      return work(files, waiting.token());
    }();
    answer(files, result);
    return;
  } catch (...) {
    error = CurrentErrno();
  }
  fuse_reply_err(request, error);
}

/// The same for requests that are answered with "done".
template <class Work>
void Serve(fuse_req_t request, const Work& work) noexcept {
  int error = 0;
  try {
    FileSystem& files = FileSystemOf(request);
    const Requests::Waiting waiting(files.requests(), request);
    work(files, waiting.token());
  } catch (...) {
    error = CurrentErrno();
  }
  fuse_reply_err(request, error);
}

/// For requests whose answer is an entry. Whoever waited for it may be gone: then the kernel has
/// not taken it.
template <class Work>
void ServeEntry(fuse_req_t request, const Work& work) noexcept {
  Serve(request, work, [request](FileSystem& files, const fuse_entry_param& entry) {
    if (fuse_reply_entry(request, &entry) != 0) files.Forget(entry.ino, 1);
  });
}

void Init(void* /*files*/, fuse_conn_info* connection) {
  const auto want = [&](unsigned capability) {
    connection->want |= connection->capable & capability;
  };
  want(FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_READDIRPLUS |
       FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_ASYNC_READ);
  // There are no setuid bits that a write would have to take away.
  want(FUSE_CAP_HANDLE_KILLPRIV);
  // The kernel is told when a content changes, and keeps its pages otherwise.
  if ((connection->capable & FUSE_CAP_EXPLICIT_INVAL_DATA) != 0) {
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_AUTO_INVAL_DATA);
    connection->want |= FUSE_CAP_EXPLICIT_INVAL_DATA;
  }
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_WRITEBACK_CACHE);
  connection->max_readahead = 1U << 20U;
  // Read-ahead of the kernel counts as background; 12, the default, would starve parallel readers.
  connection->max_background = 64;
  connection->time_gran = 1;
}

// Names. --------------------------------------------------------------------------------------

void Lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  ServeEntry(request, [=](FileSystem& files, std::stop_token stop) {
    return files.Lookup(folder, name, stop);
  });
}

void Forget(fuse_req_t request, fuse_ino_t inode, std::uint64_t count) {
  FileSystemOf(request).Forget(inode, count);
  fuse_reply_none(request);
}

void ForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
  for (const fuse_forget_data& one : std::span(forgets, count)) {
    FileSystemOf(request).Forget(one.ino, one.nlookup);
  }
  fuse_reply_none(request);
}

void MakeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
              dev_t /*device*/) {
  ServeEntry(request, [=](FileSystem& files, std::stop_token stop) {
    return files.MakeNode(folder, name, mode, stop);
  });
}

void MakeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t /*mode*/) {
  ServeEntry(request, [=](FileSystem& files, std::stop_token stop) {
    return files.MakeFolder(folder, name, stop);
  });
}

void RemoveFile(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Serve(request,
        [=](FileSystem& files, std::stop_token stop) { files.RemoveFile(folder, name, stop); });
}

void RemoveFolder(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Serve(request,
        [=](FileSystem& files, std::stop_token stop) { files.RemoveFolder(folder, name, stop); });
}

void Rename(fuse_req_t request, fuse_ino_t from_folder, const char* from, fuse_ino_t to_folder,
            const char* to, unsigned flags) {
  Serve(request, [=](FileSystem& files, std::stop_token stop) {
    files.Rename({from_folder, from, to_folder, to, flags}, stop);
  });
}

// The service knows no links.

void MakeSymbolicLink(fuse_req_t request, const char* /*target*/, fuse_ino_t /*folder*/,
                      const char* /*name*/) {
  fuse_reply_err(request, EPERM);
}

void MakeLink(fuse_req_t request, fuse_ino_t /*inode*/, fuse_ino_t /*folder*/,
              const char* /*name*/) {
  fuse_reply_err(request, EPERM);
}

// Attributes. ---------------------------------------------------------------------------------

void GetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info* /*info*/) {
  Serve(
      request,
      [=](FileSystem& files, const std::stop_token&) { return files.GetAttributes(inode); },
      [=](FileSystem& files, const struct stat& attributes) {
        fuse_reply_attr(request, &attributes, files.TimeoutOf(inode));
      });
}

void CheckAccess(fuse_req_t request, fuse_ino_t inode, int mask) {
  Serve(request,
        [=](FileSystem& files, const std::stop_token&) { files.CheckAccess(inode, mask); });
}

void SetAttributes(fuse_req_t request, fuse_ino_t inode, struct stat* wanted, int which,
                   fuse_file_info* /*info*/) {
  Serve(
      request,
      [=](FileSystem& files, std::stop_token stop) {
        return files.SetAttributes(inode, *wanted, which, stop);
      },
      [=](FileSystem& files, const struct stat& attributes) {
        fuse_reply_attr(request, &attributes, files.TimeoutOf(inode));
      });
}

void GetSpace(fuse_req_t request, fuse_ino_t /*inode*/) {
  Serve(
      request, [](FileSystem& files, std::stop_token stop) { return files.GetSpace(stop); },
      [=](FileSystem&, const struct statvfs& space) { fuse_reply_statfs(request, &space); });
}

/// A program asks for the length first, with `size` 0.
void AnswerExtended(fuse_req_t request, const std::string& value, std::size_t size) {
  if (size == 0) {
    fuse_reply_xattr(request, value.size());
  } else if (size < value.size()) {
    fuse_reply_err(request, ERANGE);
  } else {
    fuse_reply_buf(request, value.data(), value.size());
  }
}

void GetExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t size) {
  Serve(
      request,
      [=](FileSystem& files, const std::stop_token&) { return files.GetExtended(inode, name); },
      [=](FileSystem&, const std::string& value) { AnswerExtended(request, value, size); });
}

void ListExtended(fuse_req_t request, fuse_ino_t inode, std::size_t size) {
  Serve(
      request, [=](FileSystem& files, const std::stop_token&) { return files.ListExtended(inode); },
      [=](FileSystem&, const std::string& names) { AnswerExtended(request, names, size); });
}

// "Not supported", which programs that copy attributes take as a reason to go on without.

void SetExtended(fuse_req_t request, fuse_ino_t /*inode*/, const char* /*name*/,
                 const char* /*value*/, std::size_t /*size*/, int /*flags*/) {
  fuse_reply_err(request, EOPNOTSUPP);
}

void RemoveExtended(fuse_req_t request, fuse_ino_t /*inode*/, const char* /*name*/) {
  fuse_reply_err(request, EOPNOTSUPP);
}

// Files. --------------------------------------------------------------------------------------

void Open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
  Serve(
      request,
      [=](FileSystem& files, std::stop_token stop) {
        files.Open(inode, *info, stop);
        return info;
      },
      [=](FileSystem& files, fuse_file_info* opened) {
        if (fuse_reply_open(request, opened) != 0) files.Release(*opened);
      });
}

void Create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
            fuse_file_info* info) {
  Serve(
      request,
      [=](FileSystem& files, std::stop_token stop) {
        return files.Create(folder, name, mode, *info, stop);
      },
      [=](FileSystem& files, const fuse_entry_param& entry) {
        if (fuse_reply_create(request, &entry, info) == 0) return;
        files.Release(*info);
        files.Forget(entry.ino, 1);
      });
}

void Read(fuse_req_t request, fuse_ino_t /*inode*/, std::size_t size, off_t offset,
          fuse_file_info* info) {
  std::unique_ptr<char[]> buffer;
  Serve(
      request,
      [&](FileSystem& files, std::stop_token stop) {
        buffer = std::make_unique_for_overwrite<char[]>(size);
        return files.Read(*info, offset, std::span(buffer.get(), size), stop);
      },
      [&](FileSystem&, std::size_t got) { fuse_reply_buf(request, buffer.get(), got); });
}

void Write(fuse_req_t request, fuse_ino_t /*inode*/, const char* data, std::size_t size,
           off_t offset, fuse_file_info* info) {
  Serve(
      request,
      [=](FileSystem& files, std::stop_token stop) {
        files.Write(*info, offset, std::span(data, size), stop);
        return size;
      },
      [=](FileSystem&, std::size_t written) { fuse_reply_write(request, written); });
}

void Allocate(fuse_req_t request, fuse_ino_t /*inode*/, int mode, off_t offset, off_t length,
              fuse_file_info* info) {
  Serve(request, [=](FileSystem& files, std::stop_token stop) {
    files.Allocate(*info, mode, offset, length, stop);
  });
}

void CopyRange(fuse_req_t request, fuse_ino_t /*from_inode*/, off_t from_offset,
               fuse_file_info* from, fuse_ino_t /*to_inode*/, off_t to_offset, fuse_file_info* to,
               std::size_t length, int /*flags*/) {
  Serve(
      request,
      [=](FileSystem& files, std::stop_token stop) {
        return files.CopyRange({*from, from_offset, *to, to_offset, length}, stop);
      },
      [=](FileSystem&, std::size_t copied) { fuse_reply_write(request, copied); });
}

void Flush(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
  Serve(request, [=](FileSystem& files, const std::stop_token&) { files.Flush(*info); });
}

void Sync(fuse_req_t request, fuse_ino_t /*inode*/, int /*data_only*/, fuse_file_info* info) {
  Serve(request, [=](FileSystem& files, const std::stop_token&) { files.Sync(*info); });
}

void Release(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
  FileSystemOf(request).Release(*info);
  fuse_reply_err(request, 0);
}

// Folders. ------------------------------------------------------------------------------------

void OpenFolder(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
  Serve(
      request,
      [=](FileSystem& files, std::stop_token stop) {
        files.OpenFolder(inode, *info, stop);
        return info;
      },
      [=](FileSystem& files, fuse_file_info* opened) {
        if (fuse_reply_open(request, opened) != 0) files.ReleaseFolder(*opened);
      });
}

void ServeListing(fuse_req_t request, std::size_t size, off_t offset, const fuse_file_info& info,
                  bool plus) {
  Serve(
      request,
      [&](FileSystem& files, std::stop_token stop) {
        return files.ReadFolder(request, info, offset, size, plus, stop);
      },
      [&](FileSystem& files, const FileSystem::Listing& listing) {
        const auto& buffer = listing.buffer;
        if (fuse_reply_buf(request, buffer.data(), buffer.size()) == 0) return;
        for (const fuse_ino_t inode : listing.given) files.Forget(inode, 1);
      });
}

void ReadFolder(fuse_req_t request, fuse_ino_t /*inode*/, std::size_t size, off_t offset,
                fuse_file_info* info) {
  ServeListing(request, size, offset, *info, false);
}

void ReadFolderPlus(fuse_req_t request, fuse_ino_t /*inode*/, std::size_t size, off_t offset,
                    fuse_file_info* info) {
  ServeListing(request, size, offset, *info, true);
}

void ReleaseFolder(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
  FileSystemOf(request).ReleaseFolder(*info);
  fuse_reply_err(request, 0);
}

void SyncFolder(fuse_req_t request, fuse_ino_t /*inode*/, int /*data_only*/,
                fuse_file_info* /*info*/) {
  Serve(request, [](FileSystem& files, const std::stop_token&) { files.SyncNames(); });
}

}  // namespace

// Locks are not among them: the kernel keeps them, for this machine.
fuse_lowlevel_ops Operations() noexcept {
  fuse_lowlevel_ops operations = {};
  operations.init = Init;
  operations.lookup = Lookup;
  operations.forget = Forget;
  operations.forget_multi = ForgetMany;
  operations.getattr = GetAttributes;
  operations.access = CheckAccess;
  operations.setattr = SetAttributes;
  operations.mknod = MakeNode;
  operations.mkdir = MakeFolder;
  operations.unlink = RemoveFile;
  operations.rmdir = RemoveFolder;
  operations.symlink = MakeSymbolicLink;
  operations.rename = Rename;
  operations.link = MakeLink;
  operations.open = Open;
  operations.create = Create;
  operations.read = Read;
  operations.write = Write;
  operations.flush = Flush;
  operations.release = Release;
  operations.fsync = Sync;
  operations.fallocate = Allocate;
  operations.copy_file_range = CopyRange;
  operations.opendir = OpenFolder;
  operations.readdir = ReadFolder;
  operations.readdirplus = ReadFolderPlus;
  operations.releasedir = ReleaseFolder;
  operations.fsyncdir = SyncFolder;
  operations.statfs = GetSpace;
  operations.setxattr = SetExtended;
  operations.getxattr = GetExtended;
  operations.listxattr = ListExtended;
  operations.removexattr = RemoveExtended;
  return operations;
}

}  // namespace mounted
