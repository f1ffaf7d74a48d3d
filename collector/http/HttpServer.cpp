#include "collector/http/HttpServer.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace qxlog::collector {

using SteadyClock = std::chrono::steady_clock;

// One open connection, known from its start to its close.
struct OpenConnection {
  std::string address;  // the client's IP address, without the port
  SteadyClock::time_point started;
  int fd = -1;
  bool overLimit = false;  // opened beyond a connection limit: answered 503
  bool expired = false;    // past a deadline: shut down
  // Written by the request's thread, read by the sweeper.
  std::atomic<int64_t> headersAt{-1};  // steady nanoseconds; -1 before the headers end
  std::atomic<std::size_t> bodyBytes{0};
  std::atomic<bool> answered{false};
};

int64_t steadyNanos(SteadyClock::time_point at) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
}

// One request, from its first line to its answer.
struct Exchange {
  HttpServerRequest request;
  bool headersSeen = false;
  int refusal = 0;  // the status to refuse with, once the body is in
  std::string reason;
};

struct HttpServer::State {
  Options options;
  Handler handler;
  MHD_Daemon* daemon = nullptr;
  std::mutex mutex;
  std::map<std::string, std::size_t> perAddress;
  std::map<MHD_Connection*, OpenConnection*> open;
  std::size_t admitted = 0;  // open connections within the limits
  std::condition_variable wake;
  bool stopping = false;
  std::thread sweeper;

  void refused(const HttpServerRequest& request, int status, const std::string& reason) const {
    if (options.refused) options.refused(request, status, reason);
  }
};

namespace {

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string describeAddress(const sockaddr* address, bool withPort) {
  if (address == nullptr || address->sa_family != AF_INET) return "?";
  const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(address);
  char text[INET_ADDRSTRLEN] = "?";
  ::inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof text);
  return withPort ? std::string(text) + ":" + std::to_string(ntohs(ipv4->sin_port)) : text;
}

const sockaddr* clientAddress(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  return info != nullptr ? info->client_addr : nullptr;
}

MHD_Result answer(MHD_Connection* connection, const HttpServerAnswer& reply) {
  MHD_Response* response = MHD_create_response_from_buffer(
      reply.body.size(), const_cast<char*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.contentType.c_str());
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
  for (const auto& [name, value] : reply.headers) {
    MHD_add_response_header(response, name.c_str(), value.c_str());
  }
  MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(reply.status), response);
  MHD_destroy_response(response);
  return queued;
}

MHD_Result collectHeader(void* context, MHD_ValueKind, const char* key, const char* value) {
  auto* request = static_cast<HttpServerRequest*>(context);
  request->headers[lowerCase(key)] = value != nullptr ? value : "";
  return MHD_YES;
}

// The raw target, before libmicrohttpd decodes it: where each request's
// exchange begins.
void* onUri(void* /*state*/, const char* uri, MHD_Connection* connection) {
  auto* exchange = new Exchange();
  HttpServerRequest& request = exchange->request;
  request.target = uri != nullptr ? uri : "";
  std::size_t question = request.target.find('?');
  request.path = request.target.substr(0, question);
  if (question != std::string::npos) request.query = request.target.substr(question + 1);
  request.peer = describeAddress(clientAddress(connection), true);
  return exchange;
}

void onCompleted(void* /*state*/, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
  delete static_cast<Exchange*>(*context);
  *context = nullptr;
}

void onConnection(void* cls, MHD_Connection* connection, void** socketContext,
                  MHD_ConnectionNotificationCode code) {
  auto* state = static_cast<HttpServer::State*>(cls);
  std::lock_guard lock(state->mutex);
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    auto* open = new OpenConnection();
    open->address = describeAddress(clientAddress(connection), false);
    open->started = SteadyClock::now();
    const MHD_ConnectionInfo* fd =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    open->fd = fd != nullptr ? fd->connect_fd : -1;
    std::size_t fromAddress = ++state->perAddress[open->address];
    // The last quarter of the places is kept for addresses new to the server.
    const std::size_t kept = state->options.maxConnections / 4;
    const std::size_t room =
        fromAddress == 1 ? state->options.maxConnections : state->options.maxConnections - kept;
    open->overLimit =
        fromAddress > state->options.maxConnectionsPerClient || state->admitted >= room;
    if (!open->overLimit) ++state->admitted;
    state->open[connection] = open;
    *socketContext = open;
    return;
  }
  auto* open = static_cast<OpenConnection*>(*socketContext);
  if (open == nullptr) return;
  if (--state->perAddress[open->address] == 0) state->perAddress.erase(open->address);
  if (!open->overLimit) --state->admitted;
  state->open.erase(connection);
  delete open;
  *socketContext = nullptr;
}

// What a request's headers decide before its body: a connection over a
// limit, or a body announced too large.
OpenConnection* openConnection(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return info != nullptr ? static_cast<OpenConnection*>(info->socket_context) : nullptr;
}

void screen(HttpServer::State& state, MHD_Connection* connection, Exchange& exchange) {
  OpenConnection* open = openConnection(connection);
  if (open != nullptr) open->headersAt = steadyNanos(SteadyClock::now());
  std::string length = exchange.request.header("content-length");
  if (open != nullptr && open->overLimit) {
    exchange.refusal = 503;
    exchange.reason = "too many connections";
  } else if (!length.empty() &&
             std::strtoull(length.c_str(), nullptr, 10) > state.options.maxBodyBytes) {
    exchange.refusal = 413;
    exchange.reason =
        "body too large (limit " + std::to_string(state.options.maxBodyBytes) + " bytes)";
  }
}

MHD_Result onRequest(void* cls, MHD_Connection* connection, const char* /*url*/, const char* method,
                     const char* /*version*/, const char* uploadData, size_t* uploadDataSize,
                     void** context) {
  auto* state = static_cast<HttpServer::State*>(cls);
  auto* exchange = static_cast<Exchange*>(*context);
  HttpServerRequest& request = exchange->request;
  if (!exchange->headersSeen) {
    exchange->headersSeen = true;
    request.method = method;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, collectHeader, &request);
    screen(*state, connection, *exchange);
    return MHD_YES;
  }
  if (*uploadDataSize > 0) {
    if (OpenConnection* open = openConnection(connection)) open->bodyBytes += *uploadDataSize;
    // Past the limit the rest is read and dropped: the answer waits for it,
    // within the request deadline.
    if (exchange->refusal == 0) request.body.append(uploadData, *uploadDataSize);
    if (exchange->refusal == 0 && request.body.size() > state->options.maxBodyBytes) {
      exchange->refusal = 413;
      exchange->reason =
          "body too large (limit " + std::to_string(state->options.maxBodyBytes) + " bytes)";
      request.body.clear();
    }
    *uploadDataSize = 0;
    return MHD_YES;
  }
  if (OpenConnection* open = openConnection(connection)) open->answered = true;
  if (exchange->refusal != 0) {
    state->refused(request, exchange->refusal, exchange->reason);
    return answer(connection, {exchange->refusal, "text/plain", exchange->reason + "\n"});
  }
  parseFormFields(request.query, request.params);
  if (request.header("content-type").rfind("application/x-www-form-urlencoded", 0) == 0) {
    parseFormFields(request.body, request.params);
  }
  return answer(connection, state->handler(request));
}

// A connection over a limit has this long to send its request and be
// answered 503; then it is closed, so that it holds no place.
constexpr std::chrono::milliseconds kOverLimitGrace{1000};

// Why a connection is to be closed now, or nothing: over a limit past its
// grace, past the request or the header deadline, or its body too slow.
const char* overdue(const HttpServer::Options& options, const OpenConnection& open,
                    SteadyClock::time_point now) {
  if (open.overLimit)
    return now - open.started >= kOverLimitGrace ? "too many connections; closed" : nullptr;
  if (now - open.started >= options.requestDeadline) return "request deadline passed";
  if (open.answered) return nullptr;
  const int64_t headersAt = open.headersAt;
  if (headersAt < 0) {
    return now - open.started >= options.headerDeadline ? "request headers too slow" : nullptr;
  }
  const double bodySeconds =
      std::chrono::duration<double>(std::chrono::nanoseconds(steadyNanos(now) - headersAt) -
                                    options.bodyGrace)
          .count();
  if (options.minBodyBytesPerSecond > 0 && bodySeconds > 0 &&
      static_cast<double>(open.bodyBytes) <
          bodySeconds * static_cast<double>(options.minBodyBytesPerSecond)) {
    return "request body too slow";
  }
  return nullptr;
}

// Shuts down the connections that are overdue; libmicrohttpd then closes
// them.
void sweep(HttpServer::State& state) {
  std::unique_lock lock(state.mutex);
  while (!state.stopping) {
    state.wake.wait_for(lock, std::chrono::milliseconds(100));
    const auto now = SteadyClock::now();
    for (auto& [connection, open] : state.open) {
      if (open->expired) continue;
      const char* why = overdue(state.options, *open, now);
      if (why == nullptr) continue;
      open->expired = true;
      if (open->fd >= 0) ::shutdown(open->fd, SHUT_RDWR);
      HttpServerRequest request;
      request.peer = open->address;
      state.refused(request, open->overLimit ? 503 : 408, why);
    }
  }
}

}  // namespace

HttpServer::HttpServer(Options options, Handler handler)
    : options_(std::move(options)), handler_(std::move(handler)) {}

HttpServer::~HttpServer() {
  stop();
}

bool HttpServer::start() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(options_.port));
  if (::inet_pton(AF_INET, options_.host.c_str(), &address.sin_addr) != 1) {
    error_ = "not an IPv4 address: " + options_.host;
    return false;
  }
  const bool tls = !options_.tlsCertificatePem.empty() || !options_.tlsKeyPem.empty();
  if (tls && MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
    error_ = "this libmicrohttpd is built without TLS";
    return false;
  }
  state_ = std::make_unique<State>();
  state_->options = options_;
  state_->handler = handler_;
  auto idleSeconds = static_cast<unsigned>(std::max<int64_t>(
      1, std::chrono::ceil<std::chrono::seconds>(options_.requestDeadline).count()));
  // libmicrohttpd's own limits sit above ours, so that connections over ours
  // are still accepted and answered 503; far beyond, an address's connections
  // are closed as they are accepted, and hold nothing.
  auto connectionLimit = static_cast<unsigned>(4 * options_.maxConnections + 16);
  auto perAddressLimit = static_cast<unsigned>(2 * options_.maxConnectionsPerClient + 2);
  // libmicrohttpd reads the certificate and key while it starts; they stay
  // in the state for the daemon's life all the same.
  MHD_OptionItem tlsOptions[] = {
      {MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(state_->options.tlsCertificatePem.c_str())},
      {MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(state_->options.tlsKeyPem.c_str())},
      {MHD_OPTION_END, 0, nullptr}};
  state_->daemon = MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | (tls ? MHD_USE_TLS : 0), 0, nullptr,
      nullptr, onRequest, state_.get(), MHD_OPTION_ARRAY, tls ? tlsOptions : tlsOptions + 2,
      MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address), MHD_OPTION_THREAD_POOL_SIZE,
      HttpServer::kThreads,
      MHD_OPTION_CONNECTION_LIMIT, connectionLimit, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      perAddressLimit, MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds, MHD_OPTION_URI_LOG_CALLBACK,
      onUri, state_.get(), MHD_OPTION_NOTIFY_COMPLETED, onCompleted, state_.get(),
      MHD_OPTION_NOTIFY_CONNECTION, onConnection, state_.get(), MHD_OPTION_END);
  if (state_->daemon == nullptr) {
    error_ = "cannot listen on " + options_.host + ":" + std::to_string(options_.port) +
             (tls ? " with this certificate and key" : "");
    state_.reset();
    return false;
  }
  const MHD_DaemonInfo* listener = MHD_get_daemon_info(state_->daemon, MHD_DAEMON_INFO_LISTEN_FD);
  socklen_t length = sizeof address;
  ::getsockname(listener->listen_fd, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  state_->sweeper = std::thread([state = state_.get()] { sweep(*state); });
  return true;
}

std::size_t HttpServer::openConnections() const {
  if (!state_) return 0;
  std::lock_guard lock(state_->mutex);
  return state_->open.size();
}

void HttpServer::stop() {
  if (!state_) return;
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  state_->sweeper.join();
  MHD_stop_daemon(state_->daemon);
  state_.reset();
}

}  // namespace qxlog::collector
