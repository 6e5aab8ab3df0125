// Listing, page by page. Input: the folder's id, then one answer a line.
#include <set>

#include <curl/curl.h>

#include "fuzz/signed_in_object.h"

namespace {

class EntryChecker final : public IFileList {
 public:
  AERROR AddFile(_FS_FILE_V2* file) override {
    RequireWellFormed(*file);
    return FAILED;
  }
};

// Scheme, host and port that a transfer to the URL would use; "" for none.
std::string OriginOf(const std::string& url) {
  CURLU* parsed = curl_url();
  std::string origin;
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(),
                   CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK) {
    for (const CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
      char* text = nullptr;
      curl_url_get(parsed, part, &text, CURLU_DEFAULT_PORT);
      origin.append(text != nullptr ? text : "?").append("|");
      curl_free(text);
    }
  }
  curl_url_cleanup(parsed);
  for (char& character : origin) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character + 32);
  }
  return origin;
}

void CheckRequests(const std::vector<ScriptedTransfers::Seen>& seen) {
  std::set<std::string> taken;
  for (const ScriptedTransfers::Seen& request : seen) {
    const bool at_service = OriginOf(request.url) == "https|drive.example|443|";
    Require(request.has_token == at_service, "the token goes to the service, and only there");
    Require(!taken.contains(request.url), "no page is asked for again");
    if (request.status / 100 == 2) taken.insert(request.url);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::string id = input.Line();
  SignedInObject drive;
  drive.network.QueueRest(input);
  EntryChecker list;
  const AERROR result = drive->GetFileList(id.c_str(), &list, nullptr);
  Require(result == SUCCESS || result == FAILED, "a listing succeeds or fails");
  CheckRequests(drive.network.seen);

  _FS_FILE_V2 file;
  const AERROR found = drive->GetFileInfo(id.c_str(), &file, nullptr);
  Require(found == SUCCESS || found == FAILED, "a lookup succeeds or fails");
  return 0;
}
