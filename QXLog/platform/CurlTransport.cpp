#include "QXLog/platform/CurlTransport.h"

#include <curl/curl.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

namespace qxlog::platform {
namespace {

void initialiseCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct EasyFree {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct ListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

size_t collectAnswer(char* data, size_t size, size_t count, void* target) {
  auto* body = static_cast<std::string*>(target);
  size_t bytes = size * count;
  if (body->size() + bytes > kMaxAnswerBytes) return 0;  // aborts the transfer
  body->append(data, bytes);
  return bytes;
}

std::unique_ptr<curl_slist, ListFree> headerList(const HttpRequest& request) {
  curl_slist* list = nullptr;
  for (const auto& [name, value] : request.headers) {
    std::string line = name + ": " + value;
    curl_slist* extended = curl_slist_append(list, line.c_str());
    if (extended == nullptr) break;
    list = extended;
  }
  // Bodies up to 64 KiB go at once. A larger one first asks with "Expect:
  // 100-continue" (waiting up to 1 s for a server that does not answer it),
  // so that a server over its body limit can refuse it before it is sent,
  // rather than close on it in the middle, which reads as no answer.
  const bool ask = request.body.size() > (std::size_t{64} << 10);
  if (curl_slist* extended = curl_slist_append(list, ask ? "Expect: 100-continue" : "Expect:")) {
    list = extended;
  }
  return std::unique_ptr<curl_slist, ListFree>(list);
}

// The CA bundle named by SSL_CERT_FILE (as OpenSSL reads it) or else
// CURL_CA_BUNDLE (as the curl tool reads it), read once; empty: libcurl's
// built-in bundle, the system's.
const std::string& caBundleFromEnvironment() {
  static const std::string bundle = [] {
    for (const char* name : {"SSL_CERT_FILE", "CURL_CA_BUNDLE"}) {
      if (const char* path = std::getenv(name); path != nullptr && *path != '\0')
        return std::string(path);
    }
    return std::string();
  }();
  return bundle;
}

void configure(CURL* easy, const HttpRequest& request, std::chrono::milliseconds timeLimit,
               curl_slist* headers, std::string* body) {
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
  auto limitMs = static_cast<long>(
      timeLimit.count() > 0
          ? timeLimit.count()
          : std::chrono::duration_cast<std::chrono::milliseconds>(request.timeout).count());
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, limitMs);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, limitMs);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, "QXLog/1.0");
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, request.verifyPeer ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, request.verifyPeer ? 2L : 0L);
  if (const std::string& bundle = caBundleFromEnvironment(); !bundle.empty()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, bundle.c_str());
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  // An announced length over the bound fails before the body is read; an
  // unannounced one is cut off by collectAnswer.
  curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxAnswerBytes));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, collectAnswer);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, body);
  if (request.method == "POST") {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
  } else if (request.method != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
}

}  // namespace

HttpResponse CurlTransport::perform(const HttpRequest& request) {
  HttpResponse response;
  initialiseCurlOnce();
  std::unique_ptr<CURL, EasyFree> easy(curl_easy_init());
  if (!easy) {
    response.error = "could not create an HTTP handle";
    return response;
  }
  auto headers = headerList(request);
  configure(easy.get(), request, timeLimit_, headers.get(), &response.body);
  CURLcode code = curl_easy_perform(easy.get());
  if (code != CURLE_OK) {
    response.error = curl_easy_strerror(code);
    response.body.clear();
    // A server over its body limit may answer before reading the body and
    // close: the send then fails after the status line came. A refusal
    // (4xx) or a server error that came whole enough to read its status is
    // an answer; a cut success is not.
    long status = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status >= 400 && status <= 599) {
      response.completed = true;
      response.status = status;
    }
    return response;
  }
  response.completed = true;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &response.status);
  const char* contentType = nullptr;
  curl_easy_getinfo(easy.get(), CURLINFO_CONTENT_TYPE, &contentType);
  if (contentType != nullptr) response.contentType = contentType;
  curl_off_t retryAfter = 0;
  if (curl_easy_getinfo(easy.get(), CURLINFO_RETRY_AFTER, &retryAfter) == CURLE_OK &&
      retryAfter > 0) {
    response.retryAfterSeconds = static_cast<int64_t>(retryAfter);
  }
  return response;
}

}  // namespace qxlog::platform
