#include "Doctor.h"

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

const char* StateText(EFinding state) {
  return state == EFinding::kOk ? "ok" : state == EFinding::kWarning ? "warning" : "failed";
}

int RunDoctor(const CommandCall& call) {
  int exit_code = kExitDone;
  std::vector<std::vector<std::string>> rows;
  for (const Finding& finding : Examine(UseSettings(call.globals))) {
    exit_code = exit_code == kExitDone ? finding.exit_code : exit_code;
    if (call.globals.json) {
      PrintLine(CJsonLine()
                    .Add("state", StateText(finding.state))
                    .Add("subject", finding.subject)
                    .Add("text", finding.text)
                    .Add("advice", finding.advice)
                    .Text());
    } else if (!call.globals.quiet || finding.state != EFinding::kOk) {
      rows.push_back({StateText(finding.state), finding.subject, Printable(finding.text)});
      if (!finding.advice.empty()) {
        rows.push_back({"", "", "-> " + Printable(finding.advice)});
      }
    }
  }
  PrintTable(rows);
  return exit_code;
}

}  // namespace
}  // namespace details

CommandSpec DoctorCommand() {
  return {
      "",
      "doctor",
      "find out why something does not work",
      "Checks settings, address, keys, clock, bucket, the address of uploads, the other ports, certificate and space, "
      "and says what to "
      "mend. The exit code "
      "is that of the first failure; warnings are none.",
      {},
      {},
      {{"tansy doctor", "check everything"}, {"tansy --server http://10.0.0.5:9700 doctor", "check another server"}},
      details::RunDoctor};
}

}  // namespace Tansy::Cli
