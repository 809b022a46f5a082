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
  std::string advice;               // what to do about it; empty when there is nothing to do
  EExitCode exit_code = kExitDone;  // meant for a failure
};

// Checks address, ports, keys, clock, bucket, address of uploads, S3 door, certificate and space. It never throws
// CFailure, because everything that goes wrong is a finding.
std::vector<Finding> Examine(const Settings& settings);

// Says when the first certificate of a PEM file ends; -1 when no certificate can be read.
std::time_t CertificateEnd(const std::string& path);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DOCTOR_H
