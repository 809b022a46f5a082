#include "ClientSettings.h"

#include "HostSystem/Files.h"

namespace Tansy::Cli {
namespace details {
namespace {

std::string Export(const std::string& name, const std::string& value) {
  return "export " + name + "=" + ShellWord(value) + "\n";
}

// Programs may run in other folders than this one.
std::string Certificate(const Settings& settings) {
  return settings.ca.empty() ? "" : HostSystem::AbsolutePath(settings.ca);
}

std::string AwsKeys(const Settings& settings) {
  return Export("AWS_ACCESS_KEY_ID", settings.access_key) + Export("AWS_SECRET_ACCESS_KEY", settings.secret_key) +
         Export("AWS_DEFAULT_REGION", settings.s3_region);
}

// Versions before 2.13 do not know the variable for the address, so a function names it too.
std::string ForAws(const Settings& settings) {
  const std::string url = S3Server(settings).Url();
  std::string text = "# for the AWS command line: eval \"$(tansy env aws)\"\n" + AwsKeys(settings) +
                     Export("AWS_ENDPOINT_URL_S3", url);
  if (!settings.ca.empty()) {
    text += Export("AWS_CA_BUNDLE", Certificate(settings));
  }
  return text + "aws() { command aws --endpoint-url " + ShellWord(url) + (settings.insecure ? " --no-verify-ssl" : "") +
         " \"$@\"; }\n";
}

std::string ForS3cmd(const Settings& settings) {
  const ServerAddress& address = S3Server(settings);
  std::string text = "# for s3cmd: (umask 077 && tansy env s3cmd > ~/.s3cfg)\n[default]\n";
  text += "access_key = " + settings.access_key + "\nsecret_key = " + settings.secret_key + "\n";
  text += "host_base = " + address.HostAndPort() + "\nhost_bucket = " + address.HostAndPort() + "\n";
  text += "bucket_location = " + settings.s3_region + "\n";
  text += std::string("use_https = ") + (address.is_https ? "True" : "False") + "\n";
  if (!settings.ca.empty()) {
    text += "ca_certs_file = " + Certificate(settings) + "\n";
  }
  return settings.insecure ? text + "check_ssl_certificate = False\n" : text;
}

std::string ForRclone(const Settings& settings) {
  std::string text = "# for rclone: eval \"$(tansy env rclone)\"; the server is called tansy:\n";
  text += Export("RCLONE_CONFIG_TANSY_TYPE", "s3") + Export("RCLONE_CONFIG_TANSY_PROVIDER", "Other") +
          Export("RCLONE_CONFIG_TANSY_ENDPOINT", S3Server(settings).Url()) +
          Export("RCLONE_CONFIG_TANSY_REGION", settings.s3_region) +
          Export("RCLONE_CONFIG_TANSY_ACCESS_KEY_ID", settings.access_key) +
          Export("RCLONE_CONFIG_TANSY_SECRET_ACCESS_KEY", settings.secret_key) +
          Export("RCLONE_CONFIG_TANSY_FORCE_PATH_STYLE", "true");
  if (!settings.ca.empty()) {
    text += Export("RCLONE_CA_CERT", Certificate(settings));
  }
  return settings.insecure ? text + Export("RCLONE_NO_CHECK_CERTIFICATE", "true") : text;
}

std::string ForRestic(const Settings& settings) {
  const std::string bucket = settings.pool.empty() ? "restic" : settings.pool;
  std::string text =
      "# for restic: eval \"$(tansy --pool BUCKET env restic)\"; it asks for the password of its repository\n";
  text += AwsKeys(settings) + Export("RESTIC_REPOSITORY", "s3:" + S3Server(settings).Url() + "/" + bucket);
  if (!settings.ca.empty()) {
    text += Export("RESTIC_CACERT", Certificate(settings));
  }
  return settings.insecure
             ? text + "# restic before 0.14 always checks the certificate; newer ones have --insecure-tls\n"
             : text;
}

}  // namespace
}  // namespace details

std::string ClientSettings(const std::string& client, const Settings& settings) {
  return client == "aws"      ? details::ForAws(settings)
         : client == "s3cmd"  ? details::ForS3cmd(settings)
         : client == "rclone" ? details::ForRclone(settings)
                              : details::ForRestic(settings);
}

std::string ShellWord(const std::string& text) {
  std::string word = "'";
  for (const char c : text) {
    word += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return word + "'";
}

}  // namespace Tansy::Cli
