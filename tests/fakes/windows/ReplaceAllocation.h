#ifndef TANSY_TESTS_FAKES_WINDOWS_REPLACE_ALLOCATION_H
#define TANSY_TESTS_FAKES_WINDOWS_REPLACE_ALLOCATION_H

namespace Tansy::Tests {

// Makes all libraries of the process use the program's operators new and delete. On this system each program or library
// calls the ones that it was linked with, which are those of the standard library. Returns true.
bool ReplaceAllocationEverywhere();

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_WINDOWS_REPLACE_ALLOCATION_H
