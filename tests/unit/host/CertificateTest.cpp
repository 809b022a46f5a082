#include "Certificate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <memory>

#include "StartFailure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;

using X509Owner = std::unique_ptr<X509, void (*)(X509*)>;

X509Owner Parse(const std::string& pem) {
  BIO* memory = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* certificate = PEM_read_bio_X509(memory, nullptr, nullptr, nullptr);
  BIO_free(memory);
  return {certificate, X509_free};
}

class CertificateTest : public testing::Test {
 protected:
  Tests::CTempFolder temp_;
  std::string path_ = temp_.Path("META_INFO/DefaultCert/A-server");
};

TEST_F(CertificateTest, MakesAPairThatIsGood) {
  EXPECT_TRUE(MakeCertificateIfMissing(path_, {"10.1.2.3", "my-host", "2001:db8::1", "bad,name", ""}));
  EXPECT_EQ(CheckCertificate(path_), "");
  struct stat info = {};
  ASSERT_EQ(::stat((path_ + ".key").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);

  const X509Owner certificate = Parse(temp_.Read("META_INFO/DefaultCert/A-server.crt"));
  ASSERT_NE(certificate, nullptr);
  for (const char* host : {"localhost", "my-host"}) {
    EXPECT_EQ(X509_check_host(certificate.get(), host, 0, 0, nullptr), 1) << host;
  }
  EXPECT_NE(X509_check_host(certificate.get(), "bad,name", 0, 0, nullptr), 1);
  for (const char* address : {"127.0.0.1", "::1", "10.1.2.3", "2001:db8::1"}) {
    EXPECT_EQ(X509_check_ip_asc(certificate.get(), address, 0), 1) << address;
  }
  int days = 0;
  int seconds = 0;
  ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())), 1);
  EXPECT_THAT(days, testing::AllOf(testing::Ge(3650), testing::Le(3653)));
  ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notBefore(certificate.get())), 1);
  EXPECT_LE(days, 0);
  char group[32] = {};
  EVP_PKEY* key = X509_get0_pubkey(certificate.get());
  EXPECT_EQ(EVP_PKEY_get_group_name(key, group, sizeof group, nullptr), 1);
  EXPECT_STREQ(group, "prime256v1");
  EXPECT_EQ(X509_verify(certificate.get(), key), 1);
}

TEST_F(CertificateTest, WhatIsThereIsUsedAsItIs) {
  MakeCertificateIfMissing(path_, {});
  const std::string certificate = temp_.Read("META_INFO/DefaultCert/A-server.crt");
  const std::string key = temp_.Read("META_INFO/DefaultCert/A-server.key");
  EXPECT_FALSE(MakeCertificateIfMissing(path_, {"another-name"}));
  EXPECT_EQ(temp_.Read("META_INFO/DefaultCert/A-server.crt"), certificate);
  EXPECT_EQ(temp_.Read("META_INFO/DefaultCert/A-server.key"), key);
  EXPECT_EQ(CheckCertificate(path_), "");
}

TEST_F(CertificateTest, OneFileWithBothWillDo) {
  MakeCertificateIfMissing(path_, {});
  const std::string both =
      temp_.Read("META_INFO/DefaultCert/A-server.crt") + temp_.Read("META_INFO/DefaultCert/A-server.key");
  Tests::CTempFolder other;
  other.Write("A-server", both);
  EXPECT_FALSE(MakeCertificateIfMissing(other.Path("A-server"), {}));
  EXPECT_EQ(CheckCertificate(other.Path("A-server")), "");
}

TEST_F(CertificateTest, AKeyAloneIsTheRestOfACrashAndIsGoneOnWith) {
  MakeCertificateIfMissing(path_, {});
  const std::string key = temp_.Read("META_INFO/DefaultCert/A-server.key");
  Tests::CTempFolder other;
  other.Write("A-server.key", key);
  EXPECT_TRUE(MakeCertificateIfMissing(other.Path("A-server"), {}));
  EXPECT_EQ(other.Read("A-server.key"), key);
  EXPECT_EQ(CheckCertificate(other.Path("A-server")), "");
}

TEST_F(CertificateTest, BrokenPairsAreToldApart) {
  MakeCertificateIfMissing(path_, {});
  const std::string certificate = temp_.Read("META_INFO/DefaultCert/A-server.crt");
  Tests::CTempFolder other;
  MakeCertificateIfMissing(other.Path("A-server"), {});
  const std::string foreign_key = other.Read("A-server.key");

  const std::string file = "META_INFO/DefaultCert/A-server";
  temp_.Write(file + ".key", foreign_key);
  EXPECT_THAT(CheckCertificate(path_), HasSubstr("does not belong to the key"));
  temp_.Write(file + ".key", "nonsense");
  EXPECT_THAT(CheckCertificate(path_), HasSubstr("no private key"));
  temp_.Write(file + ".crt", "nonsense");
  EXPECT_THAT(CheckCertificate(path_), HasSubstr("holds no PEM certificate"));
  std::filesystem::remove(path_ + ".key");
  temp_.Write(file + ".crt", certificate);
  EXPECT_THAT(CheckCertificate(path_), HasSubstr("cannot be read"));
  EXPECT_FALSE(MakeCertificateIfMissing(path_, {})) << "a certificate without its key is not replaced";
}

TEST_F(CertificateTest, ABrokenKeyIsNotReplaced) {
  temp_.Write("META_INFO/DefaultCert/A-server.key", "nonsense");
  EXPECT_THROW(MakeCertificateIfMissing(path_, {}), CStartFailure);
  EXPECT_EQ(temp_.Read("META_INFO/DefaultCert/A-server.key"), "nonsense");
}

}  // namespace
}  // namespace Tansy::Host
