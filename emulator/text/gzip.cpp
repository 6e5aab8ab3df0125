#include "emulator/text/gzip.h"

#include <cstdint>
#include <stdexcept>

#include <boost/beast/zlib/deflate_stream.hpp>
#include <boost/crc.hpp>

namespace emulator {
namespace {

void AppendLittleEndian(std::uint32_t value, std::string& text) {
  for (unsigned shift = 0; shift < 32; shift += 8) text += static_cast<char>(value >> shift);
}

}  // namespace

// RFC 1952: ten bytes of header, the deflated bytes, their CRC-32 and length.
std::string Gzip(std::string_view bytes) {
  constexpr std::string_view kHeader("\x1f\x8b\x08\0\0\0\0\0\0\x03", 10);
  namespace zlib = boost::beast::zlib;
  zlib::deflate_stream stream;
  std::string deflated(stream.upper_bound(bytes.size()), '\0');
  zlib::z_params parameters;
  parameters.next_in = bytes.data();
  parameters.avail_in = bytes.size();
  parameters.next_out = deflated.data();
  parameters.avail_out = deflated.size();
  boost::system::error_code error;
  stream.write(parameters, zlib::Flush::finish, error);
  if (error && error != zlib::error::end_of_stream) throw std::runtime_error(error.message());
  deflated.resize(deflated.size() - parameters.avail_out);

  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  std::string packed(kHeader);
  packed += deflated;
  AppendLittleEndian(crc.checksum(), packed);
  AppendLittleEndian(static_cast<std::uint32_t>(bytes.size()), packed);
  return packed;
}

}  // namespace emulator
