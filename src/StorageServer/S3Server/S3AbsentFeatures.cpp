#include "StorageServer/S3Server/S3AbsentFeatures.h"

#include <algorithm>
#include <array>

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::array kOfBuckets = {
    AbsentFeature{"accelerate", EError::kNone, "AccelerateConfiguration", "", "", false},
    AbsentFeature{"cors", EError::kNoSuchCorsConfiguration, "", "", "", true},
    AbsentFeature{"encryption", EError::kNoSuchEncryptionConfiguration, "", "", "", true},
    AbsentFeature{"lifecycle", EError::kNoSuchLifecycleConfiguration, "", "", "", true},
    AbsentFeature{"logging", EError::kNone, "BucketLoggingStatus", "", "", false},
    AbsentFeature{"notification", EError::kNone, "NotificationConfiguration", "", "", false},
    AbsentFeature{"object-lock", EError::kNoSuchObjectLockConfiguration, "", "", "", false},
    AbsentFeature{"ownershipControls", EError::kNoSuchOwnershipControls, "", "", "", true},
    AbsentFeature{"policy", EError::kNoSuchBucketPolicy, "", "", "", true},
    AbsentFeature{"policyStatus", EError::kNoSuchBucketPolicy, "", "", "", false},
    AbsentFeature{"publicAccessBlock", EError::kNoSuchPublicAccessBlock, "", "", "", true},
    AbsentFeature{"replication", EError::kNoSuchReplicationConfiguration, "", "", "", true},
    AbsentFeature{"requestPayment", EError::kNone, "RequestPaymentConfiguration", "Payer", "BucketOwner", false},
    AbsentFeature{"tagging", EError::kNoSuchTagSet, "", "", "", true},
    AbsentFeature{"versioning", EError::kNone, "VersioningConfiguration", "", "", false},
    AbsentFeature{"website", EError::kNoSuchWebsiteConfiguration, "", "", "", true},
};

constexpr std::array kOfObjects = {
    AbsentFeature{"legal-hold", EError::kNoSuchObjectLock, "", "", "", false},
    AbsentFeature{"retention", EError::kNoSuchObjectLock, "", "", "", false},
    AbsentFeature{"tagging", EError::kNone, "Tagging", "TagSet", "", true},
};

template <class Features>
const AbsentFeature* FindIn(const Features& features, const Query& query) {
  const auto found = std::find_if(features.begin(), features.end(), [&query](const AbsentFeature& feature) {
    return FindParameter(query, feature.parameter) != nullptr;
  });
  return found != features.end() ? &*found : nullptr;
}

}  // namespace

const AbsentFeature* FindAbsentFeature(const Request& request) {
  if (request.bucket.empty()) {
    return nullptr;
  }
  return request.key.empty() ? FindIn(kOfBuckets, request.query) : FindIn(kOfObjects, request.query);
}

}  // namespace Tansy::CloudStorage::S3
