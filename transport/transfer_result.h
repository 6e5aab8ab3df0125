// Result of one HTTP exchange.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace onedrive4b {

class CURLImpl;

/// Filled by the transfer operations of CURLImpl. Everything but `curlcode` and `errmsg` is filled
/// only when the exchange completed. The blocks outlive the request object.
struct _CURLRTN {
  std::int32_t curlcode = 0;     ///< libcurl's CURLcode; 0 whatever the HTTP status
  std::string errmsg;            ///< libcurl's message, if the request object asks for it
  std::int32_t httpcode = 0;     ///< status of the last response; 0 for none
  std::shared_ptr<char[]> body;  ///< `bodylen` bytes without NUL; empty for none or when streamed
  std::uint32_t bodylen = 0;
  std::shared_ptr<char[]> header;  ///< raw header blocks of all responses, NUL-terminated
  std::uint32_t headerlen = 0;     ///< bytes of `header` without the NUL
  double upspeed = 0.0;            ///< average bytes per second
  double downspeed = 0.0;          ///< average bytes per second
  std::shared_ptr<CURLImpl> impl;  ///< the request object that carried the exchange
};

}  // namespace onedrive4b
