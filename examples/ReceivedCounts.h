// What a collector holds for a device, read from its /received endpoint: how
// the example hosts check that their reports arrived.
#ifndef QXLOG_EXAMPLES_RECEIVEDCOUNTS_H_
#define QXLOG_EXAMPLES_RECEIVEDCOUNTS_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace qxlog::examples {

// GET `url` and parse its JSON answer; nothing on any failure.
// With an API token, sent as "Authorization: Bearer TOKEN".
std::optional<nlohmann::json> fetchJson(const std::string& url, const std::string& apiToken = "");
// answer[group][key] as a count; 0 when absent.
int64_t count(const nlohmann::json& answer, const char* group, const std::string& key);

}  // namespace qxlog::examples

#endif  // QXLOG_EXAMPLES_RECEIVEDCOUNTS_H_
