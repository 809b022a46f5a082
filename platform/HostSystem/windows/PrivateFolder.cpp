#include "PrivateFolder.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// sddl.h needs windows.h before it
#include <sddl.h>

#include <memory>
#include <string>
#include <vector>

#include "WindowsError.h"

namespace HostSystem {
namespace {

struct FreeLocal {
  void operator()(void* memory) const { ::LocalFree(memory); }
};
template <typename T>
using Local = std::unique_ptr<T, FreeLocal>;

// Gives the user of this process as the system writes it, "S-1-5-..."; empty after a failure.
std::wstring UserOfProcess() {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) {
    return {};
  }
  const std::unique_ptr<void, decltype(&::CloseHandle)> owner(token, &::CloseHandle);
  std::vector<char> buffer(sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE);
  DWORD size = 0;
  LPWSTR text = nullptr;
  if (!::GetTokenInformation(token, TokenUser, buffer.data(), static_cast<DWORD>(buffer.size()), &size) ||
      !::ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid, &text)) {
    return {};
  }
  const Local<wchar_t> text_owner(text);
  return text;
}

}  // namespace

int MakePrivateFolder(const std::filesystem::path& path) {
  const std::wstring user = UserOfProcess();
  if (user.empty()) {
    return LastErrno();
  }
  // Nothing is inherited from above (P); what is made below inherits these (OICI).
  const std::wstring rights = L"D:P(A;OICI;FA;;;" + user + L")(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(rights.c_str(), SDDL_REVISION_1, &descriptor, nullptr)) {
    return LastErrno();
  }
  const Local<void> descriptor_owner(descriptor);
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor, FALSE};
  return ::CreateDirectoryW(path.c_str(), &attributes) ? 0 : LastErrno();
}

}  // namespace HostSystem
