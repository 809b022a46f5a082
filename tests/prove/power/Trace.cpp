#include "Trace.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace prove {

CTrace::CTrace(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info = {};
  if (descriptor < 0 || ::fstat(descriptor, &info) != 0 || info.st_size == 0) {
    throw std::runtime_error("trace " + path + " cannot be read or is empty");
  }
  size_ = static_cast<std::size_t>(info.st_size);
  void* memory = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, descriptor, 0);
  ::close(descriptor);
  if (memory == MAP_FAILED) {
    throw std::runtime_error("trace " + path + " cannot be mapped");
  }
  memory_ = static_cast<const char*>(memory);
  const std::string_view all(memory_, size_);
  for (std::size_t at = 0; at < size_;) {
    Record record;
    if (size_ - at < sizeof record.head) {
      throw std::runtime_error("trace " + path + " is cut short");
    }
    std::memcpy(&record.head, memory_ + at, sizeof record.head);
    at += sizeof record.head;
    const auto take = [&](std::uint64_t size) {
      if (size > size_ - at) {
        throw std::runtime_error("trace " + path + " is cut short");
      }
      at += size;
      return all.substr(at - size, size);
    };
    record.name = take(record.head.name_size);
    record.other_name = take(record.head.other_name_size);
    record.data = take(record.head.data_size);
    records_.push_back(record);
  }
}

CTrace::~CTrace() {
  ::munmap(const_cast<char*>(memory_), size_);
}

CTraceMarks::CTraceMarks(const std::string& path)
    : descriptor_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600)) {
  if (descriptor_ < 0) {
    throw std::runtime_error("trace " + path + " cannot be made");
  }
}

CTraceMarks::~CTraceMarks() {
  ::close(descriptor_);
}

void CTraceMarks::Write(const std::string& line) {
  RecordHead head;
  head.kind = ERecord::kMark;
  head.name_size = line.size();
  std::string record(reinterpret_cast<const char*>(&head), sizeof head);
  record += line;
  // One call, so that records of two processes never mix.
  if (::write(descriptor_, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
    throw std::runtime_error("the trace cannot be written");
  }
}

}  // namespace prove
