// What tests do with a store, whichever it is.
#ifndef TANSY_TESTS_UNIT_HOST_STORE_FIXTURE_H
#define TANSY_TESTS_UNIT_HOST_STORE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "FileStore.h"
#include "ObjectStore.h"

namespace Tansy::Host {

// One byte more than what files keep together with others.
inline const std::string kLargeBytes(kLongestSmallBody + 1, 'l');

// A base class beside that of the test framework.
class CStoreFixture {
 protected:
  EStoreResult Save(const std::string& bytes, StoredName& name, EContent content = EContent::kObject) {
    return store_->SaveWhole(content, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name);
  }
  EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const std::string& bytes) {
    return store_->SaveAt(name, offset, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  }
  std::string ReadAll(const StoredName& name) {
    ReadBuffer buffer;
    return TextOf(store_->ReadWhole(name, buffer), buffer);
  }
  std::string ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size) {
    ReadBuffer buffer;
    return TextOf(store_->ReadRange(name, offset, size, buffer), buffer);
  }
  // Counts objects and pictures.
  std::size_t CountStored() {
    std::size_t count = 0;
    for (const EContent content : {EContent::kObject, EContent::kPicture}) {
      EXPECT_TRUE(store_->ForEach(content, [&count](const StoredEntry&) { return ++count > 0; }));
    }
    return count;
  }

  std::unique_ptr<IObjectStore> store_;

 private:
  static std::string TextOf(EStoreResult result, const ReadBuffer& buffer) {
    return result == EStoreResult::kDone ? std::string(buffer.data.get(), buffer.size) : "<unreadable>";
  }
};

}  // namespace Tansy::Host

#endif  // TANSY_TESTS_UNIT_HOST_STORE_FIXTURE_H
