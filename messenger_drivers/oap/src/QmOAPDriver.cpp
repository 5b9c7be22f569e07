#include "QmOAPDriver.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>

#include "MessageBody.h"
#include "OAPBuildInfo.h"
#include "OAPClient.h"
#include "OAPDeviceRegistrar.h"
#include "OAPLoggerProxy.h"
#include "OAPMemoryMessageStore.h"
#include "OAPSQLiteMessageStore.h"
#include "OAPTracer.h"
#include "QmAny.h"
#include "QmException.h"
#include "QmString.h"

namespace {

const char kSource[] = "QmOAPDriver";

// Choice kinds above this one are final answers: the handset's options are
// removed once one of them is chosen.
const uint32_t kLastOrdinaryKind = 1;
const uint32_t kSpecialKindA = 2;
const uint32_t kSpecialKindB = 3;

struct CodeDeleter {
  void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct MatchDataDeleter {
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

// Takes the text of capturing group 1 of the first match of `pattern` in
// `text`. Group 1 counts only when it lies within the pairs that the match
// reports as set; such a group left unset by an alternative yields an empty
// result. False for an invalid pattern, no match, or no group 1 in range.
bool ExtractFirstGroup(const std::string& pattern, const std::string& text, std::string* out) {
  int errorCode = 0;
  PCRE2_SIZE errorOffset = 0;
  std::unique_ptr<pcre2_code, CodeDeleter> code(
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), 0, &errorCode,
                    &errorOffset, nullptr));
  if (!code) return false;
  std::unique_ptr<pcre2_match_data, MatchDataDeleter> match(
      pcre2_match_data_create_from_pattern(code.get(), nullptr));
  if (!match) return false;
  int pairs = pcre2_match(code.get(), reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0, 0,
                          match.get(), nullptr);
  if (pairs < 2) return false;
  const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(match.get());
  out->clear();
  if (ovector[2] != PCRE2_UNSET) out->assign(text, ovector[2], ovector[3] - ovector[2]);
  return true;
}

MessageBody::Option MakeOption(const QmResponseChoice& choice) {
  MessageBody::Option option;
  option.text = QmstringReplaceColon(choice.Text);
  option.dataResp = (choice.Kind <= kLastOrdinaryKind ? "N:" : "F:") + option.text;
  if (!choice.Value.empty()) option.callNo = choice.Value;
  return option;
}

void CopyPresentation(const QmOAPMessageFile& job, MessageBody* body) {
  body->colour = job.Colour;
  body->intensity = job.Intensity;
  body->urgent = job.Urgent;
  body->sticky = job.StickyMode;
  body->numberOfRepetitions = job.RepeatCount;
  body->intervalTime = job.RepeatInterval;
  body->priority = job.Priority;
  body->auxValue = job.AuxValue;
  // Minutes to seconds, held within the body's 32-bit field.
  int64_t seconds = static_cast<int64_t>(job.TtlMinutes) * 60;
  body->ttl =
      static_cast<int32_t>(std::min<int64_t>(INT32_MAX, std::max<int64_t>(INT32_MIN, seconds)));
}

const char kTrue[] = "TRUE";
const char kFalse[] = "FALSE";

// The settings Configure takes, and the value of kStoreKey that keeps the
// messages in memory.
const char kStoreKey[] = "MessageStore";
const char kRetentionKey[] = "MessageRetentionMinutes";
const char kLimitKey[] = "MessageStoreLimit";
const char kInMemory[] = "memory";
const long kMaxRetentionMinutes = 5256000;  // ten years
const long kMaxStoreLimit = 100000000;

// A whole decimal number from 1 to `maximum`, blanks around it allowed.
bool ReadCount(const std::string& text, long maximum, long* out) {
  const std::string digits = QmstringTrim(text);
  if (digits.empty() || digits.size() > 12 ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *out = std::strtol(digits.c_str(), nullptr, 10);
  return *out >= 1 && *out <= maximum;
}

// The listener port of the configuration: decimal, from 1 to 65535, with
// nothing but white space around the digits. `port` receives the number read
// (within the int range, for the refusal's log line).
bool ReadListenerPort(const QmMessengerInstConfBasic* conf, long* port) {
  if (conf == nullptr) return false;
  const std::string text(conf->ListenerPort,
                         strnlen(conf->ListenerPort, sizeof(conf->ListenerPort)));
  char* end = nullptr;
  *port = std::clamp<long>(std::strtol(text.c_str(), &end, 10), INT_MIN, INT_MAX);
  const bool digits = end != text.c_str();
  while (*end != '\0' && std::isspace(static_cast<unsigned char>(*end))) ++end;
  return digits && *end == '\0' && *port >= 1 && *port <= 65535;
}

}  // namespace

QmOAPDriver::QmOAPDriver()
    : Name("OAP"),
      ProtocolName("Open Access Protocol (OAP)"),
      Version("3.x/4.x"),
      CarrierName("*") {
  Logger = nullptr;
  ReportsManager = nullptr;
}

QmOAPDriver::~QmOAPDriver() {
  Client.reset();
  OAPLoggerProxy::Instance()->Detach();
  // The device controllers and the message store go with the driver.
  OAPDeviceRegistrar::GetInstance()->Clear();
}

bool QmOAPDriver::Configure(std::map<std::string, std::string>& settings) {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::Configure", kFalse);
  std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  // All or nothing: a bad value leaves the settings as they were.
  StoreSettings chosen = m_settings;
  for (const auto& setting : settings) {
    if (!ApplySetting(setting.first, setting.second, &chosen)) return false;
  }
  m_settings = chosen;
  trace.SetResult(kTrue);
  return true;
}

bool QmOAPDriver::ApplySetting(const std::string& key, const std::string& value,
                               StoreSettings* settings) {
  long number = 0;
  std::string expected;
  if (key == kStoreKey) {
    const std::string where = QmstringTrim(value);
    if (!where.empty()) {
      settings->where = QmstringEqualsNoCase(where, kInMemory) ? kInMemory : where;
      return true;
    }
    expected = "\"memory\" or the path of a file";
  } else if (key == kRetentionKey) {
    if (ReadCount(value, kMaxRetentionMinutes, &number)) {
      settings->retentionMinutes = static_cast<int>(number);
      return true;
    }
    expected = "whole minutes from 1 to " + std::to_string(kMaxRetentionMinutes);
  } else if (key == kLimitKey) {
    if (ReadCount(value, kMaxStoreLimit, &number)) {
      settings->limit = static_cast<size_t>(number);
      return true;
    }
    expected = "a whole number of messages from 1 to " + std::to_string(kMaxStoreLimit);
  } else {
    QM_LOG(Logger, Warn, kSource, QmstringFormat("Ignoring unknown setting '%s'.", key.c_str()));
    return true;
  }
  QM_LOG(Logger, Error, kSource,
         QmstringFormat("Invalid value '%s' for setting '%s': expected %s.", value.c_str(),
                        key.c_str(), expected.c_str()));
  return false;
}

std::shared_ptr<OAPMessageStore> QmOAPDriver::OpenStore() {
  if (m_store != nullptr && m_storeWhere == m_settings.where) return m_store;
  m_storeWhere = m_settings.where;
  m_store = nullptr;
  if (m_storeWhere != kInMemory) {
    std::string error;
    m_store = OAPSQLiteMessageStore::Open(m_storeWhere, OAPLoggerProxy::Instance(), &error);
    if (m_store == nullptr) {
      QM_LOG(Logger, Critical, kSource,
             QmstringFormat("Cannot use message store '%s' (%s); keeping messages in memory.",
                            m_storeWhere.c_str(), error.c_str()));
    }
  }
  if (m_store == nullptr) m_store = std::make_shared<OAPMemoryMessageStore>();
  return m_store;
}

bool QmOAPDriver::Setup(QmMessengerInstConfBasic* conf) {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::Setup", kFalse);
  QM_LOG(Logger, Info, kSource, OAPBuildInfo::Describe());
  std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  bool result = false;
  long port = 0;
  if (!ReadListenerPort(conf, &port)) {
    QM_LOG(Logger, Critical, kSource,
           QmstringFormat("Invalid OAP Listener port number: %d.", static_cast<int>(port)));
  } else {
    // A client left from an earlier Setup would keep its listener (and port).
    FinalizeClient();
    std::string address(conf->ListenerAddress,
                        strnlen(conf->ListenerAddress, sizeof(conf->ListenerAddress)));
    // Without a host logger the components get none either, so that they do
    // not build lines nobody reads.
    OAPLoggerProxy* proxy = Logger != nullptr ? OAPLoggerProxy::Instance() : nullptr;
    OAPLoggerProxy::Instance()->Attach(Logger);
    auto client = std::make_shared<OAPClient>(static_cast<int>(port), address);
    client->SetMessageStore(OpenStore(), m_settings.retentionMinutes, m_settings.limit);
    result = client->Initialize(proxy, "");
    if (!result) QM_LOG(Logger, Critical, kSource, "Failed to Initialize OAP Client.");
    // Kept also when it failed, for Cleanup.
    std::lock_guard<std::mutex> guard(m_clientMutex);
    Client = std::move(client);
  }
  trace.SetResult(OAPTracer::TrueFalse(result));
  return result;
}

bool QmOAPDriver::PeriodicEvent() {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::PeriodicEvent", kTrue);
  // False while the listener is down (it is being started again).
  const std::shared_ptr<OAPClient> client = CurrentClient();
  const bool result = client == nullptr || client->KeepListenerUp();
  trace.SetResult(OAPTracer::TrueFalse(result));
  return result;
}

bool QmOAPDriver::ResetDevice() {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::ResetDevice", kTrue);
  return true;
}

bool QmOAPDriver::ProcessSignal() {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::ProcessSignal", kTrue);
  return true;
}

bool QmOAPDriver::Cleanup() {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::Cleanup", kTrue);
  std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  FinalizeClient();
  // From here on nothing of the driver writes to the host's logger.
  OAPLoggerProxy::Instance()->Detach();
  return true;
}

std::shared_ptr<OAPClient> QmOAPDriver::CurrentClient() {
  std::lock_guard<std::mutex> guard(m_clientMutex);
  return Client;
}

void QmOAPDriver::FinalizeClient() {
  // Taken out first: calls from now on find no client; calls still using it
  // keep it until they return.
  std::shared_ptr<OAPClient> client;
  {
    std::lock_guard<std::mutex> guard(m_clientMutex);
    client.swap(Client);
  }
  if (client != nullptr && client->Finalize())
    QM_LOG(Logger, Info, kSource, "Finalized OAP Client");
}

std::string QmOAPDriver::GetDeviceAddress(QmOAPMessageFile* job, bool withoutPort) {
  if (withoutPort) {
    return QmstringFormat("%s@%s", job->DeviceId.c_str(), job->ServerHost.c_str());
  }
  return QmstringFormat("%s@%s:%d", job->DeviceId.c_str(), job->ServerHost.c_str(),
                        job->ServerPort);
}

std::string QmOAPDriver::GetCallerID(QmOAPMessageFile* job) {
  std::string callerId;
  if (job->CallerIdPattern.empty()) {
    callerId = job->CallerIdDefault;
  } else if (!job->CallerIdFixed.empty()) {
    callerId = job->CallerIdFixed;
  } else if (ExtractFirstGroup(job->CallerIdPattern, job->MessageText, &callerId)) {
    QM_LOG(Logger, Debug, kSource,
           QmstringFormat("Found Caller ID '%s' from Message Body using Regular Expression "
                          "Pattern '%s'",
                          job->MessageText.c_str(), job->CallerIdPattern.c_str()));
  } else {
    callerId = job->CallerIdDefault;
  }
  job->SetCallerID(callerId);
  return callerId;
}

unsigned long QmOAPDriver::DispatchJob(QmOAPMessageFile* job) {
  const std::shared_ptr<OAPClient> client = CurrentClient();
  if (client == nullptr) QM_THROW("OAP Client not set up");
  std::unique_ptr<MessageBody> body(new MessageBody());
  body->version = job->OapVersion;
  body->bodyText = job->MessageText;
  body->subjectText = job->SubjectText;
  body->to = GetDeviceAddress(job, false);
  body->fromNumber = GetCallerID(job);
  if (job->OapSettingsPresent) CopyPresentation(*job, body.get());
  if (job->IsInteractive && job->ExpectsResponse) {
    for (const QmResponseChoice& choice : job->ResponseChoices) {
      body->options.push_back(MakeOption(choice));
    }
    body->userResponseLabel = job->CustomResponseLabel;
  }
  // The client's device controller keeps the body with the message.
  return client->SendAMessage(body.release());
}

bool QmOAPDriver::SendAMessage(QmMessageFile* msg, ReportsStatus& status) {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::SendAMessage", kFalse);
  status = QmMessengerReportsMngrInterface::SENDING;
  QmOAPMessageFile* job = static_cast<QmOAPMessageFile*>(msg);
  bool result = false;
  if (job == nullptr) return result;
  try {
    unsigned long tracking = DispatchJob(job);
    if (tracking != 0) {
      status = QmMessengerReportsMngrInterface::SENT;
      if (job->IsInteractive && job->ExpectsResponse) {
        job->SetTrackingReceipt(QmAny(tracking).asString());
      }
      result = true;
    }
  } catch (const QmException& e) {
    QM_LOG(Logger, Error, kSource, QmstringFormat("Exception occurred [%s]", e.ToString().c_str()));
    job->SetErrorText(e.GetMsg());
  } catch (const std::exception& e) {
    // Nothing may escape into the host, whatever the layers below throw.
    QM_LOG(Logger, Error, kSource, QmstringFormat("Exception occurred [%s]", e.what()));
    job->SetErrorText(e.what());
  }
  trace.SetResult(OAPTracer::TrueFalse(result));
  return result;
}

bool QmOAPDriver::Send2WayRespQuery(QmMessageFile* msg, ReportsStatus& status) {
  OAPTracer trace(Logger, kSource, __LINE__, "QmOAPDriver::Send2WayRespQuery", kTrue);
  QmOAPMessageFile* job = static_cast<QmOAPMessageFile*>(msg);
  if (job == nullptr) return true;
  if (job->TrackingReceipt.empty()) {
    job->SetErrorText("Empty or no tracking receipt defined.");
    QM_LOG(Logger, Error, kSource,
           "Empty or no tracking receipt defined. Terminating query cycle.");
    return true;
  }
  const std::shared_ptr<OAPClient> client = CurrentClient();
  // Answers come through the listener: one that stopped is started again
  // here as well, for hosts that do not call PeriodicEvent.
  if (client != nullptr) client->KeepListenerUp();
  unsigned long tracking = QmAny(job->TrackingReceipt).asUInt();
  const std::string device = GetDeviceAddress(job, true);
  const int state = client != nullptr ? client->GetStatus(device, tracking) : 0;
  if (state == 0) {
    job->SetErrorText("Unknown Device");
    QM_LOG(Logger, Error, kSource, "The device is unknown for me.");
    return true;
  }
  if (state == 2 && job->AddStatusOnce("DELIVERED")) {
    job->DeliveredFlag = true;
    status = QmMessengerReportsMngrInterface::DELIVERED;
    PushBackMsgFile(job, status, false, "");
  }
  for (const std::string& answer : client->QueryResponse(device, tracking)) {
    if (!job->IsNewResponse(answer)) {
      QM_LOG(Logger, Debug, kSource,
             QmstringFormat("<%s> Response '%s' is not a new one", job->JobId.c_str(),
                            answer.c_str()));
      continue;
    }
    status = StatusForAnswer(job, answer);
    PushBackMsgFile(job, status, true, answer);
  }
  return true;
}

QmOAPDriver::ReportsStatus QmOAPDriver::StatusForAnswer(QmMessageFile* job,
                                                        const std::string& answer) {
  int index = job->FindChoice(answer);
  if (index < 0 || static_cast<size_t>(index) >= job->ResponseChoices.size()) {
    QM_LOG(Logger, Info, kSource,
           QmstringFormat("Creating REPORT entry REPLIED_WITH for job: %s.", job->JobId.c_str()));
    return QmMessengerReportsMngrInterface::REPLIED_WITH;
  }
  uint32_t kind = std::next(job->ResponseChoices.begin(), index)->Kind;
  if (kind == kSpecialKindA) return QmMessengerReportsMngrInterface::REPLIED_SPECIAL_A;
  if (kind == kSpecialKindB) return QmMessengerReportsMngrInterface::REPLIED_SPECIAL_B;
  return QmMessengerReportsMngrInterface::REPLIED;
}
