#include "db_layer/SqlError.h"

#include "db_layer/Connect.h"

namespace db_layer {

void SetOutOfMemory(SqlError& error) noexcept {
  error.code = kErrorMemory;
  error.text = "out of memory";  // short enough for every string to hold it without memory of its own
}

std::string OneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      c = ' ';
    }
  }
  return text;
}

bool SetError(SqlError& error, int code, const std::string& text) {
  error.code = code;
  error.text = OneLine(text);
  return false;
}

}  // namespace db_layer
