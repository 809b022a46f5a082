// What the system tests of the picture protocol share: forms, signed requests to the picture port, and what its errors
// look like on the wire.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_PICTURE_SYSTEM_TEST_H
#define TANSY_TESTS_SYSTEM_SUPPORT_PICTURE_SYSTEM_TEST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/TansydTest.h"

namespace system_tests {

// Sanitizers keep memory of their own beside each byte, and keep freed memory for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::uint64_t kMemoryFactor = 6;
#else
inline constexpr std::uint64_t kMemoryFactor = 1;
#endif

inline const std::string kWritePath = "/Quorvane/Picture/Write";

struct FormField {
  std::string name;
  std::string value;
  std::string more = {};  // header text behind the name: "; filename=...", "\r\nContent-Type: ..."
};

// A multipart/form-data body: "--" + boundary before each field, and at the end unless `closed` is false.
std::string FormBody(const std::string& boundary, const std::vector<FormField>& fields, bool closed = true);

// The fields that a client sends with a picture.
std::vector<FormField> PictureFields(const std::string& bytes, const std::string& length);
std::vector<FormField> PictureFields(const std::string& bytes);

// A signed upload of a form body; of its content type only the first part is signed.
Request FormRequest(const std::string& boundary, const std::string& body, const Keys& keys = {});

// A picture's address with the signature of a link behind it.
std::string SignedLink(const std::string& address, const Keys& keys = {});

// The whole body of an error as it is sent: its message is GBK.
std::string PictureError(int code);

// The value of a text member of a JSON object; "" when there is none.
std::string JsonText(const std::string& json, const std::string& member);

// A small image of the tests' folder: "sample.jpg" (24 x 16), "sample.png" (20 x 30), "sample.webp" (40 x 10).
std::string SamplePicture(const std::string& name);

class PictureSystemTest : public TansydTest {
 protected:
  static inline const std::string kBoundary = "----boundary4711";

  // To the picture port, or with `options.tls` to its HTTPS port.
  Reply Ask(const Request& request, const ConnectOptions& options = {}) const;
  Reply SendPicture(const std::string& method, const std::string& target, const std::string& body = "",
                    const HeaderList& headers = {}, const ConnectOptions& options = {}) const;
  Reply Upload(const std::string& bytes, const ConnectOptions& options = {}) const;
  // Uploads and gives the picture's address; what goes wrong is reported.
  std::string Store(const std::string& bytes, const ConnectOptions& options = {}) const;
  // Status and error code, for one comparison: "400 -50001"; "200" for success.
  static std::string PictureOutcome(const Reply& reply);
  // The most that the server's resident memory has been, in bytes.
  std::uint64_t PeakMemory() const;
  // tansyd --check with `arguments`, on the stopped server's folder.
  Ended Check(const std::vector<std::string>& arguments = {});
};

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_PICTURE_SYSTEM_TEST_H
