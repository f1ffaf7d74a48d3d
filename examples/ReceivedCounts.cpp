#include "examples/ReceivedCounts.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>

namespace qxlog::examples {
namespace {

size_t appendBody(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

}  // namespace

std::optional<nlohmann::json> fetchJson(const std::string& url, const std::string& apiToken) {
  std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  if (!curl) return std::nullopt;
  std::string body;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, 2000L);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  // The same CA bundle as the library's uploads.
  for (const char* name : {"SSL_CERT_FILE", "CURL_CA_BUNDLE"}) {
    if (const char* path = std::getenv(name); path != nullptr && *path != '\0') {
      curl_easy_setopt(curl.get(), CURLOPT_CAINFO, path);
      break;
    }
  }
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(nullptr, curl_slist_free_all);
  if (!apiToken.empty()) {
    headers.reset(curl_slist_append(nullptr, ("Authorization: Bearer " + apiToken).c_str()));
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
  }
  long status = 0;
  if (curl_easy_perform(curl.get()) != CURLE_OK) return std::nullopt;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) return std::nullopt;
  auto parsed = nlohmann::json::parse(body, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) return std::nullopt;
  return parsed;
}

int64_t count(const nlohmann::json& answer, const char* group, const std::string& key) {
  const auto it = answer.find(group);
  if (it == answer.end() || !it->is_object()) return 0;
  const auto value = it->find(key);
  return value != it->end() && value->is_number_integer() ? value->get<int64_t>() : 0;
}

}  // namespace qxlog::examples
