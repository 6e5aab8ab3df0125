// The person's own browser.
//
// One thread.
#pragma once

#include <string>

namespace cli {

/// Whether a browser on this machine can show a page to whoever runs the program: there is a
/// display, and the person does not come from another machine.
bool HasBrowser();

/// Asks the desktop to open the address; does not wait, and cannot tell whether it was shown.
void OpenInBrowser(const std::string& address) noexcept;

}  // namespace cli
