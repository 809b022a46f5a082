#include "Certificate.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <memory>

#include "HostSystem/Files.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kLargestPemFile = std::size_t{1024} * 1024;
constexpr long kTenYearsInDays = 3653;
constexpr long kSecondsOfADay = 86400;
constexpr const char* kCommonName = "tansyd";

struct OpenSslDeleter {
  void operator()(X509* object) const { X509_free(object); }
  void operator()(EVP_PKEY* object) const { EVP_PKEY_free(object); }
  void operator()(BIO* object) const { BIO_free_all(object); }
  void operator()(ASN1_TIME* object) const { ASN1_TIME_free(object); }
  void operator()(X509_EXTENSION* object) const { X509_EXTENSION_free(object); }
};
template <typename T>
using Owned = std::unique_ptr<T, OpenSslDeleter>;

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
  ERR_clear_error();
  throw CStartFailure(kExitFailed, "certificate " + path + " " + what);
}

std::string ReadPem(const std::string& path) {
  std::string content;
  const int error = HostSystem::ReadWholeFile(path, kLargestPemFile, content);
  if (error != 0) {
    Fail(path, "cannot be read: " + HostSystem::ErrorText(error));
  }
  return content;
}

Owned<BIO> MemoryOf(const std::string& pem) {
  return Owned<BIO>(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

Owned<EVP_PKEY> ParseKey(const std::string& pem, const std::string& path) {
  // An empty passphrase is given at once, because nobody is there to be asked for one.
  const auto no_passphrase = [](char*, int, int, void*) { return 0; };
  Owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(MemoryOf(pem).get(), nullptr, no_passphrase, nullptr));
  if (key == nullptr) {
    Fail(path, "holds no private key that can be read without a passphrase");
  }
  return key;
}

Owned<X509> ParseCertificate(const std::string& pem, const std::string& path) {
  Owned<X509> certificate(PEM_read_bio_X509(MemoryOf(pem).get(), nullptr, nullptr, nullptr));
  if (certificate == nullptr) {
    Fail(path, "holds no PEM certificate");
  }
  return certificate;
}

bool Exists(const std::string& path) {
  return HostSystem::GetPathKind(path) != HostSystem::EPathKind::kMissing;
}

std::string ContentOf(BIO* memory) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory, &data);
  return {data, static_cast<std::size_t>(size)};
}

bool IsAddress(const std::string& name) {
  ASN1_OCTET_STRING* address = a2i_IPADDRESS(name.c_str());
  ASN1_OCTET_STRING_free(address);
  return address != nullptr;
}

// Only characters of host names get into the extension's text, because a comma would begin another entry there.
bool IsHostName(const std::string& name) {
  return !name.empty() && name.size() <= 253 &&
         name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-.") ==
             std::string::npos;
}

std::string AlternativeNames(const std::vector<std::string>& names) {
  std::string text = "DNS:localhost,IP:127.0.0.1,IP:::1";
  for (const std::string& name : names) {
    if (IsAddress(name)) {
      text += ",IP:" + name;
    } else if (IsHostName(name) && name != "localhost") {
      text += ",DNS:" + name;
    }
  }
  return text;
}

bool AddExtension(X509* certificate, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  return extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool SetRandomSerial(X509* certificate) {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    return false;
  }
  bytes[0] &= 0x7f;  // makes the number positive
  BIGNUM* number = BN_bin2bn(bytes, sizeof bytes, nullptr);
  const bool set = BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate)) != nullptr;
  BN_free(number);
  return set;
}

Owned<X509> MakeCertificate(EVP_PKEY* key, const std::vector<std::string>& names) {
  Owned<X509> certificate(X509_new());
  X509* raw = certificate.get();
  X509_NAME* subject = X509_get_subject_name(raw);
  const auto* common_name = reinterpret_cast<const unsigned char*>(kCommonName);
  // The certificate begins to count a little earlier, so that a client whose clock is behind accepts it too.
  const bool made =
      X509_set_version(raw, 2) == 1 && SetRandomSerial(raw) &&
      X509_gmtime_adj(X509_getm_notBefore(raw), -kSecondsOfADay) != nullptr &&
      X509_time_adj_ex(X509_getm_notAfter(raw), kTenYearsInDays, 0, nullptr) != nullptr &&
      X509_set_pubkey(raw, key) == 1 &&
      X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, common_name, -1, -1, 0) == 1 &&
      X509_set_issuer_name(raw, subject) == 1 && AddExtension(raw, NID_basic_constraints, "critical,CA:FALSE") &&
      AddExtension(raw, NID_key_usage, "critical,digitalSignature") &&
      AddExtension(raw, NID_ext_key_usage, "serverAuth") && AddExtension(raw, NID_subject_key_identifier, "hash") &&
      AddExtension(raw, NID_subject_alt_name, AlternativeNames(names)) && X509_sign(raw, key, EVP_sha256()) > 0;
  return made ? std::move(certificate) : nullptr;
}

void WriteFile(const std::string& path, const std::string& content) {
  const std::string folder = path.substr(0, path.find_last_of('/'));
  int error = HostSystem::MakeFolders(folder);
  if (error == 0) {
    error = HostSystem::ReplaceFile(path, content);
  }
  if (error != 0) {
    Fail(path, "cannot be written: " + HostSystem::ErrorText(error));
  }
}

Owned<EVP_PKEY> NewKey(const std::string& path) {
  Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  const Owned<BIO> memory(BIO_new(BIO_s_mem()));
  if (key == nullptr ||
      PEM_write_bio_PKCS8PrivateKey(memory.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    Fail(path, "cannot be made");
  }
  WriteFile(path, ContentOf(memory.get()));
  return key;
}

}  // namespace
}  // namespace details

bool MakeCertificateIfMissing(const std::string& path, const std::vector<std::string>& names) {
  const std::string certificate_path = path + ".crt";
  const std::string key_path = path + ".key";
  if (details::Exists(certificate_path) || details::Exists(path)) {
    return false;
  }
  // The key goes first: a crash in between leaves one that the next start goes on with.
  const auto key =
      details::Exists(key_path) ? details::ParseKey(details::ReadPem(key_path), key_path) : details::NewKey(key_path);
  const auto certificate = details::MakeCertificate(key.get(), names);
  const details::Owned<BIO> memory(BIO_new(BIO_s_mem()));
  if (certificate == nullptr || PEM_write_bio_X509(memory.get(), certificate.get()) != 1) {
    details::Fail(certificate_path, "cannot be made");
  }
  details::WriteFile(certificate_path, details::ContentOf(memory.get()));
  return true;
}

std::string CheckCertificate(const std::string& path) {
  const bool is_pair = details::Exists(path + ".crt") || details::Exists(path + ".key");
  const std::string certificate_path = is_pair ? path + ".crt" : path;
  const std::string key_path = is_pair ? path + ".key" : path;
  try {
    const auto certificate = details::ParseCertificate(details::ReadPem(certificate_path), certificate_path);
    const auto key = details::ParseKey(details::ReadPem(key_path), key_path);
    if (X509_check_private_key(certificate.get(), key.get()) != 1) {
      details::Fail(certificate_path, "does not belong to the key " + key_path);
    }
  } catch (const CStartFailure& failure) {
    return failure.what();
  }
  return "";
}

std::optional<std::int64_t> CertificateEnd(const std::string& path) {
  constexpr std::int64_t kSecondsOfADay = std::int64_t{24} * 60 * 60;
  const std::string pair = path + ".crt";
  try {
    const std::string& file = details::Exists(pair) ? pair : path;
    const auto certificate = details::ParseCertificate(details::ReadPem(file), file);
    const details::Owned<ASN1_TIME> beginning(ASN1_TIME_set(nullptr, 0));
    int days = 0;
    int seconds = 0;
    if (beginning == nullptr ||
        ASN1_TIME_diff(&days, &seconds, beginning.get(), X509_get0_notAfter(certificate.get())) != 1) {
      return std::nullopt;
    }
    return days * kSecondsOfADay + seconds;
  } catch (const CStartFailure&) {
    return std::nullopt;
  }
}

}  // namespace Tansy::Host
