#ifndef TANSY_CLI_PARALLEL_H
#define TANSY_CLI_PARALLEL_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "Failure.h"

namespace Tansy::Cli {

// Does the same with several things, a few at a time, and goes on when one fails. `work` returns what is to be printed
// about its thing, or throws CFailure; the texts come out in the order of the things, each as soon as its turn has
// come, and failures as lines on standard error. Returns the first failure's exit code in that order, or kExitDone.
int ForEach(const std::vector<std::string>& things, const std::function<std::string(const std::string& thing)>& work);

// Runs `work` on `count` threads at once and returns when all of them have ended. When the system gives fewer threads,
// these do it; without any, the calling one does. `work` throws nothing.
void RunOnThreads(std::size_t count, const std::function<void()>& work);

// One line for standard error: what happened, to what, what to try.
void PrintFailure(const CFailure& failure);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PARALLEL_H
