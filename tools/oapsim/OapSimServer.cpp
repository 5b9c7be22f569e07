#include "OapSimServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <vector>

#include "OapSimReply.h"
#include "QmToolTrackingId.h"

namespace {

const char kEndTag[] = "</OAP-request>";

// Resolves an IPv4 address or host name.
bool ResolveIPv4(const std::string& host, in_addr& address, std::string& error) {
  if (inet_pton(AF_INET, host.c_str(), &address) == 1) return true;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (rc != 0 || found == nullptr) {
    error = "cannot resolve '" + host + "': " + gai_strerror(rc);
    return false;
  }
  address = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr;
  freeaddrinfo(found);
  return true;
}

bool IsLoopback(const in_addr& address) {
  return (ntohl(address.s_addr) >> 24) == 127;
}

// The address to listen on or to reach a driver at. Without --allow-remote
// only loopback addresses are taken (0.0.0.0 is every interface, so it is
// refused for listening, and stands for this machine when connecting).
bool Resolve(const std::string& host, int port, bool allowRemote, bool listening,
             sockaddr_in& target, std::string& error) {
  target = sockaddr_in{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<uint16_t>(port));
  if (!ResolveIPv4(host, target.sin_addr, error)) return false;
  const bool local = IsLoopback(target.sin_addr) || (!listening && target.sin_addr.s_addr == 0);
  if (!local && !allowRemote) {
    error = "refusing non-loopback address " + host + " (give --allow-remote to allow it)";
    return false;
  }
  return true;
}

int MillisLeft(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
  return static_cast<int>(std::max<long long>(0, left));
}

// Writes everything on a non-blocking socket, waiting for room up to the limit.
bool WriteAll(int fd, const std::string& data, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
    pollfd waiter{fd, POLLOUT, 0};
    if (poll(&waiter, 1, MillisLeft(deadline)) <= 0) return false;
  }
  return true;
}

// Reads and drops what the peer sent beyond the document, so that closing
// does not reset the connection before the peer has read our answer.
void Drain(int fd) {
  char scratch[1024];
  for (int i = 0; i < 64 && recv(fd, scratch, sizeof scratch, MSG_DONTWAIT) > 0; ++i) {
  }
}

std::string StatusText(int type, int code) {
  if (type == 1 && code == OapSimDocument::kNotUnderstood) return "Message not understood";
  if (type == 1 && code == OapSimDocument::kVersionMismatch) return "OAP version mismatch";
  if (type == 5 && code == 400) return "No existing interactive message to update";
  return "";
}

}  // namespace

OapSimServer::Socket::~Socket() {
  if (m_fd >= 0) close(m_fd);
}

OapSimServer::Socket& OapSimServer::Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    if (m_fd >= 0) close(m_fd);
    m_fd = other.m_fd;
    other.m_fd = -1;
  }
  return *this;
}

OapSimServer::OapSimServer(const OapSimOptions& options, std::FILE* out)
    : m_options(options), m_out(out) {}

OapSimServer::~OapSimServer() = default;

void OapSimServer::Print(const std::string& line) {
  std::fputs(line.c_str(), m_out);
  std::fputc('\n', m_out);
  std::fflush(m_out);
}

bool OapSimServer::Start(std::string& error) {
  sockaddr_in address{};
  if (!Resolve(m_options.listenHost, m_options.listenPort, m_options.allowRemote, true, address,
               error)) {
    return false;
  }
  Socket listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (listener.Get() < 0 ||
      setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.Get(), 32) != 0) {
    error = "cannot listen on " + m_options.listenHost + ":" +
            std::to_string(m_options.listenPort) + ": " + std::strerror(errno);
    return false;
  }
  socklen_t length = sizeof address;
  getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length);
  m_port = ntohs(address.sin_port);
  m_listener = std::move(listener);
  char host[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
  Print("listening on " + std::string(host) + ":" + std::to_string(m_port));
  return true;
}

void OapSimServer::Run(int inputFd, int stopFd) {
  const auto exitAt = m_options.exitAfterMs >= 0
                          ? Clock::now() + std::chrono::milliseconds(m_options.exitAfterMs)
                          : Clock::time_point::max();
  while (!m_stopping) {
    std::vector<pollfd> fds = {
        {m_listener.Get(), POLLIN, 0}, {stopFd, POLLIN, 0}, {inputFd, POLLIN, 0}};
    for (const auto& connection : m_connections) {
      fds.push_back({connection.socket.Get(), POLLIN, 0});
    }
    const int ready = poll(fds.data(), fds.size(), MillisUntilNextEvent(Clock::now(), exitAt));
    if (ready < 0 && errno != EINTR) {
      Print(std::string("[sim] poll failed: ") + std::strerror(errno));
      break;
    }
    if (ready > 0 && fds[1].revents != 0) {
      Print("[sim] stopping on signal");
      break;
    }
    const auto now = Clock::now();
    size_t index = 3;
    for (auto it = m_connections.begin(); it != m_connections.end(); ++index) {
      bool finished = ready > 0 && fds[index].revents != 0 && ReadFrom(*it);
      if (!finished && now >= it->deadline) {
        Print("[sim] connection timed out after " + std::to_string(it->buffer.size()) + " bytes");
        if (!it->buffer.empty()) Serve(*it);
        finished = true;
      }
      it = finished ? m_connections.erase(it) : std::next(it);
    }
    if (ready > 0 && fds[0].revents != 0) AcceptAll();
    if (ready > 0 && fds[2].revents != 0 && !ReadInput(inputFd)) inputFd = -1;
    RunDue(Clock::now());
    if (Clock::now() >= exitAt && !m_stopping) {
      Print("[sim] stopping after " + std::to_string(m_options.exitAfterMs) + " ms");
      break;
    }
  }
}

int OapSimServer::MillisUntilNextEvent(Clock::time_point now, Clock::time_point exitAt) const {
  Clock::time_point next = exitAt;
  if (!m_scheduled.empty()) next = std::min(next, m_scheduled.begin()->first);
  for (const auto& connection : m_connections) next = std::min(next, connection.deadline);
  if (next == Clock::time_point::max()) return -1;
  const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
  return static_cast<int>(std::clamp<long long>(wait + 1, 0, 60000));
}

void OapSimServer::AcceptAll() {
  while (true) {
    Socket accepted(accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (accepted.Get() < 0) return;
    if (m_connections.size() >= kMaxConnections) {
      Print("[sim] too many open connections; closing a new one");
      continue;
    }
    Connection connection;
    connection.socket = std::move(accepted);
    connection.deadline = Clock::now() + std::chrono::milliseconds(m_options.readTimeoutMs);
    m_connections.push_back(std::move(connection));
  }
}

bool OapSimServer::ReadFrom(Connection& connection) {
  char chunk[4096];
  while (true) {
    const ssize_t n = recv(connection.socket.Get(), chunk, sizeof chunk, 0);
    if (n > 0 && connection.held) continue;  // a silent server ignores the rest
    if (n > 0) {
      connection.buffer.append(chunk, static_cast<size_t>(n));
      if (connection.buffer.size() > kMaxDocument) {
        Print("[sim] rejected request: larger than " + std::to_string(kMaxDocument) + " bytes");
        Answer(connection, OapSimReply::Response("4.0", "", 1, OapSimDocument::kNotUnderstood,
                                                 "Message not understood"));
        return true;
      }
      const size_t end = connection.buffer.find(kEndTag);
      if (end != std::string::npos) {
        connection.buffer.resize(end + sizeof kEndTag - 1);
        Serve(connection);
        return !connection.held;
      }
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return false;
    // The client closed or half-closed, or the connection failed: what came so
    // far is the whole request. A held connection ends here.
    if (!connection.held && !connection.buffer.empty()) Serve(connection);
    return true;
  }
}

void OapSimServer::Serve(Connection& connection) {
  OapSimDocument::Request request;
  const OapSimDocument::Verdict verdict = OapSimDocument::Check(connection.buffer, request);
  const std::string version = request.version.empty() ? "4.0" : request.version;
  if (!verdict.ok) {
    Print("[sim] rejected request" +
          (request.idHex.empty() ? "" : " " + QmToolTrackingId::Format(request.id)) + ": " +
          verdict.error);
    Answer(connection, OapSimReply::Response(version, request.idHex, 1, verdict.code,
                                             StatusText(1, verdict.code)));
    return;
  }
  for (const auto& warning : request.warnings) Print("[sim] warning: " + warning);
  const std::string label =
      version + " request " + QmToolTrackingId::Format(request.id) + " to " + request.handset;
  if (m_options.silent) {
    Print("[sim] " + label + " left unanswered");
    connection.held = true;
    connection.deadline = Clock::time_point::max();
    return;
  }
  if (m_options.statusType != 1 || m_options.statusCode != 200) {
    Print("[sim] " + label + " answered with status " + std::to_string(m_options.statusType) + ":" +
          std::to_string(m_options.statusCode));
    Answer(connection,
           OapSimReply::Response(version, request.idHex, m_options.statusType, m_options.statusCode,
                                 StatusText(m_options.statusType, m_options.statusCode)));
    return;
  }
  const std::string driverHost = version == "3.0" ? request.listenerIp : m_options.driverHost;
  const OapSimHandsets::Outcome outcome = m_handsets.Store(request, driverHost);
  if (outcome == OapSimHandsets::UnknownUpdate) {
    Print("[sim] " + version + " update of " + QmToolTrackingId::Format(request.tracking) + " to " +
          request.handset + ": no such message");
    Answer(connection, OapSimReply::Response(version, request.idHex, 5, 400, StatusText(5, 400)));
    return;
  }
  const OapSimHandsets::Message& message = *m_handsets.Find(request.tracking);
  if (outcome == OapSimHandsets::Updated) {
    Print("[sim] " + OapSimHandsets::DescribeUpdate(message));
  } else {
    if (outcome == OapSimHandsets::Reused) {
      Print("[sim] warning: tracking number " + QmToolTrackingId::Format(request.tracking) +
            " reused for a new message");
    }
    Print("[sim] " + OapSimHandsets::Describe(message));
    ScheduleAuto(message);
  }
  Answer(connection, OapSimReply::Response(version, request.idHex, 1, 200));
}

void OapSimServer::Answer(Connection& connection, const std::string& document) {
  if (!WriteAll(connection.socket.Get(), document, kConnectTimeoutMs)) {
    Print(std::string("[sim] could not write the answer: ") + std::strerror(errno));
  }
  Drain(connection.socket.Get());
}

bool OapSimServer::ReadInput(int fd) {
  char chunk[1024];
  const ssize_t n = read(fd, chunk, sizeof chunk);
  if (n <= 0) {
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (!m_input.empty() && !Command(m_input)) m_stopping = true;
    m_input.clear();
    return false;
  }
  m_input.append(chunk, static_cast<size_t>(n));
  size_t newline;
  while (!m_stopping && (newline = m_input.find('\n')) != std::string::npos) {
    const std::string line = m_input.substr(0, newline);
    m_input.erase(0, newline + 1);
    if (!Command(line)) m_stopping = true;
  }
  if (m_input.size() > 4096) m_input.clear();
  return true;
}

bool OapSimServer::Command(const std::string& line) {
  std::istringstream words(line);
  std::string verb;
  std::string idText;
  if (!(words >> verb)) return true;
  if (verb == "quit") {
    Print("[sim] stopping on quit");
    return false;
  }
  if (verb == "list") {
    List();
    return true;
  }
  if (verb != "deliver" && verb != "answer" && verb != "text") {
    Print("[sim] unknown command '" + verb + "' (deliver, answer, text, list, quit)");
    return true;
  }
  uint32_t tracking = 0;
  if (!(words >> idText) || !QmToolTrackingId::Parse(idText, tracking)) {
    Print("[sim] " + verb + ": expected a message id (0x1a0000 or decimal)");
    return true;
  }
  OapSimOptions::Action action;
  std::string rest;
  std::getline(words >> std::ws, rest);
  if (verb == "answer") {
    if (!OapSimOptions::ParseAction("option:" + rest, action)) {
      Print("[sim] answer: expected an option number after the id");
      return true;
    }
  } else if (verb == "text") {
    if (rest.empty()) {
      Print("[sim] text: expected words after the id");
      return true;
    }
    action.kind = OapSimOptions::Action::Text;
    action.words = rest;
  }
  Perform(tracking, action);
  return true;
}

void OapSimServer::RunDue(Clock::time_point now) {
  while (!m_scheduled.empty() && m_scheduled.begin()->first <= now) {
    const Scheduled due = m_scheduled.begin()->second;
    m_scheduled.erase(m_scheduled.begin());
    Perform(due.tracking, due.action);
  }
}

void OapSimServer::ScheduleAuto(const OapSimHandsets::Message& message) {
  const auto script = m_options.autoScripts.find(message.handset);
  if (script == m_options.autoScripts.end()) return;
  const auto& actions = script->second;
  size_t count = actions.size();
  if (!message.interactive) {
    count = actions.front().kind == OapSimOptions::Action::Deliver ? 1 : 0;
  }
  const auto start = Clock::now();
  for (size_t i = 0; i < count; ++i) {
    const auto due = start + std::chrono::milliseconds(m_options.autoDelayMs * (i + 1));
    m_scheduled.emplace(due, Scheduled{message.tracking, actions[i]});
  }
}

void OapSimServer::Perform(uint32_t tracking, const OapSimOptions::Action& action) {
  const OapSimHandsets::Message* message = m_handsets.Find(tracking);
  if (message == nullptr) {
    Print("[sim] no message " + QmToolTrackingId::Format(tracking));
    return;
  }
  switch (action.kind) {
    case OapSimOptions::Action::Deliver:
      Deliver(*message);
      break;
    case OapSimOptions::Action::Option:
      ChooseOption(*message, action.option);
      break;
    case OapSimOptions::Action::Text:
      TypeAnswer(*message, action.words);
      break;
  }
}

void OapSimServer::Deliver(const OapSimHandsets::Message& message) {
  if (SendToDriver(
          message,
          OapSimReply::DeliveryReport(message.version, OapSimDocument::HexId(message.tracking)),
          "delivery report for " + QmToolTrackingId::Format(message.tracking))) {
    m_handsets.MarkDelivered(message.tracking);
  }
}

void OapSimServer::ChooseOption(const OapSimHandsets::Message& message, int number) {
  const std::string id = QmToolTrackingId::Format(message.tracking);
  const std::string handset = "[sim] handset " + message.handset + ": ";
  if (message.wiped) {
    Print(handset + "the options of " + id + " were wiped; nothing to choose");
    return;
  }
  auto option = std::find_if(
      message.options.begin(), message.options.end(),
      [number](const OapSimDocument::Option& candidate) { return candidate.number == number; });
  if (option == message.options.end()) {
    Print(handset + id + " has no option " + std::to_string(number));
    return;
  }
  if (option->kind == OapSimDocument::Option::Custom) {
    Print(handset + "option " + std::to_string(number) + " of " + id +
          " asks for typed text; use text");
    return;
  }
  if (option->kind == OapSimDocument::Option::Close) {
    Print(handset + "closed " + id);
    return;
  }
  if (SendToDriver(message,
                   OapSimReply::Answer(message.version, OapSimDocument::HexId(message.tracking),
                                       message.handset, option->dataResp, false),
                   "answer " + std::to_string(number) + " " +
                       OapSimHandsets::Quote(option->dataResp) + " for " + id)) {
    m_handsets.AddAnswer(message.tracking, option->dataResp);
  }
}

void OapSimServer::TypeAnswer(const OapSimHandsets::Message& message, const std::string& words) {
  const std::string id = QmToolTrackingId::Format(message.tracking);
  const bool typable = std::any_of(message.options.begin(), message.options.end(),
                                   [](const OapSimDocument::Option& option) {
                                     return option.kind == OapSimDocument::Option::Custom;
                                   });
  if (!typable) {
    Print("[sim] handset " + message.handset + ": " + id + " offers no typed answer");
    return;
  }
  if (SendToDriver(message,
                   OapSimReply::Answer(message.version, OapSimDocument::HexId(message.tracking),
                                       message.handset, words, true),
                   "typed answer " + OapSimHandsets::Quote(words) + " for " + id)) {
    m_handsets.AddAnswer(message.tracking, words);
  }
}

void OapSimServer::List() {
  const auto all = m_handsets.All();
  if (all.empty()) Print("[sim] no messages");
  for (const OapSimHandsets::Message* message : all) {
    std::string line = "[sim] " + OapSimHandsets::Describe(*message);
    if (message->wiped) line += " (options wiped)";
    if (message->updates > 0) line += " (updated " + std::to_string(message->updates) + "x)";
    if (message->delivered) line += " (delivered)";
    for (const auto& answer : message->answers)
      line += " (answered " + OapSimHandsets::Quote(answer) + ")";
    Print(line);
  }
}

bool OapSimServer::SendToDriver(const OapSimHandsets::Message& message, const std::string& document,
                                const std::string& what) {
  const std::string target = message.driverHost + ":" + std::to_string(message.driverPort);
  const std::string prefix = "[sim] handset " + message.handset + ": ";
  sockaddr_in address{};
  std::string error;
  if (!Resolve(message.driverHost, message.driverPort, m_options.allowRemote, false, address,
               error)) {
    Print(prefix + "cannot send " + what + " to " + target + ": " + error);
    return false;
  }
  Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  bool ok = socket.Get() >= 0;
  if (ok && connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    pollfd waiter{socket.Get(), POLLOUT, 0};
    int soError = errno == EINPROGRESS ? 0 : errno;
    socklen_t length = sizeof soError;
    if (soError == 0 && poll(&waiter, 1, kConnectTimeoutMs) <= 0) soError = ETIMEDOUT;
    if (soError == 0) getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &soError, &length);
    errno = soError;
    ok = soError == 0;
  }
  ok = ok && WriteAll(socket.Get(), document, kConnectTimeoutMs);
  if (!ok) {
    Print(prefix + "cannot send " + what + " to " + target + ": " + std::strerror(errno));
    return false;
  }
  shutdown(socket.Get(), SHUT_WR);
  Print(prefix + "sent " + what + " to " + target);
  return true;
}
