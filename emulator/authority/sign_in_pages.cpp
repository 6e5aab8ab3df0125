#include "emulator/authority/sign_in_pages.h"

namespace emulator {
namespace {

Response HtmlPage(const std::string& body) {
  Response response;
  response.headers = {{"Content-Type", "text/html; charset=utf-8"}, {"Cache-Control", "no-store"}};
  response.text =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Sign in</title>"
      "<meta name=\"viewport\" content=\"width=device-width\"></head>\n<body>" +
      body + "</body></html>\n";
  return response;
}

}  // namespace

Response DeviceCodePage(const std::string& unknown_code) {
  std::string notice;
  if (!unknown_code.empty()) {
    notice = "<p>No device waits for the code \u201c" + EscapeHtml(unknown_code) +
             "\u201d. Check it, or ask the device for a new one.</p>";
  }
  return HtmlPage("<h1>Enter code</h1>" + notice +
                  "<form method=\"post\"><label>The code shown on your device: "
                  "<input name=\"code\" autocomplete=\"off\" autofocus></label> "
                  "<button>Continue</button> "
                  "<button name=\"decline\" value=\"1\">That was not me</button></form>");
}

Response DeviceAnswerPage(const Identity& user, bool approved) {
  return HtmlPage(approved ? "<h1>Signed in</h1><p>You are signed in on your device as " +
                                 EscapeHtml(user.email) + ". You may close this window.</p>"
                           : "<h1>Declined</h1><p>The device was not signed in.</p>");
}

Response ConsentPage(const Identity& user, const FormFields& question) {
  std::string fields;
  for (const auto& [name, value] : question) {
    fields += "<input type=\"hidden\" name=\"" + EscapeHtml(name) + "\" value=\"" +
              EscapeHtml(value) + "\">";
  }
  return HtmlPage("<h1>Sign in</h1><p>The application asks to use the files of " +
                  EscapeHtml(user.email) + ".</p><form method=\"post\">" + fields +
                  "<button>Accept</button> "
                  "<button name=\"decline\" value=\"1\">Cancel</button></form>");
}

Response RefusalPage(const std::string& text) {
  Response page = HtmlPage("<h1>Sorry, but we\u2019re having trouble signing you in.</h1><p>" +
                           EscapeHtml(text) + "</p>");
  page.status = 400;
  return page;
}

}  // namespace emulator
