#include "TansyBase/GuidUtil.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace TansyBase {

std::string GuidUtil::CreateGuid() {
  // This generator has no state of its own: each call asks the operating system, so no thread can repeat another's
  // values.
  boost::uuids::random_generator_pure generator;
  return boost::uuids::to_string(generator());
}

}  // namespace TansyBase
