// Query strings and form bodies (application/x-www-form-urlencoded).
#ifndef QXLOG_COLLECTOR_HTTP_FORMFIELDS_H_
#define QXLOG_COLLECTOR_HTTP_FORMFIELDS_H_

#include <map>
#include <string>

namespace qxlog::collector {

// Decodes "a=1&b=x+y%21" into fields, in order.
void parseFormFields(const std::string& text, std::multimap<std::string, std::string>& fields);
std::string percentDecode(const std::string& text, bool plusIsSpace);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_HTTP_FORMFIELDS_H_
