#include "QmHostOptions.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>

namespace {

const std::map<int, std::string>& StatusNames() {
  static const std::map<int, std::string> names{
      {QmMessengerReportsMngrInterface::NO_STATUS, "NO_STATUS"},
      {QmMessengerReportsMngrInterface::SENDING, "SENDING"},
      {QmMessengerReportsMngrInterface::SENT, "SENT"},
      {QmMessengerReportsMngrInterface::REPLIED, "REPLIED"},
      {QmMessengerReportsMngrInterface::REPLIED_WITH, "REPLIED_WITH"},
      {QmMessengerReportsMngrInterface::DELIVERED, "DELIVERED"},
      {QmMessengerReportsMngrInterface::REPLIED_SPECIAL_A, "REPLIED_SPECIAL_A"},
      {QmMessengerReportsMngrInterface::REPLIED_SPECIAL_B, "REPLIED_SPECIAL_B"}};
  return names;
}

bool ParseInt(const std::string& text, long minimum, int* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < minimum || value > INT_MAX) return false;
  *out = static_cast<int>(value);
  return true;
}

// Walks the argument list; every option that takes a value fetches it here
// so that a missing value is reported with the option's name.
class ArgReader {
 public:
  explicit ArgReader(const std::vector<std::string>& args) : m_args(args) {}

  bool Done() const { return m_next >= m_args.size(); }
  const std::string& Next() { return m_args[m_next++]; }

  bool Value(const std::string& option, std::string* out, std::string* error) {
    if (Done()) {
      *error = "option " + option + " needs a value";
      return false;
    }
    *out = Next();
    return true;
  }

  bool Number(const std::string& option, long minimum, int* out, std::string* error) {
    std::string text;
    if (!Value(option, &text, error)) return false;
    if (ParseInt(text, minimum, out)) return true;
    *error = "invalid number for " + option + ": '" + text + "'";
    return false;
  }

 private:
  const std::vector<std::string>& m_args;
  size_t m_next = 0;
};

bool ParseServer(const std::string& text, QmHostOptions::Job* job, std::string* error) {
  size_t colon = text.rfind(':');
  int port = 0;
  if (colon == std::string::npos || colon == 0 || !ParseInt(text.substr(colon + 1), 1, &port) ||
      port > 65535) {
    *error = "invalid --server '" + text + "' (expected HOST:PORT)";
    return false;
  }
  job->serverHost = text.substr(0, colon);
  job->serverPort = port;
  return true;
}

// "TEXT[:KIND[:CALLNO]]"; a ':' inside the text is written as "%3a".
bool ParseChoice(const std::string& text, QmHostOptions::Job* job, std::string* error) {
  QmResponseChoice choice;
  size_t first = text.find(':');
  choice.Text = text.substr(0, first);
  if (first != std::string::npos) {
    size_t second = text.find(':', first + 1);
    std::string kind =
        text.substr(first + 1, second == std::string::npos ? second : second - first - 1);
    int value = 0;
    if (!ParseInt(kind, 0, &value)) {
      *error = "invalid choice kind in --choice '" + text + "'";
      return false;
    }
    choice.Kind = static_cast<uint32_t>(value);
    if (second != std::string::npos) choice.Value = text.substr(second + 1);
  }
  if (choice.Text.empty()) {
    *error = "empty choice text in --choice '" + text + "'";
    return false;
  }
  job->choices.push_back(choice);
  return true;
}

bool ParseExpected(const std::string& text, QmHostOptions::Job* job, std::string* error) {
  std::stringstream list(text);
  std::string item;
  while (std::getline(list, item, ',')) {
    int status = 0;
    if (!QmHostOptions::ParseStatus(item, &status)) {
      *error = "unknown status '" + item + "' in --expect";
      return false;
    }
    job->expected.insert(status);
  }
  return true;
}

// One job option; false with `error` set when it is malformed, and with
// `error` empty when `option` is no job option at all.
bool ParseJobOption(const std::string& option, ArgReader& reader, QmHostOptions::Job* job,
                    std::string* error) {
  using TextField = std::string QmHostOptions::Job::*;
  static const std::map<std::string, TextField> texts{
      {"--handset", &QmHostOptions::Job::handset},
      {"--version", &QmHostOptions::Job::version},
      {"--subject", &QmHostOptions::Job::subject},
      {"--text", &QmHostOptions::Job::text},
      {"--custom-label", &QmHostOptions::Job::customLabel},
      {"--caller-pattern", &QmHostOptions::Job::callerPattern},
      {"--caller-default", &QmHostOptions::Job::callerDefault},
      {"--caller-fixed", &QmHostOptions::Job::callerFixed}};
  using NumberField = int32_t QmHostOptions::Job::*;
  static const std::map<std::string, NumberField> numbers{
      {"--ttl-minutes", &QmHostOptions::Job::ttlMinutes},
      {"--priority", &QmHostOptions::Job::priority},
      {"--repeat", &QmHostOptions::Job::repeat},
      {"--repeat-interval", &QmHostOptions::Job::repeatInterval}};
  static const std::map<std::string, TextField> presentationTexts{
      {"--colour", &QmHostOptions::Job::colour}, {"--intensity", &QmHostOptions::Job::intensity}};

  std::string value;
  if (texts.count(option)) return reader.Value(option, &(job->*texts.at(option)), error);
  if (presentationTexts.count(option)) {
    job->settingsPresent = true;
    return reader.Value(option, &(job->*presentationTexts.at(option)), error);
  }
  if (numbers.count(option)) {
    job->settingsPresent = true;
    return reader.Number(option, 0, &(job->*numbers.at(option)), error);
  }
  if (option == "--urgent" || option == "--sticky") {
    job->settingsPresent = true;
    (option == "--urgent" ? job->urgent : job->sticky) = true;
    return true;
  }
  if (option == "--interactive") {
    job->interactive = true;
    return true;
  }
  if (option == "--server")
    return reader.Value(option, &value, error) && ParseServer(value, job, error);
  if (option == "--choice")
    return reader.Value(option, &value, error) && ParseChoice(value, job, error);
  if (option == "--expect")
    return reader.Value(option, &value, error) && ParseExpected(value, job, error);
  error->clear();
  return false;
}

bool ParseGlobalOption(const std::string& option, ArgReader& reader, QmHostOptions* out,
                       std::string* error) {
  if (option == "--help" || option == "-h") {
    out->help = true;
    return true;
  }
  if (option == "--until-expected") {
    out->untilExpected = true;
    return true;
  }
  if (option == "--plugin") return reader.Value(option, &out->plugin, error);
  if (option == "--workdir") return reader.Value(option, &out->workdir, error);
  if (option == "--state") return reader.Value(option, &out->statePath, error);
  if (option == "--listen-port") return reader.Value(option, &out->listenPort, error);
  if (option == "--listen-address") return reader.Value(option, &out->listenAddress, error);
  if (option == "--poll-ms") return reader.Number(option, 1, &out->pollMs, error);
  if (option == "--duration-ms") return reader.Number(option, 0, &out->durationMs, error);
  error->clear();
  return false;
}

bool CheckJob(const QmHostOptions::Job& job, std::string* error) {
  const char* missing = job.handset.empty()      ? "--handset"
                        : job.serverHost.empty() ? "--server"
                                                 : nullptr;
  if (missing != nullptr) {
    *error = "job " + job.id + " needs " + missing;
    return false;
  }
  return true;
}

bool CheckOptions(const QmHostOptions& options, std::string* error) {
  const char* missing = options.plugin.empty()       ? "--plugin"
                        : options.workdir.empty()    ? "--workdir"
                        : options.listenPort.empty() ? "--listen-port"
                                                     : nullptr;
  if (missing != nullptr) {
    *error = std::string("missing ") + missing;
    return false;
  }
  if (options.jobs.empty()) {
    *error = "no job given (use --job ID ...)";
    return false;
  }
  for (const QmHostOptions::Job& job : options.jobs) {
    if (!CheckJob(job, error)) return false;
  }
  return true;
}

}  // namespace

bool QmHostOptions::Parse(const std::vector<std::string>& args, QmHostOptions* out,
                          std::string* error) {
  error->clear();
  ArgReader reader(args);
  while (!reader.Done()) {
    const std::string option = reader.Next();
    if (option == "--job") {
      Job job;
      if (!reader.Value(option, &job.id, error)) return false;
      out->jobs.push_back(job);
      continue;
    }
    if (ParseGlobalOption(option, reader, out, error)) continue;
    if (!error->empty()) return false;
    if (out->jobs.empty() || !ParseJobOption(option, reader, &out->jobs.back(), error)) {
      if (error->empty()) {
        *error = out->jobs.empty() ? "unknown option '" + option + "' before the first --job"
                                   : "unknown option '" + option + "'";
      }
      return false;
    }
  }
  return out->help || CheckOptions(*out, error);
}

std::string QmHostOptions::StatusName(int status) {
  auto found = StatusNames().find(status);
  return found != StatusNames().end() ? found->second : "UNKNOWN";
}

bool QmHostOptions::ParseStatus(const std::string& text, int* status) {
  for (const auto& entry : StatusNames()) {
    if (entry.second == text) {
      *status = entry.first;
      return true;
    }
  }
  return ParseInt(text, 0, status) && StatusNames().count(*status) != 0;
}

std::string QmHostOptions::Usage() {
  return "Usage: qmhost --plugin PATH --workdir DIR --listen-port N [--listen-address A]\n"
         "              [--state FILE] [--poll-ms 200] [--duration-ms 10000] [--until-expected]\n"
         "              JOB...\n"
         "\n"
         "Loads an OAP driver plug-in, sends the jobs and runs the two-way query cycle,\n"
         "printing every job the driver hands back.\n"
         "\n"
         "  --plugin PATH          driver library to load\n"
         "  --workdir DIR          work directory; logging is configured in DIR/config\n"
         "  --listen-port N        port of the driver's inbound listener\n"
         "  --listen-address A     address the listener binds to (default 127.0.0.1)\n"
         "  --state FILE           the driver's message store, kept over restarts\n"
         "                         (default DIR/qmhost-state.db; 'memory' keeps none)\n"
         "  --poll-ms N            time between two query rounds (default 200)\n"
         "  --duration-ms N        how long the query cycle runs (default 10000)\n"
         "  --until-expected       end the cycle once every job saw its expected statuses\n"
         "\n"
         "JOB: --job ID followed by\n"
         "  --handset H --server HOST:PORT [--version 3.0|4.0] [--subject S] [--text T]\n"
         "  --choice \"TEXT[:KIND[:CALLNO]]\"   an answer choice (repeatable; ':' in TEXT as %3a)\n"
         "  --custom-label L       label of the free-text answer\n"
         "  --interactive          send as an interactive message expecting answers\n"
         "  --ttl-minutes N --priority N --urgent --sticky --colour C --intensity I\n"
         "  --repeat N --repeat-interval N     presentation settings\n"
         "  --caller-pattern P --caller-default D --caller-fixed F   caller number\n"
         "  --expect STATUS[,STATUS...]   statuses the job must reach (name or number)\n"
         "\n"
         "Statuses: SENDING(2) SENT(3) REPLIED(4) REPLIED_WITH(5) DELIVERED(6)\n"
         "          REPLIED_SPECIAL_A(15) REPLIED_SPECIAL_B(16)\n"
         "\n"
         "Output: one line per sent job and per job handed back, then\n"
         "'summary: <k>/<n> jobs complete'. Exit status 0 when every job saw all its\n"
         "expected statuses; 1 when not; 2 bad arguments; 3 plug-in not loadable;\n"
         "4 Setup refused; 5 a job could not be sent.\n";
}
