// Client: one drive on the fake service, with the operations that tests need by path.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "drive/drive.h"
#include "tests/drive/fake_service.h"
#include "tests/drive/test_work.h"

namespace drive_test {

class Notes final : public drive::Watcher {
 public:
  void EntryChanged(drive::ItemNumber, const std::string&) override { ++entries; }
  void EntryGone(drive::ItemNumber, const std::string&, drive::ItemNumber) override { ++entries; }
  void FileChanged(drive::ItemNumber) override { ++files; }
  int entries = 0;
  int files = 0;
};

class Client {
 public:
  using Tree = std::map<std::string, std::string>;

  Client(FakeService& service, TestClock& clock, std::mt19937& random, std::string name)
      : remote(service), clock_(clock), random_(random), name_(std::move(name)) {
    std::string folder = (std::filesystem::temp_directory_path() / "drive-XXXXXX").string();
    folder_ = mkdtemp(folder.data());
    options.state = folder_ / "0";
    options.account = "someone";
    options.host = name_;
    Start();
  }
  ~Client() {
    drive_.reset();
    std::filesystem::remove_all(folder_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// As if the process had been killed and started again: the new one finds what was on the disk.
  void Kill() {
    const std::filesystem::path next = folder_ / std::to_string(++runs_);
    std::filesystem::copy(options.state, next, std::filesystem::copy_options::recursive);
    drive_.reset();
    options.state = next;
    Start();
  }

  void Restart() {
    drive_.reset();
    Start();
  }

  drive::Drive& drive() { return *drive_; }
  TestWork& work() { return *work_; }

  drive::ItemNumber Folder(const std::string& path) {
    drive::ItemNumber number = drive::kTop;
    for (const auto& part : std::filesystem::path(path)) {
      if (!part.empty()) number = drive_->Lookup(number, part.string(), {}).number;
    }
    return number;
  }

  drive::Attributes Find(const std::string& path) {
    const std::filesystem::path at(path);
    return drive_->Lookup(Folder(at.parent_path()), at.filename().string(), {});
  }

  /// Makes the file, or empties it and writes it anew.
  void Write(const std::string& path, const std::string& data) {
    const std::filesystem::path at(path);
    const drive::ItemNumber folder = Folder(at.parent_path());
    drive::ItemNumber number = 0;
    try {
      number = drive_->MakeFile(folder, at.filename().string(), false, {}).number;
    } catch (const drive::Error& error) {
      if (error.reason() != drive::Reason::kExists) throw;
      number = drive_->Lookup(folder, at.filename().string(), {}).number;
    }
    const auto file = drive_->Open(number, {.write = true, .truncate = true}, {});
    Pour(file, 0, data);
  }

  drive::ItemNumber Append(const std::string& path, const std::string& data) {
    const drive::ItemNumber number = Find(path).number;
    const auto file = drive_->Open(number, {.write = true}, {});
    Pour(file, drive_->Get(number).size, data);
    return number;
  }

  std::string Read(const std::string& path) { return ReadNumber(Find(path).number); }

  std::string ReadNumber(drive::ItemNumber number) {
    const auto file = drive_->Open(number, {}, {});
    std::string data;
    try {
      std::string piece(50'000, '\0');
      for (;;) {
        const std::size_t got = drive_->Read(*file, std::ssize(data), piece, {});
        if (got == 0) break;
        data.append(piece, 0, got);
      }
    } catch (...) {
      drive_->Close(*file);
      throw;
    }
    drive_->Close(*file);
    return data;
  }

  void Rename(const std::string& from, const std::string& to) {
    const std::filesystem::path a(from);
    const std::filesystem::path b(to);
    const drive::ItemNumber a_folder = Folder(a.parent_path());
    const drive::ItemNumber b_folder = Folder(b.parent_path());
    drive_->Rename(a_folder, a.filename().string(), b_folder, b.filename().string(), false, {});
  }

  void MakeFolder(const std::string& path) {
    const std::filesystem::path at(path);
    drive_->MakeFolder(Folder(at.parent_path()), at.filename().string(), {});
  }

  void Remove(const std::string& path) {
    const std::filesystem::path at(path);
    const drive::ItemNumber folder = Folder(at.parent_path());
    const drive::Attributes found = drive_->Lookup(folder, at.filename().string(), {});
    if (found.kind == Kind::kFile) {
      drive_->RemoveFile(folder, at.filename().string(), {});
    } else {
      drive_->RemoveFolder(folder, at.filename().string(), {});
    }
  }

  Tree GetTree(drive::ItemNumber folder = drive::kTop, const std::string& path = "") {
    Tree tree;
    for (const drive::Entry& entry : drive_->List(folder, {})) {
      const std::string name = path + entry.name;
      if (entry.attributes.kind == Kind::kFile) {
        tree[name] = ReadNumber(entry.attributes.number);
      } else {
        tree[name + '/'];
        tree.merge(GetTree(entry.attributes.number, name + '/'));
      }
    }
    return tree;
  }

  bool Sync() { return drive_->Sync(std::chrono::hours(10), {}); }

  drive::DriveOptions options;
  FakeRemote remote;
  Notes notes;

 private:
  void Start() {
    work_ = std::make_unique<TestWork>(clock_, random_);
    drive_ = std::make_unique<drive::Drive>(
        options,
        drive::DriveParts{.remote = remote, .work = *work_, .clock = clock_, .watcher = notes});
    drive_->Start();
  }

  void Pour(const std::shared_ptr<drive::OpenFile>& file, std::int64_t at,
            const std::string& data) {
    try {
      const std::size_t half = data.size() / 2;
      drive_->Write(*file, at, std::span(data).first(half), {});
      drive_->Write(*file, at + static_cast<std::int64_t>(half), std::span(data).subspan(half), {});
    } catch (...) {
      drive_->Close(*file);
      throw;
    }
    drive_->Close(*file);
  }

  TestClock& clock_;
  std::mt19937& random_;
  std::string name_;
  std::filesystem::path folder_;
  int runs_ = 0;
  std::unique_ptr<TestWork> work_;
  std::unique_ptr<drive::Drive> drive_;
};

}  // namespace drive_test
