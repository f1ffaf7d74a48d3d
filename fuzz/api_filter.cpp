// Any query string on the dashboard's /api/ paths, over a small SQLite store
// of plays with awkward titles and devices. The filter takes the first "from",
// "to", "device" and "title" field, each within its 256-character bound,
// numbers only when the whole text is one; every answer is 200 and JSON; and
// the store finds exactly the seeded rows that the filter admits: nothing
// else, whatever wildcards or quotes the title holds.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "QXLog/serial/Json.h"
#include "collector/dashboard/Dashboard.h"
#include "collector/http/FormFields.h"
#include "collector/store/CollectorStore.h"

namespace {

using qxlog::Array;
using qxlog::Dictionary;
using qxlog::Value;
namespace collector = qxlog::collector;

constexpr std::size_t kLongestField = 256;

struct Seed {
  int64_t receivedAt;
  const char* device;
  const char* title;
};
// Titles that a careless LIKE or JSON match would mix up.
constexpr Seed kSeeds[] = {{1000, "dev-1", "film_1"},
                           {2000, "dev-2", "film%2"},
                           {3000, "dev-1", "filmA1"},
                           {4000, "dev_1", "a\"b!\\c"},
                           {5000, "dev-2", "\xc3\xa9t\xc3\xa9"},
                           {6000, "dev-1", ""}};

Dictionary strings(std::initializer_list<std::pair<const char*, std::string>> pairs) {
  Dictionary out;
  for (const auto& [key, value] : pairs) out.setString(key, value);
  return out;
}

collector::CollectorStore& store() {
  static std::unique_ptr<collector::CollectorStore> opened = [] {
    std::string directory =
        (std::filesystem::temp_directory_path() / ("qxlog-fuzz-api-" + std::to_string(::getpid())))
            .string();
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    std::string error;
    auto store = collector::CollectorStore::open(directory + "/store.db", error);
    if (!store) std::abort();
    int n = 0;
    for (const Seed& seed : kSeeds) {
      const std::string id = std::to_string(++n);
      Dictionary header = strings({{"a_t", "1"}, {"a_7", seed.title}, {"play_id", id}});
      header.set("p", Value(Array{Value(strings({{"p_2", "1"}}))}));
      collector::UploadRow upload{
          seed.receivedAt,     "127.0.0.1:1", "t", "digest-" + id, strings({{"t_2", seed.device}}),
          Array{Value(header)}};
      Dictionary report;
      report.set("play_summary",
                 Value(strings({{"play_id", id}, {"movie_id", seed.title}, {"failed", "0"}})));
      collector::DiagnosisRow diagnosis{
          seed.receivedAt, "127.0.0.1:1", "t", "u", seed.device, "", "", "", Value(report)};
      if (!store->addUpload(upload, error) || !store->addDiagnosis(diagnosis, error)) std::abort();
    }
    return store;
  }();
  return *opened;
}

const std::string* first(const std::multimap<std::string, std::string>& params, const char* name) {
  auto found = params.find(name);
  return found != params.end() ? &found->second : nullptr;
}

bool isDecimal(const std::string& text) {
  std::size_t i = !text.empty() && text[0] == '-' ? 1 : 0;
  if (i == text.size()) return false;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

void checkText(const std::optional<std::string>& taken, const std::string* given) {
  const bool admissible = given != nullptr && !given->empty() && given->size() <= kLongestField;
  if (taken.has_value() != admissible || (taken && *taken != *given)) std::abort();
}

void checkNumber(const std::optional<int64_t>& taken, const std::string* given) {
  if (taken) {
    if (given == nullptr || given->size() > kLongestField || !isDecimal(*given)) std::abort();
    if (std::to_string(*taken) != std::to_string(std::stoll(*given))) std::abort();
  } else if (given != nullptr && isDecimal(*given) && given->size() <= 18) {
    std::abort();  // a number surely within range was left out
  }
}

bool admits(const collector::StoreFilter& filter, const Seed& seed) {
  return (!filter.from || seed.receivedAt >= *filter.from) &&
         (!filter.to || seed.receivedAt < *filter.to) &&
         (!filter.device || *filter.device == seed.device) &&
         (!filter.title || *filter.title == seed.title);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char* const kPaths[] = {"/api/summary",   "/api/records", "/api/plays",
                                       "/api/diagnoses", "/api/titles",  "/api/failures"};
  if (size == 0) return 0;
  collector::HttpServerRequest request;
  request.method = "GET";
  request.path = kPaths[data[0] % 6];
  request.query.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
  request.target = request.path + "?" + request.query;
  collector::parseFormFields(request.query, request.params);

  const collector::StoreFilter filter = collector::dashboardFilter(request);
  checkNumber(filter.from, first(request.params, "from"));
  checkNumber(filter.to, first(request.params, "to"));
  checkText(filter.device, first(request.params, "device"));
  checkText(filter.title, first(request.params, "title"));

  collector::CollectorStore& plays = store();
  std::size_t expected = 0;
  for (const Seed& seed : kSeeds) expected += admits(filter, seed);
  const auto records = plays.latestRecords(50, true, filter);
  const auto summaries = plays.latestDiagnoses(50, true, filter);
  if (records.size() != expected || summaries.size() != expected) std::abort();
  for (const collector::StoredRecord& record : records) {
    std::optional<Value> body = qxlog::serial::parseJson(record.body);
    const Value* title = body && body->isDictionary() ? body->asDictionary()->find("a_7") : nullptr;
    if (title == nullptr || title->asString() == nullptr) std::abort();
    if (!admits(filter,
                Seed{record.receivedAt, record.device.c_str(), title->asString()->c_str()})) {
      std::abort();
    }
  }

  collector::Dashboard dashboard(plays, "/nonexistent/chart.js");
  std::optional<collector::HttpServerAnswer> answer = dashboard.serve(request);
  if (!answer || answer->status != 200 || !qxlog::serial::parseJson(answer->body)) std::abort();
  return 0;
}
