#ifndef TANSY_CLI_PARALLEL_H
#define TANSY_CLI_PARALLEL_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "Failure.h"
#include "Team.h"

namespace Tansy::Cli {

// Runs `work` on several things, a few at a time, and goes on when one fails. `work` returns what is to be printed
// about its thing, or throws CFailure. The texts are printed in the order of the things, each as soon as possible, and
// failures are lines on standard error. Returns the exit code of the first failure in that order, or kExitDone.
int ForEach(const std::vector<std::string>& things, const std::function<std::string(const std::string& thing)>& work);
// Does the same for the numbers from 0 up to `count`. Each member of the team works on one number at a time, and may
// let the others help with it.
int ForEachNumber(std::size_t count, CTeam& team, const std::function<std::string(std::size_t number)>& work);

// Prints one line on standard error: what happened, to what, and what to try.
void PrintFailure(const CFailure& failure);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PARALLEL_H
