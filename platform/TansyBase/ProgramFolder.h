#ifndef TANSY_BASE_PROGRAM_FOLDER_H
#define TANSY_BASE_PROGRAM_FOLDER_H

#include <string>

namespace TansyBase {

// What FileUtil::GetCurExeDirUtf8 gives when nobody has said otherwise.
std::string ProgramFolder();

}  // namespace TansyBase

#endif  // TANSY_BASE_PROGRAM_FOLDER_H
