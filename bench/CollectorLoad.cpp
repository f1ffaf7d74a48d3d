// The collector's load generator: P processes each send N distinct sealed
// uploads of R records to one address, one request at a time, all starting
// together; a 503 is sent again after a short pause, as the library would.
// Prints one line: uploads, records, seconds, uploads/s, records/s, 503s.
//   qxlog_collector_load PORT PROCESSES UPLOADS RECORDS KEY [TAG]
// With RECORDS 0 each "upload" is a settings request of a distinct uid
// instead (GET /settings?token=...&uid=TAG-P-N).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "QXLog/QXLogHelper.h"
#include "QXLog/support/Codecs.h"

namespace {

std::string formEncode(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// The status of one request, 0 when no answer came.
int exchange(int port, const std::string& request) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return 0;
  }
  for (std::size_t sent = 0; sent < request.size();) {
    const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
  }
  std::string reply;
  char buffer[4096];
  for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) reply.append(buffer, n);
  ::close(fd);
  return reply.size() > 12 ? std::atoi(reply.c_str() + 9) : 0;
}

std::string postLog(const std::string& body) {
  return "POST /log HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\nContent-Type: "
         "application/x-www-form-urlencoded\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) {
    std::fprintf(stderr, "usage: %s PORT PROCESSES UPLOADS RECORDS KEY [TAG]\n", argv[0]);
    return 2;
  }
  const int port = std::atoi(argv[1]);
  const int processes = std::atoi(argv[2]);
  const int uploads = std::atoi(argv[3]);
  const int records = std::atoi(argv[4]);
  const std::string key = argv[5];
  const std::string tag = argc > 6 ? argv[6] : std::to_string(::getpid());
  const std::string token = *QXLogHelper::tokenString(std::nullopt);

  int ready[2], go[2], results[2];
  if (::pipe(ready) != 0 || ::pipe(go) != 0 || ::pipe(results) != 0) return 1;
  for (int p = 0; p < processes; ++p) {
    if (::fork() != 0) continue;
    std::vector<std::string> bodies;
    for (int u = 0; u < uploads && records == 0; ++u) {
      bodies.push_back("GET /settings?token=" + token + "&uid=" + tag + "-" + std::to_string(p) +
                       "-" + std::to_string(u) +
                       " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    }
    for (int u = 0; u < uploads && records > 0; ++u) {
      std::string json = R"({"t":{"t_2":"load-)" + std::to_string(p) + R"("},"a":[)";
      for (int r = 0; r < records; ++r) {
        json += (r ? "," : "") + std::string(R"({"a_t":"2","a_1":")") + tag + "-" +
                std::to_string(p) + "-" + std::to_string(u) + "-" + std::to_string(r) + R"("})";
      }
      json += "]}";
      const std::string sealed = qxlog::support::base64Encode(
          *QXLogHelper::data_AES256(*QXLogHelper::gzipDeflate(json), key));
      bodies.push_back(postLog("log_data=" + formEncode(sealed) + "&token=" + token));
    }
    char byte = 1;
    if (::write(ready[1], &byte, 1) != 1 || ::read(go[0], &byte, 1) != 1) _exit(1);
    int busy = 0, failed = 0;
    for (const std::string& body : bodies) {
      int status = 0;
      for (int attempt = 0; attempt < 50; ++attempt) {
        status = exchange(port, body);
        if (status != 503) break;
        ++busy;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      if (status != 200) ++failed;
    }
    const int counts[2] = {busy, failed};
    if (::write(results[1], counts, sizeof counts) != sizeof counts) _exit(1);
    _exit(0);
  }
  char byte;
  for (int p = 0; p < processes; ++p) {
    if (::read(ready[0], &byte, 1) != 1) return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<char> release(static_cast<std::size_t>(processes), 1);
  if (::write(go[1], release.data(), release.size()) != static_cast<ssize_t>(release.size())) {
    return 1;
  }
  int busy = 0, failed = 0;
  for (int p = 0; p < processes; ++p) {
    int counts[2];
    if (::read(results[0], counts, sizeof counts) != sizeof counts) return 1;
    busy += counts[0];
    failed += counts[1];
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  while (::wait(nullptr) > 0) {
  }
  const double total = static_cast<double>(processes) * uploads;
  std::printf(
      "uploads %.0f records %.0f seconds %.2f uploads/s %.0f records/s %.0f 503s %d "
      "failed %d\n",
      total, total * records, seconds, total / seconds, total * records / seconds, busy, failed);
  return failed == 0 ? 0 : 1;
}
