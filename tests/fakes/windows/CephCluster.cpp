#include "fakes/CephCluster.h"

#include <stdexcept>

// There is no such cluster here. A case that needs one fails when it asks for it.
namespace Tansy::Tests {
namespace {

[[noreturn]] void Refuse() {
  throw std::runtime_error("the tests have no Ceph cluster on this system");
}

}  // namespace

CCephCluster::CCephCluster() {
  Refuse();
}
CCephCluster::~CCephCluster() = default;

CCephCluster& CCephCluster::Shared() {
  static CCephCluster cluster;
  return cluster;
}

std::string CCephCluster::Url(const std::string& /*name_space*/) const {
  Refuse();
}
std::string CCephCluster::Conf(const std::string& /*name*/, const std::string& /*lines*/) const {
  Refuse();
}
std::string CCephCluster::NewNamespace() {
  Refuse();
}
std::string CCephCluster::Ceph(const std::vector<std::string>& /*arguments*/) const {
  Refuse();
}
bool CCephCluster::Rados(const std::string& /*name_space*/, const std::vector<std::string>& /*arguments*/) const {
  Refuse();
}
void CCephCluster::SignalMonitor(int /*signal*/) const {
  Refuse();
}
void CCephCluster::SignalOsd(int /*osd*/, int /*signal*/) const {
  Refuse();
}
void CCephCluster::KillOsd(int /*osd*/) {
  Refuse();
}
void CCephCluster::WaitForOsds() const {
  Refuse();
}
void CCephCluster::SetFull(bool /*is_full*/) const {
  Refuse();
}
std::string CCephCluster::GetLog() const {
  Refuse();
}

}  // namespace Tansy::Tests
