// Bodies of forms with several fields.
#ifndef TANSY_NET_WIRE_MULTIPART_FORM_H
#define TANSY_NET_WIRE_MULTIPART_FORM_H

#include <cstddef>
#include <string_view>
#include <vector>

namespace TansyNet {

// One field of a multipart/form-data body. The views point into the request's body and live as long as the body does.
struct FormPart {
  std::string_view name;
  std::string_view file_name;
  std::string_view content_type;
  std::string_view data;
};

// Splits a multipart/form-data body. `content_type` names the boundary. Returns false when there is none or it never
// occurs. When the last boundary is missing, the last part ends with the body. At most `max_parts` parts are returned.
bool ParseMultipartForm(std::string_view content_type, std::string_view body, std::vector<FormPart>& parts,
                        std::size_t max_parts = 1000);

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_MULTIPART_FORM_H
