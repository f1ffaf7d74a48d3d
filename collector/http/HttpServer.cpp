#include "collector/http/HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace qxlog::collector {
namespace {

constexpr std::size_t kMaxHeaderBytes = 64 << 10;

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string trim(const std::string& text) {
  std::size_t start = text.find_first_not_of(" \t");
  if (start == std::string::npos) return "";
  std::size_t end = text.find_last_not_of(" \t\r");
  return text.substr(start, end - start + 1);
}

const char* reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 411:
      return "Length Required";
    case 413:
      return "Payload Too Large";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

void sendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
}

void answer(int fd, const HttpServerAnswer& reply) {
  std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " " + reason(reply.status) +
                     "\r\nContent-Type: " + reply.contentType +
                     "\r\nContent-Length: " + std::to_string(reply.body.size()) +
                     "\r\nConnection: close\r\n\r\n";
  sendAll(fd, head + reply.body);
}

bool parseHead(const std::string& head, HttpServerRequest& request) {
  std::size_t lineEnd = head.find("\r\n");
  std::string requestLine = head.substr(0, lineEnd);
  std::size_t first = requestLine.find(' ');
  std::size_t second = requestLine.find(' ', first + 1);
  if (first == std::string::npos || second == std::string::npos) return false;
  request.method = requestLine.substr(0, first);
  request.target = requestLine.substr(first + 1, second - first - 1);
  std::size_t question = request.target.find('?');
  request.path = request.target.substr(0, question);
  if (question != std::string::npos) request.query = request.target.substr(question + 1);
  std::size_t position = lineEnd + 2;
  while (position < head.size()) {
    std::size_t end = head.find("\r\n", position);
    if (end == std::string::npos) end = head.size();
    std::string line = head.substr(position, end - position);
    position = end + 2;
    std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    request.headers[lowerCase(trim(line.substr(0, colon)))] = trim(line.substr(colon + 1));
  }
  return true;
}

}  // namespace

std::string HttpServerRequest::header(const std::string& lowerCaseName) const {
  auto it = headers.find(lowerCaseName);
  return it != headers.end() ? it->second : std::string();
}

std::string percentDecode(const std::string& text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+' && plusIsSpace) {
      out += ' ';
    } else if (c == '%' && i + 2 < text.size() &&
               std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
               std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

void parseFormFields(const std::string& text, std::multimap<std::string, std::string>& fields) {
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('&', start);
    if (end == std::string::npos) end = text.size();
    std::string pair = text.substr(start, end - start);
    if (!pair.empty()) {
      std::size_t equals = pair.find('=');
      std::string key = pair.substr(0, equals);
      std::string value = equals == std::string::npos ? "" : pair.substr(equals + 1);
      fields.emplace(percentDecode(key, true), percentDecode(value, true));
    }
    start = end + 1;
  }
}

HttpServer::HttpServer(Options options, Handler handler)
    : options_(std::move(options)), handler_(std::move(handler)) {}

HttpServer::~HttpServer() {
  stop();
}

// Reads more bytes into `buffer`; false on end of stream, error, timeout or
// stop. Waits in short slices so that stop() is noticed.
bool HttpServer::readMore(int fd, std::string& buffer) const {
  constexpr int kSliceMs = 25;
  for (long waited = 0; waited < options_.readTimeout.count(); waited += kSliceMs) {
    if (stopping_.load()) return false;
    pollfd ready{fd, POLLIN, 0};
    const int polled = ::poll(&ready, 1, kSliceMs);
    if (polled < 0 && errno != EINTR) return false;
    if (polled <= 0) continue;
    char chunk[16384];
    ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
    if (got <= 0) return false;
    buffer.append(chunk, static_cast<std::size_t>(got));
    return true;
  }
  return false;
}

bool HttpServer::start() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) {
    error_ = std::string("cannot open a socket: ") + std::strerror(errno);
    return false;
  }
  int yes = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(options_.port));
  if (::inet_pton(AF_INET, options_.host.c_str(), &address.sin_addr) != 1) {
    error_ = "not an IPv4 address: " + options_.host;
    return false;
  }
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 128) != 0) {
    error_ = std::string("cannot listen: ") + std::strerror(errno);
    ::close(listener_);
    listener_ = -1;
    return false;
  }
  socklen_t length = sizeof address;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
  return true;
}

void HttpServer::stop() {
  stopping_ = true;
  if (acceptor_.joinable()) acceptor_.join();
  std::vector<Connection> connections;
  {
    std::lock_guard lock(connectionsMutex_);
    connections.swap(connections_);
  }
  for (Connection& connection : connections) connection.thread.join();
  if (listener_ >= 0) ::close(listener_);
  listener_ = -1;
}

// Joins the threads of connections that are done, so that a long-running
// server does not accumulate them.
void HttpServer::reapFinishedLocked() {
  auto finished = std::partition(connections_.begin(), connections_.end(),
                                 [](const Connection& c) { return !c.done->load(); });
  for (auto it = finished; it != connections_.end(); ++it) it->thread.join();
  connections_.erase(finished, connections_.end());
}

void HttpServer::acceptLoop() {
  while (!stopping_.load()) {
    pollfd ready{listener_, POLLIN, 0};
    if (::poll(&ready, 1, 20) <= 0) continue;
    sockaddr_in client{};
    socklen_t clientLength = sizeof client;
    int connection =
        ::accept4(listener_, reinterpret_cast<sockaddr*>(&client), &clientLength, SOCK_CLOEXEC);
    if (connection < 0) continue;
    char text[INET_ADDRSTRLEN] = "?";
    ::inet_ntop(AF_INET, &client.sin_addr, text, sizeof text);
    std::string peer = std::string(text) + ":" + std::to_string(ntohs(client.sin_port));
    std::lock_guard lock(connectionsMutex_);
    reapFinishedLocked();
    if (connections_.size() >= options_.maxConnections) {
      answer(connection, {503, "text/plain", "too many connections\n"});
      ::close(connection);
      continue;
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread worker([this, connection, done, peer = std::move(peer)]() mutable {
      serve(connection, std::move(peer));
      ::close(connection);
      done->store(true);
    });
    connections_.push_back(Connection{std::move(worker), done});
  }
}

void HttpServer::refuse(int fd, const HttpServerRequest& request, int status,
                        const std::string& reason) {
  if (options_.refused) options_.refused(request, status, reason);
  answer(fd, {status, "text/plain", reason + "\n"});
  // The client may still be sending (an oversized body): closing now, with
  // its bytes unread, would reset the connection and could destroy the answer
  // before the client reads it. Signal the end, then discard what comes, for
  // a bounded time.
  ::shutdown(fd, SHUT_WR);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  char chunk[16384];
  while (!stopping_.load() && std::chrono::steady_clock::now() < until) {
    pollfd ready{fd, POLLIN, 0};
    const int polled = ::poll(&ready, 1, 25);
    if (polled < 0 && errno != EINTR) return;
    if (polled > 0 && ::recv(fd, chunk, sizeof chunk, 0) <= 0) return;
  }
}

void HttpServer::serve(int connection, std::string peer) {
  HttpServerRequest request;
  request.peer = std::move(peer);
  std::string buffer;
  std::size_t headEnd;
  while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
    if (buffer.size() > kMaxHeaderBytes)
      return refuse(connection, request, 431, "headers too large");
    if (!readMore(connection, buffer)) return;
  }
  if (!parseHead(buffer.substr(0, headEnd), request)) {
    return refuse(connection, request, 400, "malformed request line");
  }
  std::string lengthText = request.header("content-length");
  std::size_t length = 0;
  if (!lengthText.empty()) {
    char* end = nullptr;
    unsigned long long parsed = std::strtoull(lengthText.c_str(), &end, 10);
    if (end == lengthText.c_str() || *end != '\0') {
      return refuse(connection, request, 400, "bad Content-Length");
    }
    if (parsed > options_.maxBodyBytes) {
      return refuse(connection, request, 413,
                    "body too large (limit " + std::to_string(options_.maxBodyBytes) + " bytes)");
    }
    length = static_cast<std::size_t>(parsed);
  } else if (!request.header("transfer-encoding").empty()) {
    return refuse(connection, request, 411, "Content-Length required");
  }
  request.body = buffer.substr(headEnd + 4);
  while (request.body.size() < length) {
    if (!readMore(connection, request.body)) {
      return refuse(connection, request, 408, "body incomplete");
    }
  }
  request.body.resize(length);
  parseFormFields(request.query, request.params);
  if (request.header("content-type").rfind("application/x-www-form-urlencoded", 0) == 0) {
    parseFormFields(request.body, request.params);
  }
  answer(connection, handler_(request));
}

}  // namespace qxlog::collector
