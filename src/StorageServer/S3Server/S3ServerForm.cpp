// Uploads by a form, as browsers send them.
#include <exception>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/S3Server/S3Body.h"
#include "StorageServer/S3Server/S3Keys.h"
#include "StorageServer/S3Server/S3PostPolicy.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using EAdded = CObjectStorageManager::EAdded;

// How a stored form is answered.
struct FormAnswer {
  std::string bucket;
  std::string key;
  std::string etag;
  std::string status;    // 200, 201 or 204, as the form asked for
  std::string redirect;  // where the browser goes on; empty: nowhere
};

std::string Location(const FormAnswer& answer) {
  return "/" + PercentEncode(answer.bucket) + "/" + PercentEncodePath(answer.key);
}

void AnswerCreated(const Recipient& to, const FormAnswer& answer) {
  CXmlWriter xml;
  xml.Open("PostResponse");
  xml.Element("Location", Location(answer));
  xml.Element("Bucket", answer.bucket);
  xml.Element("Key", answer.key);
  xml.Element("ETag", '"' + answer.etag + '"');
  xml.Close("PostResponse");
  const std::string body = xml.Take();
  TansyNet::HttpResponse response = MakeResponse(to, 201);
  response.content_type = "application/xml";
  response.headers["ETag"] = '"' + answer.etag + '"';
  response.headers["Location"] = Location(answer);
  TansyNet::CHttpServer::HttpServerSyncSend(to.handle, response, static_cast<std::uint32_t>(body.size()), body.data());
}

void AnswerStored(const Recipient& to, const FormAnswer& answer) {
  const std::string tag = '"' + answer.etag + '"';
  if (!answer.redirect.empty()) {
    const char separator = answer.redirect.find('?') == std::string::npos ? '?' : '&';
    AnswerEmpty(to, 303,
                {{"Location", answer.redirect + separator + "bucket=" + PercentEncode(answer.bucket) +
                                  "&key=" + PercentEncode(answer.key) + "&etag=" + PercentEncode(tag)}});
  } else if (answer.status == "201") {
    AnswerCreated(to, answer);
  } else {
    AnswerEmpty(to, answer.status == "200" ? 200 : 204, {{"ETag", tag}, {"Location", Location(answer)}});
  }
}

void AnswerForm(const Recipient& to, const FormAnswer& answer, EAdded result) noexcept {
  try {
    if (result == EAdded::kAdded) {
      AnswerStored(to, answer);
    } else {
      const bool has_bucket = CObjectStorageManager::Instance().IsBucketExist(answer.bucket);
      AnswerFailure(to, has_bucket ? EError::kInternalError : EError::kNoSuchBucket);
    }
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]answer failed[%s], handle = %d[%s(%d)]", error.what(), to.handle);
    CS3Server::Instance().EndRequest(to.handle, EError::kInternalError);
  }
}

// Compares the file with the digests that the form names.
Failure CheckFile(std::string& md5, const PostForm& form, const LowerHeaders& headers) {
  CBody body;
  Failure failure = body.Begin({}, headers);
  if (!failure) {
    failure = body.Add(form.file, [](std::string_view) {});
  }
  if (!failure) {
    failure = body.End();
  }
  md5 = body.Md5();
  return failure;
}

Failure CheckKey(const std::string& key) {
  if (key.empty()) {  // a browser sends an empty file name when nobody has chosen a file
    return {EError::kInvalidArgument, "The key of the object is empty."};
  }
  return key.size() > kMaxKeyBytes ? Failure(EError::kKeyTooLong) : Failure();
}

// Checks who signed the form, and that this key may store something in the bucket.
Failure CheckSigner(const PostForm& form, const Request& request) {
  const std::time_t now = TansyBase::TimeUtil::Now();
  Identity identity;
  S3KeyPointer signer;
  Failure failure = FindIdentity(identity, signer, request.config, AccessKeyOfForm(form), now);
  if (!failure) {
    failure = CheckPostPolicy(form, request.bucket, identity, request.config.v2_links, now);
  }
  return failure ? failure : CheckAccess(signer, EAccess::kWrite, request.bucket);
}

}  // namespace

bool CS3Server::IsForm(const Request& request) {
  return request.method == "POST" && !request.bucket.empty() && request.key.empty() && request.query.empty() &&
         ToLower(ValueOf(request.headers, "content-type")).starts_with("multipart/form-data");
}

// Its signature is in the form itself, so the form is read first.
void CS3Server::PostObject(const Request& request) {
  PostForm form;
  LowerHeaders headers;
  Attributes attributes;
  Failure failure = ReadPostForm(form, request.msg.FormParts());
  if (!failure) {
    failure = CheckSigner(form, request);
  }
  if (!failure && !CObjectStorageManager::Instance().IsBucketExist(request.bucket)) {
    failure = EError::kNoSuchBucket;
  }
  if (!failure) {
    failure = CheckKey(KeyOfForm(form));
  }
  if (!failure) {
    headers = HeadersOfForm(form);
    failure = CheckUnsupportedHeaders(headers);
  }
  if (!failure) {
    failure = TakeHeaders(attributes, headers);
  }
  if (!failure) {
    failure = CheckFile(attributes.etag, form, headers);
  }
  ObjectInfo object;
  if (!failure) {
    object.url = CloudStorage::details::LocationText(request.bucket);
    const int result = CloudStorage::details::SaveObject(request.config, object.url, form.file);
    failure = result == 0 ? Failure() : StorageFailure(result);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  object.bucket_name = request.bucket;
  object.name = NameOfKey(KeyOfForm(form));
  object.size = form.file.size();
  object.update_time = TansyBase::TimeUtil::TimeT2StrUTCDatetime(TansyBase::TimeUtil::Now());
  const FormAnswer answer = {request.bucket, KeyOfForm(form), attributes.etag, form.Field("success_action_status"),
                             form.Field("success_action_redirect")};
  CObjectStorageManager::Instance().AddObject(
      object, {{}, ToText(attributes)}, {},
      [to = Recipient(request), answer](EAdded result) { AnswerForm(to, answer, result); });
}

}  // namespace Tansy::CloudStorage::S3
