// Looks at everything that a transfer needs, one thing after another.
#ifndef TANSY_CLI_DOCTOR_H
#define TANSY_CLI_DOCTOR_H

#include <ctime>
#include <string>
#include <vector>

#include "Failure.h"
#include "Settings.h"

namespace Tansy::Cli {

enum class EFinding { kOk, kWarning, kFailure };

struct Finding {
  EFinding state = EFinding::kOk;
  std::string subject;  // "address", "clock"
  std::string text;
  std::string advice;               // what to mend; empty when there is nothing
  EExitCode exit_code = kExitDone;  // of a failure
};

// Address, ports, keys, clock, bucket, address of uploads, certificate, space. Never throws CFailure: what goes wrong
// is a finding.
std::vector<Finding> Examine(const Settings& settings);

// When the first certificate of a PEM file ends, -1 when there is none to read.
std::time_t CertificateEnd(const std::string& path);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DOCTOR_H
