// The options of tansyd, which have the same names on the command line and in the settings file.
#ifndef TANSY_HOST_OPTIONS_H
#define TANSY_HOST_OPTIONS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "DatabaseUrl.h"

namespace Tansy::Host {

struct HostOptions {
  std::string data = "./tansy-data";
  std::string config;  // empty stands for tansyd.toml in the data folder
  std::uint16_t object_port = 9700;
  std::uint16_t object_https_port = 9743;  // 0 means no HTTPS
  std::uint16_t picture_port = 9701;
  std::uint16_t picture_https_port = 9744;  // 0 means no HTTPS
  std::uint16_t s3_port = 9702;             // 0 means no HTTP
  std::uint16_t s3_https_port = 9745;       // 0 means no HTTPS
  std::optional<std::uint16_t> admin_port;  // 0 means no admin listener; empty: kUsualAdminPort, if nobody has it
  std::vector<std::string> admin_listen;    // its addresses; empty stands for loopback
  std::string access_log;                   // a file, or "-" for standard output; empty: none
  bool access_log_json = false;
  bool server_timing = false;  // answers say how long they took
  static constexpr std::uint16_t kUsualAdminPort = 9703;
  std::string s3_region = "us-east-1";
  std::string s3_domain;  // empty: no host name stands for a bucket
  bool s3_v2_links = true;
  std::vector<std::string> s3_cors_origins;  // web pages of these may use the S3 protocol
  std::vector<std::string> listen;           // addresses of all listeners; empty stands for all of the machine's
  std::string local_ip;  // empty: an address of the machine, which is looked up again while tansyd runs
  std::string wan_ip;    // empty means that no answer names a WAN address
  std::uint16_t wan_object_port = 0;
  std::uint16_t wan_picture_port = 0;
  std::uint16_t wan_object_https_port = 0;
  std::uint16_t wan_picture_https_port = 0;
  db_layer::DBParam database = SqliteParam("catalogue.db");
  std::string storage = "file:objects";
  std::string node_name;  // empty: this tansyd has catalogue and storage for itself
  bool full_durability = true;
  std::uint32_t memory_limit_mib = 1024;   // memory that requests and answers may take together
  std::uint32_t require_date_minutes = 0;  // 0 means that signatures count whatever their date
  std::int64_t keep_removed_days = 7;      // how long the bytes of removed objects are kept
  std::int64_t keep_failed_seconds = 300;  // the same for bytes of failed, broken-off and overwritten uploads
  int log_level = 3;
  std::string log_file;  // empty stands for standard error

  bool HasHttps() const { return object_https_port != 0 || picture_https_port != 0 || s3_https_port != 0; }
  // Also for an admin listener that strangers can reach.
  bool NeedsCertificate() const;
  bool HasS3() const { return s3_port != 0 || s3_https_port != 0; }
  bool HasWanObjects() const { return !wan_ip.empty() && (wan_object_port != 0 || wan_object_https_port != 0); }
  bool HasWanPictures() const { return !wan_ip.empty() && (wan_picture_port != 0 || wan_picture_https_port != 0); }
};

// Maps option names without dashes to the texts given for them.
using OptionTexts = std::map<std::string, std::string>;

struct OptionRow {
  const char* name;
  const char* value_name;
  const char* help;
  // Takes a text over, or returns what would be right ("give ...").
  std::string (*apply)(HostOptions& options, const std::string& text);
  // The option may be given several times: `apply` then gets all texts at once, with commas between them.
  bool is_list = false;
  // A running tansyd can take a new value over.
  bool is_live = false;
};

// Gives all options that take a value, in the order in which the help lists them.
const std::vector<OptionRow>& OptionTable();

// Applies each text. `source` names where they come from in the failure's line, and `prefix` stands before the name
// ("--"). Throws CStartFailure with `exit_code`.
void ApplyOptions(HostOptions& options, const OptionTexts& texts, const std::string& source, const std::string& prefix,
                  int exit_code);

// Tells which options two sets of texts differ in: those that a running tansyd can take over, and the others.
struct ChangedOptions {
  std::vector<std::string> live;
  std::vector<std::string> others;
};
ChangedOptions CompareOptions(const OptionTexts& before, const OptionTexts& now);

// Checks what single options cannot know: two listeners on one port, or a WAN address without any port, under which no
// server could be found. Throws CStartFailure.
void CheckPorts(const HostOptions& options);

// Gives the part of a URL after its scheme.
std::string UrlPath(const std::string& url);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_OPTIONS_H
