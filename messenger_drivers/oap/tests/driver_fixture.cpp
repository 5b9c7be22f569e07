#include "driver_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "QmconCriticalSection.h"

namespace {

const char kRequestEnd[] = "</OAP-request>";

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int BoundPort(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

}  // namespace

size_t RecordingLogger::Count(LogLevel level, const std::string& text) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  size_t count = 0;
  for (const Line& line : m_lines) count += (line.level == level && line.text == text) ? 1 : 0;
  return count;
}

std::vector<std::string> RecordingLogger::TextsFrom(const std::string& file) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  std::vector<std::string> texts;
  for (const Line& line : m_lines) {
    if (line.file == file) texts.push_back(line.text);
  }
  return texts;
}

bool RecordingLogger::Add(LogLevel level, const std::string& text, const char* file) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_lines.push_back(Line{level, text, file != nullptr ? file : ""});
  return true;
}

FakeOapServer::FakeOapServer(Responder responder) : m_responder(std::move(responder)) {
  m_listenFd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = Loopback(0);
  if (m_listenFd < 0 || bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
      listen(m_listenFd, 16)) {
    ADD_FAILURE() << "fake OAP server cannot listen";
    return;
  }
  m_port = BoundPort(m_listenFd);
  m_thread = std::thread([this] { Serve(); });
}

FakeOapServer::~FakeOapServer() {
  m_stop = true;
  if (m_thread.joinable()) m_thread.join();
  if (m_listenFd >= 0) close(m_listenFd);
}

std::vector<std::string> FakeOapServer::Requests() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_requests;
}

bool FakeOapServer::WaitForRequests(size_t count, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return m_requests.size() >= count; });
}

void FakeOapServer::Serve() {
  while (!m_stop) {
    pollfd waiting{m_listenFd, POLLIN, 0};
    if (poll(&waiting, 1, 50) <= 0) continue;
    int fd = accept(m_listenFd, nullptr, nullptr);
    if (fd < 0) continue;
    ServeOne(fd);
    close(fd);
  }
}

void FakeOapServer::ServeOne(int fd) {
  std::string request;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  char buffer[1024];
  while (request.find(kRequestEnd) == std::string::npos &&
         std::chrono::steady_clock::now() < deadline && !m_stop) {
    pollfd readable{fd, POLLIN, 0};
    if (poll(&readable, 1, 50) <= 0) continue;
    ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
    if (got <= 0) break;
    request.append(buffer, static_cast<size_t>(got));
  }
  // Recorded before the answer goes out: the driver may look as soon as it
  // has read the answer.
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_requests.push_back(request);
    m_arrived.notify_all();
  }
  std::string answer = m_responder(request);
  if (!answer.empty()) send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
}

std::string RequestId(const std::string& request) {
  const std::string marker = "<OAP-request version=\"";
  size_t start = request.find(marker);
  if (start == std::string::npos) return "";
  start = request.find("id=\"", start);
  if (start == std::string::npos) return "";
  start += 4;
  return request.substr(start, request.find('"', start) - start);
}

std::string ResponseDoc(const std::string& hexId, int type, int code) {
  return "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-response version=\"3.0\" id=\"" +
         hexId + "\"><Status service=\"message\"><Type>" + std::to_string(type) + "</Type><Code>" +
         std::to_string(code) + "</Code></Status></OAP-response>";
}

std::string AcceptAll(const std::string& request) {
  return ResponseDoc(RequestId(request), 1, 200);
}

int UnusedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = Loopback(0);
  int port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    port = BoundPort(fd);
  }
  if (fd >= 0) close(fd);
  return port;
}

std::string Hex(unsigned long value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%lx", value);
  return text;
}

void DriverTest::SetUp() {
  ASSERT_TRUE(loader.Load(QM_DRIVER_PATH)) << loader.GetError();
  driver = loader.GetDriverInstance();
  ASSERT_NE(driver, nullptr);
  driver->Logger = &logger;
  driver->ReportsManager = &reports;
  driver->MessageQueue = &queue;
}

void DriverTest::TearDown() {
  if (driver != nullptr) {
    driver->Cleanup();
    loader.ReleaseDriverInstance(driver);
  }
}

bool DriverTest::SetupWithPort(const std::string& port) {
  QmMessengerInstConfBasic conf;
  std::snprintf(conf.ListenerPort, sizeof(conf.ListenerPort), "%s", port.c_str());
  std::snprintf(conf.ListenerAddress, sizeof(conf.ListenerAddress), "127.0.0.1");
  return driver->Setup(&conf);
}

void DriverTest::SetupOnFreePort() {
  // The port is free when picked; another process may take it before the
  // listener binds, so a few attempts are made.
  for (int attempt = 0; attempt < 5; ++attempt) {
    listenerPort = UnusedPort();
    if (SetupWithPort(std::to_string(listenerPort))) return;
  }
  FAIL() << "no listener port could be bound";
}

void DriverTest::Address(QmReferenceJob& job, int serverPort, const std::string& version) {
  job.JobId = "job-1";
  job.DeviceId = "4711";
  job.ServerHost = "127.0.0.1";
  job.ServerPort = serverPort;
  job.OapVersion = version;
  job.SubjectText = "Subject";
  job.MessageText = "Hello";
}

std::vector<QmMessageFile*> DriverTest::DrainQueue() {
  QmconCriticalSection guard(queue.Lock.GetLockObj(), true, true, false);
  std::vector<QmMessageFile*> jobs(queue.Jobs.begin(), queue.Jobs.end());
  queue.Jobs.clear();
  return jobs;
}
