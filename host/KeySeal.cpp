#include "KeySeal.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string_view>

#include "HostSystem/Files.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;
constexpr std::size_t kLargestFile = 4096;
constexpr std::string_view kForm = "1:";  // of a sealed text

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

int Size(const std::string& text) {
  return static_cast<int>(text.size());
}

std::string RandomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  return RAND_bytes(Bytes(bytes), Size(bytes)) == 1 ? bytes : std::string();
}

void Expect(bool done) {
  if (!done) {
    throw std::bad_alloc();  // the library refuses for want of memory only
  }
}

}  // namespace
}  // namespace details

std::optional<CKeySeal> CKeySeal::Read(const std::string& path, std::string& error) {
  error.clear();
  std::string content;
  if (const int problem = HostSystem::ReadWholeFile(path, details::kLargestFile, content); problem != 0) {
    error = problem == ENOENT ? "" : path + " cannot be read: " + HostSystem::ErrorText(problem);
    return std::nullopt;
  }
  while (content.ends_with('\n') || content.ends_with('\r')) {
    content.pop_back();
  }
  std::string key;
  if (!TansyBase::Encrypt::Base64Decode(content, key) || key.size() != details::kKeyBytes) {
    error = path + " does not hold what tansyd wrote into it";
    return std::nullopt;
  }
  return CKeySeal(std::move(key));
}

std::optional<CKeySeal> CKeySeal::Make(const std::string& path, std::string& error) {
  error.clear();
  std::string key = details::RandomBytes(details::kKeyBytes);
  if (key.empty()) {
    error = "the system's random generator gives nothing";
    return std::nullopt;
  }
  if (const int problem = HostSystem::ReplaceFile(path, TansyBase::Encrypt::Base64Encode(key) + "\n"); problem != 0) {
    error = path + " cannot be written: " + HostSystem::ErrorText(problem);
    return std::nullopt;
  }
  return CKeySeal(std::move(key));
}

std::string CKeySeal::Seal(const std::string& text, const std::string& about) const {
  using namespace details;
  const std::string nonce = RandomBytes(kNonceBytes);
  Expect(!nonce.empty());
  const Context context(EVP_CIPHER_CTX_new());
  std::string hidden(text.size(), '\0');
  std::string tag(kTagBytes, '\0');
  std::string end(kTagBytes, '\0');  // this cipher leaves nothing for the end
  int length = 0;
  Expect(context != nullptr &&
         EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, Bytes(key_), Bytes(nonce)) == 1 &&
         EVP_EncryptUpdate(context.get(), nullptr, &length, Bytes(about), Size(about)) == 1 &&
         EVP_EncryptUpdate(context.get(), Bytes(hidden), &length, Bytes(text), Size(text)) == 1 &&
         EVP_EncryptFinal_ex(context.get(), Bytes(end), &length) == 1 &&
         EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, Size(tag), tag.data()) == 1);
  return std::string(kForm) + TansyBase::Encrypt::Base64Encode(nonce + tag + hidden);
}

std::optional<std::string> CKeySeal::Open(const std::string& sealed, const std::string& about) const {
  using namespace details;
  std::string bytes;
  if (!sealed.starts_with(kForm) ||
      !TansyBase::Encrypt::Base64Decode(std::string_view(sealed).substr(kForm.size()), bytes) ||
      bytes.size() < kNonceBytes + kTagBytes) {
    return std::nullopt;
  }
  const std::string nonce = bytes.substr(0, kNonceBytes);
  std::string tag = bytes.substr(kNonceBytes, kTagBytes);
  const std::string hidden = bytes.substr(kNonceBytes + kTagBytes);
  const Context context(EVP_CIPHER_CTX_new());
  std::string text(hidden.size(), '\0');
  std::string end(kTagBytes, '\0');
  int length = 0;
  const bool is_right = context != nullptr &&
                        EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, Bytes(key_), Bytes(nonce)) == 1 &&
                        EVP_DecryptUpdate(context.get(), nullptr, &length, Bytes(about), Size(about)) == 1 &&
                        EVP_DecryptUpdate(context.get(), Bytes(text), &length, Bytes(hidden), Size(hidden)) == 1 &&
                        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, Size(tag), tag.data()) == 1 &&
                        EVP_DecryptFinal_ex(context.get(), Bytes(end), &length) == 1;
  return is_right ? std::optional<std::string>(std::move(text)) : std::nullopt;
}

}  // namespace Tansy::Host
