// Each allocation of writing a line fails once: that line may be lost, and nothing else may.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "fakes/CapturingLogSink.h"
#include "fakes/FailingAllocation.h"
#include "fakes/TempFolder.h"
#include "logging/Logging.h"
#include "logging/StandardSink.h"

namespace logging {
namespace {

using Tansy::Tests::CFailingAllocation;
using Tansy::Tests::CLogCapture;
using Tansy::Tests::FailEachAllocation;

TEST(StandardSinkOutOfMemory, ALostLineHoldsNoFlushUp) {
  const Tansy::Tests::CTempFolder folder;
  std::string error;
  const auto sink = CStandardSink::Create({folder.Path("a.log"), 64}, error);
  ASSERT_NE(sink, nullptr) << error;
  // This text is longer than the buffers in which lines are put together.
  const std::string text(1000, 'x');
  Record record;
  record.level = kError;
  record.module = "platform.test";
  record.text = text;
  FailEachAllocation(
      [&] {
        try {
          sink->Write(record);
        } catch (const std::bad_alloc&) {
        }
      },
      [&](std::size_t number, bool) {
        const auto begin = std::chrono::steady_clock::now();
        sink->Flush();
        // A flush waits 5 s at most, for the case of a disk that does not answer.
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4)) << "allocation " << number;
      });
  EXPECT_NE(folder.Read("a.log").find(text), std::string::npos);
}

TEST(RepeatFilterOutOfMemory, ACallSiteThatLostItsSumSumsUpAgain) {
  const CLogCapture log;
  SetRepeatWindow(600000);
  const auto write = [] { TANSY_LOG(kError, "platform.test", "[%s]a line long enough for memory[%s(%d)]"); };
  write();
  {
    const CFailingAllocation failing(1);
    write();
  }
  write();
  write();
  Flush();
  SetRepeatWindow(0);
  const auto lines = log->Lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines.back().repeats, 2U);
}

}  // namespace
}  // namespace logging
