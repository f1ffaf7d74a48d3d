// Raw HTTP/1.1 exchanges with a server on 127.0.0.1, byte for byte as the
// test writes them, for tests of the servers themselves.
#ifndef QXLOG_TESTS_SUPPORT_HTTPCLIENT_H_
#define QXLOG_TESTS_SUPPORT_HTTPCLIENT_H_

#include <string>

namespace qxlog::testing {

struct HttpReply {
  int status = 0;  // 0 when no HTTP answer came
  std::string head;
  std::string body;
};

// A connection from `from` (a loopback address) to 127.0.0.1:port, or -1.
int connectFrom(const char* from, int port);
// Sends `request` from `from` and reads the answer to the end.
HttpReply roundTrip(int port, const std::string& request, const char* from = "127.0.0.1");
HttpReply postForm(int port, const std::string& path, const std::string& form);
HttpReply get(int port, const std::string& target);
// Every byte but letters and digits percent-encoded.
std::string formEncode(const std::string& text);

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_HTTPCLIENT_H_
