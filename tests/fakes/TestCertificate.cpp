#include "fakes/TestCertificate.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace Tansy::Tests {

namespace {

struct Deleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter>;
using Certificate = std::unique_ptr<X509, Deleter>;
using Bio = std::unique_ptr<BIO, Deleter>;

template <typename Pointer>
Pointer Checked(Pointer pointer) {
  if (!pointer) {
    throw std::runtime_error("making a test certificate failed");
  }
  return pointer;
}

void Check(bool done) {
  if (!done) {
    throw std::runtime_error("making a test certificate failed");
  }
}

std::string Text(BIO* bio) {
  std::string text(static_cast<std::size_t>(BIO_pending(bio)), '\0');
  BIO_read(bio, text.data(), static_cast<int>(text.size()));
  return text;
}

std::string PemOf(X509* certificate) {
  const Bio bio = Checked(Bio(BIO_new(BIO_s_mem())));
  Check(PEM_write_bio_X509(bio.get(), certificate) == 1);
  return Text(bio.get());
}

std::string PemOf(EVP_PKEY* key) {
  const Bio bio = Checked(Bio(BIO_new(BIO_s_mem())));
  Check(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
  return Text(bio.get());
}

Bio Reader(const std::string& text) {
  return Checked(Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
}

void Extend(X509* certificate, X509* issuer, int id, const std::string& value) {
  X509V3_CTX context{};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, Deleter> extension(X509V3_EXT_conf_nid(nullptr, &context, id, value.c_str()));
  Check(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
}

void Describe(X509* certificate, const TestCertificateOptions& options) {
  std::uint64_t serial = 0;
  unsigned char bytes[sizeof serial]{};
  Check(RAND_bytes(bytes, sizeof bytes) == 1);
  for (const unsigned char byte : bytes) {
    serial = (serial << 8) | byte;
  }
  Check(X509_set_version(certificate, 2) == 1);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), options.valid_from);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.valid_until);
  std::string name = options.common_name;
  // The library's text type is unsigned, its function takes it as such.
  const auto* const bytes_of_name = static_cast<const unsigned char*>(static_cast<const void*>(name.data()));
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, bytes_of_name, -1, -1, 0);
}

}  // namespace

TestCertificate MakeTestCertificate(const TestCertificateOptions& options, const TestCertificate* issuer) {
  const Key key = Checked(Key(EVP_EC_gen("P-256")));
  const Certificate certificate = Checked(Certificate(X509_new()));
  Describe(certificate.get(), options);
  Check(X509_set_pubkey(certificate.get(), key.get()) == 1);

  Certificate issuer_certificate;
  Key issuer_key;
  if (issuer != nullptr) {
    const Bio certificate_text = Reader(issuer->certificate_pem);
    const Bio key_text = Reader(issuer->key_pem);
    issuer_certificate = Checked(Certificate(PEM_read_bio_X509(certificate_text.get(), nullptr, nullptr, nullptr)));
    issuer_key = Checked(Key(PEM_read_bio_PrivateKey(key_text.get(), nullptr, nullptr, nullptr)));
  }
  X509* const signer = issuer_certificate ? issuer_certificate.get() : certificate.get();
  Check(X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)) == 1);
  Extend(certificate.get(), signer, NID_basic_constraints, options.authority ? "critical,CA:TRUE" : "CA:FALSE");
  if (!options.names.empty()) {
    Extend(certificate.get(), signer, NID_subject_alt_name, options.names);
  }
  Check(X509_sign(certificate.get(), issuer_key ? issuer_key.get() : key.get(), EVP_sha256()) > 0);
  return {PemOf(certificate.get()), PemOf(key.get())};
}

CTemporaryFile::CTemporaryFile(const std::string& content)
    : path_((std::filesystem::temp_directory_path() / "tansy-test-XXXXXX").string()) {
  const int file = ::mkstemp(path_.data());
  if (file < 0) {
    throw std::runtime_error("no temporary file");
  }
  const ssize_t written = ::write(file, content.data(), content.size());
  ::close(file);
  if (written != static_cast<ssize_t>(content.size())) {
    throw std::runtime_error("writing a temporary file failed");
  }
}

CTemporaryFile::~CTemporaryFile() {
  ::unlink(path_.c_str());
}

}  // namespace Tansy::Tests
