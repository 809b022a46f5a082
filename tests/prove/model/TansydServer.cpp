#include "TansydServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace prove {

CTansydServer::CTansydServer(const std::string& folder, const TansydOptions& options)
    : folder_(folder), tansyd_(folder, options.node.empty() ? "data" : "data-" + options.node) {
  launch_.program = options.program.empty() ? TANSYD_WITH_CONTROL : options.program;
  launch_.arguments = options.arguments;
  launch_.with_https = options.tls;
  launch_.with_s3 = true;
  if (!options.node.empty()) {
    launch_.arguments.insert(launch_.arguments.end(), {"--node-name", options.node});
  }
}

std::uint16_t CTansydServer::GetObjectPort() const {
  return launch_.with_https ? tansyd_.GetObjectHttpsPort() : tansyd_.GetObjectPort();
}

std::uint16_t CTansydServer::GetPicturePort() const {
  return launch_.with_https ? tansyd_.GetPictureHttpsPort() : tansyd_.GetPicturePort();
}

std::uint16_t CTansydServer::GetS3Port() const {
  return launch_.with_https ? tansyd_.GetS3HttpsPort() : tansyd_.GetS3Port();
}

system_tests::ConnectOptions CTansydServer::GetConnectOptions() const {
  system_tests::ConnectOptions options;
  options.tls = launch_.with_https;
  return options;
}

bool CTansydServer::Start() {
  launch_.environment = {{"CONTROL_SOCKET", SocketPath()},
                         {"CONTROL_CLOCK", std::to_string(clock_)},
                         {"CONTROL_UPTIME", std::to_string(uptime_)}};
  return tansyd_.Start(launch_);
}

void CTansydServer::SetClock(std::int64_t seconds) {
  clock_ = seconds;
  Command("clock " + std::to_string(seconds));
}

void CTansydServer::LetTimePass(std::int64_t seconds) {
  uptime_ += seconds;
  Command("uptime " + std::to_string(uptime_));
}

std::string CTansydServer::Command(const std::string& line) const {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, SocketPath().c_str(), sizeof address.sun_path - 1);
  const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string answer;
  if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    const std::string text = line + "\n";
    ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
    for (char c = 0; ::read(connection, &c, 1) == 1 && c != '\n';) {
      answer += c;
    }
  }
  ::close(connection);
  return answer == "done" || answer == "refused" ? answer : "";
}

system_tests::Ended CTansydServer::Check(const std::vector<std::string>& arguments) {
  system_tests::CTansyd command(folder_, "command");
  system_tests::Launch launch;
  launch.with_data = launch.with_ports = false;
  launch.arguments = {"--data", tansyd_.Data(), "--check"};
  launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
  return command.RunToEnd(launch);
}

}  // namespace prove
