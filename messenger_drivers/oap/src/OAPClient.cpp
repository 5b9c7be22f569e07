#include "OAPClient.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>

#include <sys/socket.h>

#include "MessageBody.h"
#include "OAPBlock.h"
#include "OAPDeviceController.h"
#include "OAPDeviceRegistrar.h"
#include "OAPDocumentFramer.h"
#include "OAPListener.h"
#include "OAPMessageStore.h"
#include "OAPMessageSweeper.h"
#include "OAPTracer.h"
#include "QmException.h"
#include "QmString.h"
#include "QmioClientSocket.h"
#include "QmioException.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPClient";
const char kNotSetUp[] = "OAP Client not set up";
// The server's answer: read until it is one whole document, the server
// closes, or this time has passed since the first read began.
const int kAnswerTimeoutMs = 2000;
const unsigned int kAnswerPiece = 4096;
// Pauses between attempts to start a listener that stopped by itself.
const int kFirstRestartPauseMs = 1000;
const int kLastRestartPauseMs = 60000;

const uint32_t kBlockBits = 16;
const uint32_t kBlockLast = 0xffff;
// Random draws for a free block before the counter stays where it is.
const int kBlockDraws = 64;

// A multiple of 65536 from 65536 to 65535 * 65536.
uint32_t RandomBlockBase() {
  return static_cast<uint32_t>((rand() % 65535) + 1) << kBlockBits;
}

uint32_t RandomTrackingBase() {
  srand(static_cast<unsigned>(time(nullptr)));
  return RandomBlockBase();
}

// Reads the answer to a request that was written. A failure of the first
// read passes to the caller; later ones end the answer with what came.
std::string ReadAnswer(QmioSocket& socket) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kAnswerTimeoutMs);
  OAPDocumentFramer framer;
  std::string received;
  std::string document;
  unsigned char buffer[kAnswerPiece];
  for (int timeoutMs = kAnswerTimeoutMs; timeoutMs >= 0;) {
    QmioSocket::SocketStatus status = QmioSocket::SOCKET_DONE;
    int count = -1;
    try {
      count = socket.Read(buffer, kAnswerPiece, timeoutMs, status, false);
    } catch (const QmioException&) {
      if (received.empty()) throw;
    }
    if (count <= 0) break;
    const std::string piece(reinterpret_cast<char*>(buffer), static_cast<size_t>(count));
    received += piece;
    framer.Append(piece);
    if (framer.Next(document) != OAPDocumentFramer::kNeedMore) break;
    timeoutMs = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
  }
  return received;
}

}  // namespace

OAPClient::OAPClient(int port, const std::string& address)
    : Port(port), Address(address), TrackingBase(RandomTrackingBase()) {}

OAPClient::~OAPClient() {
  // A listener still running would outlive the object its workers use.
  if (Listener != nullptr) FinalizeSpecial();
  OAPDeviceRegistrar::GetInstance()->DetachClient(this);
}

void OAPClient::SetMessageStore(std::shared_ptr<OAPMessageStore> store, int retentionMinutes,
                                size_t limit) {
  m_store = std::move(store);
  m_retentionMinutes = retentionMinutes;
  m_storeLimit = limit;
}

std::string OAPClient::GetRunningModuleName() {
  return "Qm OAP Client";
}

bool OAPClient::InitializeSpecial() {
  OAPTracer trace(m_logger, kSource, __LINE__, "OAPClient::InitializeSpecial", "FALSE");
  OAPDeviceRegistrar* registry = OAPDeviceRegistrar::GetInstance();
  registry->SetLogger(m_logger);
  registry->AttachClient(weak_from_this());
  if (m_store != nullptr) registry->SetStore(m_store);
  std::lock_guard<std::recursive_mutex> guard(m_listenerMutex);
  // A second start replaces the listener: the running one is stopped first.
  if (Listener != nullptr) FinalizeSpecial();
  {
    std::lock_guard<std::mutex> exchanges(m_exchangeMutex);
    m_exchangesCut = false;
  }
  const bool result = StartListener();
  if (result && m_store != nullptr) {
    if (m_sweeper == nullptr) {
      m_sweeper =
          std::make_unique<OAPMessageSweeper>(m_store, m_retentionMinutes, m_storeLimit, m_logger);
    }
    m_sweeper->Start();
  }
  trace.SetResult(OAPTracer::TrueFalse(result));
  return result;
}

bool OAPClient::FinalizeSpecial() {
  OAPTracer trace(m_logger, kSource, __LINE__, "OAPClient::FinalizeSpecial", "FALSE");
  // First, so that workers echoing to a silent server are free to stop.
  CutExchanges();
  std::lock_guard<std::recursive_mutex> guard(m_listenerMutex);
  if (m_sweeper != nullptr) m_sweeper->Stop();
  const bool result = StopListener();
  m_listenerDown = false;
  trace.SetResult(OAPTracer::TrueFalse(result));
  return result;
}

bool OAPClient::StartListener() {
  try {
    Listener = std::make_unique<OAPListener>();
    if (!Listener->Initialize(m_logger, "")) QM_THROW("Failed to Initialize OAP Listener");
    if (!Listener->Listen(Port, Address)) {
      QM_THROW(QmstringFormat("Failed to Start OAP Listener on '%s:%d'", Address.c_str(), Port));
    }
    m_listenerStarted = true;
    return true;
  } catch (const QmException& e) {
    QM_LOG(m_logger, Error, kSource, QmstringFormat("%s", e.GetMsg().c_str()));
  }
  return false;
}

bool OAPClient::StopListener() {
  bool result = false;
  try {
    if (Listener != nullptr && m_listenerStarted) {
      Listener->StopThread();
      result = Listener->WaitForThreadStop(-1);
    } else if (Listener != nullptr) {
      // The thread never ran, so nobody else finalises the listener: release
      // its pool here.
      Listener->Finalize();
    }
  } catch (const QmException& e) {
    QM_LOG(m_logger, Error, kSource, QmstringFormat("%s", e.GetMsg().c_str()));
  }
  Listener.reset();
  m_listenerStarted = false;
  return result;
}

bool OAPClient::KeepListenerUp() {
  using Clock = std::chrono::steady_clock;
  std::lock_guard<std::recursive_mutex> guard(m_listenerMutex);
  if (!m_listenerDown) {
    if (!m_listenerStarted) return false;
    if (!Listener->HasEnded()) return true;
    QM_LOG(m_logger, Critical, kSource,
           QmstringFormat("OAP Listener on '%s:%d' has stopped; starting it again.",
                          Address.c_str(), Port));
    m_listenerDown = true;
    m_restartPauseMs = kFirstRestartPauseMs;
    m_nextRestart = Clock::now();
  }
  if (Clock::now() < m_nextRestart) return false;
  StopListener();
  if (StartListener()) {
    m_listenerDown = false;
    QM_LOG(m_logger, Info, kSource,
           QmstringFormat("OAP Listener on '%s:%d' started again.", Address.c_str(), Port));
    return true;
  }
  m_nextRestart = Clock::now() + std::chrono::milliseconds(m_restartPauseMs);
  m_restartPauseMs = std::min(2 * m_restartPauseMs, kLastRestartPauseMs);
  return false;
}

uint32_t OAPClient::NextTrackingNumber() {
  for (;;) {
    const uint32_t number = TrackingBase.fetch_add(1);
    if (number != 0 && MayIssue(number)) return number;
  }
}

bool OAPClient::MayIssue(uint32_t number) {
  const uint32_t block = number >> kBlockBits;
  if (m_checkedBlock.load() == block) return true;
  std::lock_guard<std::mutex> guard(m_blockMutex);
  if (m_checkedBlock.load() == block) return true;
  const std::shared_ptr<OAPMessageStore> store = StoreInUse();
  auto occupied = [&store](uint32_t base) { return store->AnyInRange(base, base | kBlockLast); };
  if (!occupied(block << kBlockBits)) {
    m_checkedBlock = block;
    return true;
  }
  // Another thread may have moved the counter already.
  if ((TrackingBase.load() >> kBlockBits) == block) {
    uint32_t base = RandomBlockBase();
    for (int draw = 1; draw < kBlockDraws && occupied(base); ++draw) base = RandomBlockBase();
    TrackingBase = base;
  }
  return false;
}

std::shared_ptr<OAPMessageStore> OAPClient::StoreInUse() {
  return m_store != nullptr ? m_store : OAPDeviceRegistrar::GetInstance()->GetStore();
}

bool OAPClient::BeginExchange(QmioSocket* socket) {
  std::lock_guard<std::mutex> guard(m_exchangeMutex);
  if (m_exchangesCut) return false;
  m_exchanges.insert(socket);
  return true;
}

bool OAPClient::EndExchange(QmioSocket* socket) {
  std::lock_guard<std::mutex> guard(m_exchangeMutex);
  m_exchanges.erase(socket);
  return m_exchangesCut;
}

void OAPClient::CutExchanges() {
  std::lock_guard<std::mutex> guard(m_exchangeMutex);
  m_exchangesCut = true;
  // An owner unregisters its socket (under this lock) before it closes it,
  // so every descriptor named here still belongs to its exchange.
  for (QmioSocket* socket : m_exchanges) shutdown(socket->GetSocket(), SHUT_RDWR);
}

int OAPClient::GetListeningPort() const {
  std::lock_guard<std::recursive_mutex> guard(m_listenerMutex);
  return Listener != nullptr ? Listener->GetListeningPort() : -1;
}

unsigned long OAPClient::SendAMessage(MessageBody* body) {
  // A send that throws leaves as a failure.
  OAPTracer trace(m_logger, kSource, __LINE__, "OAPClient::SendAMessage", "Failure(0)");
  unsigned long tracking = 0;
  if (body != nullptr) {
    const OAPDeviceRegistrar::Device device =
        OAPDeviceRegistrar::GetInstance()->GetDevice(body->to, true);
    device->SetClient(weak_from_this());
    tracking = device->SendAMessage(body);
    if (m_sweeper != nullptr) m_sweeper->Poke();
  }
  trace.SetResult(QmstringFormat("%s(%lu)", tracking != 0 ? "Success" : "Failure", tracking));
  return tracking;
}

int OAPClient::GetStatus(const std::string& device, unsigned long tracking) {
  OAPTracer trace(m_logger, kSource, __LINE__, "OAPClient::GetStatus", "0");
  OAPDeviceController::MsgStatus status;
  const OAPDeviceRegistrar::Device controller =
      OAPDeviceRegistrar::GetInstance()->GetDevice(device, static_cast<uint32_t>(tracking));
  if (controller != nullptr) controller->GetStatus(static_cast<uint32_t>(tracking), status);
  const int state = status.state;
  trace.SetResult(std::to_string(state));
  return state;
}

std::list<std::string> OAPClient::QueryResponse(const std::string& device, unsigned long tracking) {
  OAPTracer trace(m_logger, kSource, __LINE__, "OAPClient::QueryResponse", "0");
  std::list<std::string> replies;
  const OAPDeviceRegistrar::Device controller =
      OAPDeviceRegistrar::GetInstance()->GetDevice(device, static_cast<uint32_t>(tracking));
  if (controller != nullptr) {
    replies = controller->QueryResponse(device, static_cast<uint32_t>(tracking));
  }
  trace.SetResult(std::to_string(replies.size()));
  return replies;
}

void OAPClient::WipeOptions(unsigned long tracking) {
  OAPTracer trace(m_logger, kSource, __LINE__, "OAPClient::WipeOptions");
  const OAPDeviceRegistrar::Device controller =
      OAPDeviceRegistrar::GetInstance()->GetDeviceByTrackingID(static_cast<uint32_t>(tracking));
  if (controller != nullptr) {
    auto update = std::make_unique<MessageBody>();
    update->version = "4.0";
    update->updateOnlyExisting = true;
    update->id = static_cast<uint32_t>(tracking);
    controller->SetClient(weak_from_this());
    try {
      controller->SendAMessage(update.release());
    } catch (const std::exception& e) {
      QM_LOG(m_logger, Error, kSource, QmstringFormat("Exception occurred [%s]", e.what()));
    }
  }
}

OAPBlock* OAPClient::DispatchPayLoad(const std::string& host, int port, OAPBlock* request) {
  // By design the leaving line reads TRUE when no block came back, also when a
  // socket exception passes.
  OAPTracer trace(m_logger, kSource, __LINE__, "OAPClient::DispatchPayLoad", "TRUE");
  std::unique_ptr<OAPBlock> answer;
  // A block without header or body cannot be written.
  if (request != nullptr && request->header != nullptr && request->body != nullptr) {
    QmioClientSocket socket;
    socket.SetEventLog(m_logger);
    socket.Connect(host, port, QmioSocket::SOCKET_TCP);
    if (!BeginExchange(&socket)) QM_THROW(kNotSetUp);
    std::string received;
    try {
      socket.Write(request->Serialize());
      received = ReadAnswer(socket);
    } catch (const QmException&) {
      if (!EndExchange(&socket)) throw;
      QM_THROW(kNotSetUp);
    }
    if (EndExchange(&socket)) QM_THROW(kNotSetUp);
    socket.Close();

    // Only the bytes read count, up to the first NUL among them.
    answer.reset(OAPBlock::Parse(received.substr(0, received.find('\0'))));
  }
  trace.SetResult(OAPTracer::TrueFalse(answer == nullptr));
  return answer.release();
}
