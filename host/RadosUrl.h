#ifndef TANSY_HOST_RADOS_URL_H
#define TANSY_HOST_RADOS_URL_H

#include <string>

namespace Tansy::Host {

// Where the bytes are when they are in a pool of a Ceph cluster.
struct RadosUrl {
  std::string pool;
  std::string conf = "/etc/ceph/ceph.conf";  // Ceph's own settings file: monitors, keyring, time-outs
  std::string id = "admin";                  // the user is "client." + id
  std::string name_space;                    // may be empty
};

bool IsRadosUrl(const std::string& text);

// Reads "rados://POOL?conf=FILE&id=NAME&namespace=NS", where everything from the "?" on may be left out. Returns false
// for anything else; names may hold letters, digits, ".", "_" and "-" only.
bool ParseRadosUrl(const std::string& text, RadosUrl& url);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_URL_H
