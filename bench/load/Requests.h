// Requests that are signed before a measurement, so that signing costs the load programs nothing.
//
// A file of requests is text. Its first line is a header line that all requests share; each other line is
// METHOD <tab> PATH <tab> AUTHORIZATION, the last one "-" when the path carries the signature.
#ifndef TANSY_BENCH_REQUESTS_H
#define TANSY_BENCH_REQUESTS_H

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace TansyBench {

struct Request {
  std::string method;
  std::string path;
  std::string authorization;  // empty when the path carries the signature
};

struct RequestList {
  std::string common_header;
  std::vector<Request> requests;
};

// How requests of a file are signed: with headers, with a link of the object protocol, with a link of the picture
// protocol, as the upload of a picture's form, or with headers of the S3 protocol (signature version 4, unsigned body).
enum class ESignature { kHeader, kLink, kPictureLink, kForm, kS3 };

// Throws std::runtime_error for a word that names none of them: "header", "link", "picture-link", "form", "s3".
ESignature ParseSignature(const std::string& word);

// Reads lines METHOD <blank> PATH and writes a file of requests, signed with $TANSY_ACCESS_KEY and $TANSY_SECRET_KEY.
// S3's signature covers the host, "127.0.0.1:9702", and the time, which must not be more than 15 minutes ago.
// `host` is for S3 only.
void WriteSigned(std::istream& lines, ESignature signature, std::ostream& requests, const std::string& host = {});

RequestList ReadRequests(const std::string& file);

// Signs one request with headers, as WriteSigned does.
RequestList SignOne(const std::string& method, const std::string& path);

// Gives the head of a request with a body of this size.
std::string Head(const RequestList& list, const Request& request, const std::string& host, std::uint64_t body_size);

}  // namespace TansyBench

#endif  // TANSY_BENCH_REQUESTS_H
