// The collector's form parser on any request body.
#include <cstdint>
#include <map>
#include <string>

#include "collector/http/HttpServer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  std::multimap<std::string, std::string> fields;
  qxlog::collector::parseFormFields(input, fields);
  (void)qxlog::collector::percentDecode(input, true);
  (void)qxlog::collector::percentDecode(input, false);
  return 0;
}
