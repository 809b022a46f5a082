// Certificates made on the spot, so that no test depends on files or dates.
#ifndef TANSY_TESTS_FAKES_TEST_CERTIFICATE_H
#define TANSY_TESTS_FAKES_TEST_CERTIFICATE_H

#include <string>
#include <vector>

namespace Tansy::Tests {

struct TestCertificate {
  std::string certificate_pem;
  std::string key_pem;
};

struct TestCertificateOptions {
  // Subject alternative names in OpenSSL's form.
  std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
  std::string common_name = "scripted server";
  // Validity in seconds from now; negative numbers lie in the past.
  long valid_from = -3600;
  long valid_until = 24 * 3600;
  bool authority = false;  // may sign other certificates
};

// A self-signed certificate with a fresh P-256 key, or one signed by `issuer`. Throws std::runtime_error.
TestCertificate MakeTestCertificate(const TestCertificateOptions& options = {},
                                    const TestCertificate* issuer = nullptr);

// A file that lives as long as the object.
class CTemporaryFile {
 public:
  explicit CTemporaryFile(const std::string& content);
  ~CTemporaryFile();
  CTemporaryFile(const CTemporaryFile&) = delete;
  CTemporaryFile& operator=(const CTemporaryFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_TEST_CERTIFICATE_H
