#include <gtest/gtest.h>
#include <pthread.h>

#include <string>
#include <thread>

#include "OSAL/Osal.h"

namespace {

std::string NameOfThisThread() {
  char name[64] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(OsalThreadName, IsWhatTheSystemShowsAndIsCutToWhatItTakes) {
  std::string whole;
  std::string cut;
  std::thread([&] {
    OSAL_SetThreadName("tansy-worker");
    whole = NameOfThisThread();
    OSAL_SetThreadName("tansy-a-name-that-is-too-long");
    cut = NameOfThisThread();
  }).join();
  EXPECT_EQ(whole, "tansy-worker");
  EXPECT_EQ(cut, "tansy-a-name-th");
}

}  // namespace
