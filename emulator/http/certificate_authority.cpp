#include "emulator/http/certificate_authority.h"

#include <ctime>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include "base/files.h"

namespace emulator {
namespace {

template <auto Free>
struct Freer {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freer<X509_free>>;
using Bio = std::unique_ptr<BIO, Freer<BIO_free_all>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freer<X509_EXTENSION_free>>;

void Require(bool done, const char* doing) {
  if (done) return;
  const char* reason = ERR_reason_error_string(ERR_get_error());
  throw std::runtime_error(std::string("cannot make a certificate: ") + doing + ": " +
                           (reason == nullptr ? "unknown reason" : reason));
}

Key NewKey() {
  Key key(EVP_EC_gen("P-256"));
  Require(key != nullptr, "key");
  return key;
}

void SetRandomSerial(X509* certificate) {
  unsigned char bytes[8];
  Require(RAND_bytes(bytes, sizeof bytes) == 1, "random serial number");
  std::uint64_t serial = 0;
  for (const unsigned char byte : bytes) serial = serial << 8U | byte;
  // The top bit stays clear (RFC 5280 section 4.1.2.2: positive).
  Require(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1U) == 1, "serial");
}

constexpr long kDay = 24L * 60 * 60;
constexpr long kLifeOfOneRun = 14 * kDay;
constexpr long kLifeInFile = 365 * kDay;

struct Wanted {
  std::string host_name;
  long seconds;  // that it is good for, from now on
};

Certificate NewCertificate(EVP_PKEY* key, const std::string& common_name, long seconds) {
  Certificate certificate(X509_new());
  Require(certificate != nullptr && X509_set_version(certificate.get(), X509_VERSION_3) == 1,
          "new");
  SetRandomSerial(certificate.get());
  Require(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDay) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(certificate.get()), seconds) != nullptr &&
              X509_set_pubkey(certificate.get(), key) == 1,
          "validity");
  X509_NAME* name = X509_get_subject_name(certificate.get());
  Require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(common_name.c_str()),
                                     -1, -1, 0) == 1,
          "name");
  return certificate;
}

void AddExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  Require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1,
          value.c_str());
}

void Sign(X509* certificate, X509* issuer, EVP_PKEY* issuer_key) {
  Require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1, "issuer");
  Require(X509_sign(certificate, issuer_key, EVP_sha256()) > 0, "signature");
}

template <typename Write>
std::string ToPem(Write write) {
  const Bio bio(BIO_new(BIO_s_mem()));
  Require(bio != nullptr && write(bio.get()) == 1, "PEM");
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(length)};
}

std::string ToPem(X509* certificate) {
  return ToPem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

ServerIdentity Make(const Wanted& wanted) {
  const Key authority_key = NewKey();
  const Certificate authority =
      NewCertificate(authority_key.get(), "OneDrive emulator", wanted.seconds);
  AddExtension(authority.get(), authority.get(), NID_basic_constraints,
               "critical,CA:TRUE,pathlen:0");
  AddExtension(authority.get(), authority.get(), NID_key_usage, "critical,keyCertSign");
  AddExtension(authority.get(), authority.get(), NID_subject_key_identifier, "hash");
  Sign(authority.get(), authority.get(), authority_key.get());

  const Key key = NewKey();
  const Certificate server = NewCertificate(key.get(), wanted.host_name, wanted.seconds);
  std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
  if (wanted.host_name != "localhost") names += ",DNS:" + wanted.host_name;
  AddExtension(server.get(), authority.get(), NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(server.get(), authority.get(), NID_key_usage, "critical,digitalSignature");
  AddExtension(server.get(), authority.get(), NID_ext_key_usage, "serverAuth");
  AddExtension(server.get(), authority.get(), NID_authority_key_identifier, "keyid");
  AddExtension(server.get(), authority.get(), NID_subject_alt_name, names);
  Sign(server.get(), authority.get(), authority_key.get());

  return {ToPem(authority.get()), ToPem(server.get()), ToPem([&](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
          })};
}

/// In the order in which KeepServerIdentity writes them.
std::optional<ServerIdentity> ReadIdentity(const std::string& text) {
  constexpr std::string_view kBegin = "-----BEGIN ";
  const auto second = text.find(kBegin, kBegin.size());
  const auto third = second == std::string::npos ? second : text.find(kBegin, second + 1);
  if (third == std::string::npos) return std::nullopt;
  return ServerIdentity{text.substr(0, second), text.substr(second, third - second),
                        text.substr(third)};
}

Bio ReaderOf(const std::string& text) {
  return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

Certificate ReadCertificate(const std::string& pem) {
  return Certificate(PEM_read_bio_X509(ReaderOf(pem).get(), nullptr, nullptr, nullptr));
}

/// Whether all three can be read and belong together.
bool IsWhole(const ServerIdentity& identity) {
  const Certificate authority = ReadCertificate(identity.authority_pem);
  const Certificate server = ReadCertificate(identity.certificate_pem);
  const Key key(
      PEM_read_bio_PrivateKey(ReaderOf(identity.key_pem).get(), nullptr, nullptr, nullptr));
  return authority && server && key && X509_check_private_key(server.get(), key.get()) == 1 &&
         X509_verify(server.get(), X509_get0_pubkey(authority.get())) == 1;
}

bool IsGoodFor(const ServerIdentity& identity, const Wanted& wanted) {
  const Certificate server = ReadCertificate(identity.certificate_pem);
  std::time_t end = std::time(nullptr) + wanted.seconds;
  return X509_cmp_time(X509_get0_notAfter(server.get()), &end) > 0 &&
         X509_check_host(server.get(), wanted.host_name.data(), wanted.host_name.size(), 0,
                         nullptr) == 1;
}

}  // namespace

ServerIdentity MakeServerIdentity(const std::string& host_name) {
  return Make({host_name, kLifeOfOneRun});
}

ServerIdentity KeepServerIdentity(const std::filesystem::path& file, const std::string& host_name) {
  constexpr std::size_t kLimit = std::size_t{64} * 1024;
  if (const auto text = base::ReadFileIfAny(file, kLimit)) {
    const auto kept = ReadIdentity(*text);
    if (!kept || !IsWhole(*kept)) {
      throw std::runtime_error("the certificates in " + file.string() +
                               " are damaged; without the file new ones are made");
    }
    if (IsGoodFor(*kept, {host_name, kLifeOfOneRun})) return *kept;
  }
  ServerIdentity made = Make({host_name, kLifeInFile});
  base::ReplaceFile(file, made.authority_pem + made.certificate_pem + made.key_pem, 0600);
  return made;
}

}  // namespace emulator
