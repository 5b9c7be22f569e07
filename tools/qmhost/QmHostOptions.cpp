#include "QmHostOptions.h"

#include <climits>
#include <functional>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "QmToolCommandLine.h"

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
  return QmToolCommandLine::ParseInt(text, minimum, INT_MAX, *out);
}

bool ParseServer(QmHostOptions::Job& job, const std::string& text, std::string& error) {
  size_t colon = text.rfind(':');
  int port = 0;
  if (colon == std::string::npos || colon == 0 || !ParseInt(text.substr(colon + 1), 1, &port) ||
      port > 65535) {
    error = "invalid --server '" + text + "' (expected HOST:PORT)";
    return false;
  }
  job.serverHost = text.substr(0, colon);
  job.serverPort = port;
  return true;
}

// "TEXT[:KIND[:CALLNO]]"; a ':' inside the text is written as "%3a".
bool ParseChoice(QmHostOptions::Job& job, const std::string& text, std::string& error) {
  QmResponseChoice choice;
  size_t first = text.find(':');
  choice.Text = text.substr(0, first);
  if (first != std::string::npos) {
    size_t second = text.find(':', first + 1);
    std::string kind =
        text.substr(first + 1, second == std::string::npos ? second : second - first - 1);
    int value = 0;
    if (!ParseInt(kind, 0, &value)) {
      error = "invalid choice kind in --choice '" + text + "'";
      return false;
    }
    choice.Kind = static_cast<uint32_t>(value);
    if (second != std::string::npos) choice.Value = text.substr(second + 1);
  }
  if (choice.Text.empty()) {
    error = "empty choice text in --choice '" + text + "'";
    return false;
  }
  job.choices.push_back(choice);
  return true;
}

bool ParseExpected(QmHostOptions::Job& job, const std::string& text, std::string& error) {
  std::stringstream list(text);
  std::string item;
  while (std::getline(list, item, ',')) {
    int status = 0;
    if (!QmHostOptions::ParseStatus(item, &status)) {
      error = "unknown status '" + item + "' in --expect";
      return false;
    }
    job.expected.insert(status);
  }
  return true;
}

using JobSetter =
    std::function<bool(QmHostOptions::Job& job, const std::string& value, std::string& error)>;

// The handler of a job option: it applies to the job opened last by --job.
QmToolCommandLine::Handler ForJob(QmHostOptions* out, const std::string& name, JobSetter set) {
  return [out, name, set](const std::string& value, std::string& error) {
    if (out->jobs.empty()) {
      error = "option '--" + name + "' before the first --job";
      return false;
    }
    return set(out->jobs.back(), value, error);
  };
}

QmToolCommandLine::Handler Text(std::string* field) {
  return [field](const std::string& value, std::string&) {
    *field = value;
    return true;
  };
}

QmToolCommandLine::Handler Number(const std::string& name, long minimum, int* field) {
  return [name, minimum, field](const std::string& value, std::string& error) {
    if (ParseInt(value, minimum, field)) return true;
    error = "invalid number for --" + name + ": '" + value + "'";
    return false;
  };
}

void AddJobOptions(QmToolCommandLine& line, QmHostOptions* out) {
  using Job = QmHostOptions::Job;
  for (const auto& [name, field] : std::vector<std::pair<std::string, std::string Job::*>>{
           {"handset", &Job::handset},
           {"oap-version", &Job::oapVersion},
           {"subject", &Job::subject},
           {"text", &Job::text},
           {"custom-label", &Job::customLabel},
           {"caller-pattern", &Job::callerPattern},
           {"caller-default", &Job::callerDefault},
           {"caller-fixed", &Job::callerFixed}}) {
    line.Value(name, 0,
               ForJob(out, name, [field = field](Job& job, const std::string& v, std::string& e) {
                 return Text(&(job.*field))(v, e);
               }));
  }
  // Each presentation setting marks the job's settings present.
  for (const auto& [name, field] : std::vector<std::pair<std::string, std::string Job::*>>{
           {"colour", &Job::colour}, {"intensity", &Job::intensity}}) {
    line.Value(name, 0,
               ForJob(out, name, [field = field](Job& job, const std::string& v, std::string& e) {
                 job.settingsPresent = true;
                 return Text(&(job.*field))(v, e);
               }));
  }
  for (const auto& [name, field] : std::vector<std::pair<std::string, int32_t Job::*>>{
           {"ttl-minutes", &Job::ttlMinutes},
           {"priority", &Job::priority},
           {"repeat", &Job::repeat},
           {"repeat-interval", &Job::repeatInterval}}) {
    line.Value(name, 0,
               ForJob(out, name,
                      [name = name, field = field](Job& job, const std::string& v, std::string& e) {
                        job.settingsPresent = true;
                        return Number(name, 0, &(job.*field))(v, e);
                      }));
  }
  for (const auto& [name, field] : std::vector<std::pair<std::string, bool Job::*>>{
           {"urgent", &Job::urgent}, {"sticky", &Job::sticky}}) {
    line.Flag(name, 0,
              ForJob(out, name, [field = field](Job& job, const std::string&, std::string&) {
                return job.settingsPresent = job.*field = true;
              }));
  }
  line.Flag("interactive", 0,
            ForJob(out, "interactive", [](Job& job, const std::string&, std::string&) {
              return job.interactive = true;
            }));
  line.Value("server", 0, ForJob(out, "server", ParseServer));
  line.Value("choice", 0, ForJob(out, "choice", ParseChoice));
  line.Value("expect", 0, ForJob(out, "expect", ParseExpected));
  // --version once named a job's protocol version; inside a job it is refused.
  line.GuardVersion([out](const std::string&, std::string& error) {
    if (out->jobs.empty()) return true;
    error =
        "--version inside a job: the job's protocol version is --oap-version (for example "
        "--oap-version 4.0)";
    return false;
  });
}

void AddGlobalOptions(QmToolCommandLine& line, QmHostOptions* out) {
  line.Value("plugin", 0, Text(&out->plugin));
  line.Value("workdir", 0, Text(&out->workdir));
  line.Value("state", 0, Text(&out->statePath));
  line.Value("listen-port", 0, Text(&out->listenPort));
  line.Value("listen-address", 0, Text(&out->listenAddress));
  line.Value("poll-ms", 0, Number("poll-ms", 1, &out->pollMs));
  line.Value("duration-ms", 0, Number("duration-ms", 0, &out->durationMs));
  line.Flag("until-expected", 0,
            [out](const std::string&, std::string&) { return out->untilExpected = true; });
  line.Value("job", 0, [out](const std::string& value, std::string&) {
    out->jobs.emplace_back();
    out->jobs.back().id = value;
    return true;
  });
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
  QmToolCommandLine line("qmhost");
  AddGlobalOptions(line, out);
  AddJobOptions(line, out);
  if (!line.Parse(args, *error)) return false;
  out->help = line.HelpAsked();
  out->version = line.VersionAsked();
  return out->help || out->version || CheckOptions(*out, error);
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
  return "Usage: qmhost --plugin PATH --workdir DIR --listen-port N [OPTION]... JOB...\n"
         "\n"
         "Loads an OAP driver plug-in, sends the jobs and runs the two-way query cycle,\n"
         "printing every job the driver hands back.\n"
         "\n"
         "Options:\n"
         "  --plugin PATH          driver library to load\n"
         "  --workdir DIR          work directory; logging is configured in DIR/config\n"
         "  --listen-port N        port of the driver's inbound listener\n"
         "  --listen-address A     address the listener binds to (default 127.0.0.1)\n"
         "  --state FILE           the driver's message store, kept over restarts\n"
         "                         (default DIR/qmhost-state.db; 'memory' keeps none)\n"
         "  --poll-ms N            time between two query rounds (default 200)\n"
         "  --duration-ms N        how long the query cycle runs (default 10000)\n"
         "  --until-expected       end the cycle once every job saw its expected statuses\n"
         "  -h, --help             show this text and exit\n"
         "      --version          show the version and exit\n"
         "\n"
         "Job options (JOB is --job ID followed by these; they apply to that job):\n"
         "  --handset H            the handset (required)\n"
         "  --server HOST:PORT     the OAP server (required)\n"
         "  --oap-version V        protocol version, 3.0 (default) or 4.0\n"
         "  --subject S, --text T  subject and message text\n"
         "  --choice TEXT[:KIND[:CALLNO]]\n"
         "                         an answer choice (repeatable; ':' in TEXT as %3a)\n"
         "  --custom-label L       label of the free-text answer\n"
         "  --interactive          send as an interactive message expecting answers\n"
         "  --ttl-minutes N        time to live in minutes\n"
         "  --priority N           priority (default 6)\n"
         "  --urgent, --sticky     shown as urgent, kept on the display\n"
         "  --colour C, --intensity I\n"
         "                         colour and intensity of the display\n"
         "  --repeat N, --repeat-interval N\n"
         "                         alert repetitions and the interval between them\n"
         "                         (any of these options sends the presentation settings)\n"
         "  --caller-pattern P, --caller-default D, --caller-fixed F\n"
         "                         caller number\n"
         "  --expect STATUS[,STATUS...]\n"
         "                         statuses the job must reach (name or number)\n"
         "\n"
         "Statuses: SENDING(2) SENT(3) REPLIED(4) REPLIED_WITH(5) DELIVERED(6)\n"
         "REPLIED_SPECIAL_A(15) REPLIED_SPECIAL_B(16).\n"
         "\n"
         "Output: one line per sent job and per job handed back, then\n"
         "'summary: <k>/<n> jobs complete'. A job is complete when it was sent and saw\n"
         "all its expected statuses. Tracking receipts are shown in hexadecimal (0x1a0000),\n"
         "as oapsim shows message ids. SIGINT or SIGTERM ends the run early: qmhost calls\n"
         "the driver's Cleanup, prints the summary and exits with the status below.\n"
         "\n"
         "Exit status: 0 when every job is complete; 1 when not; 2 bad arguments;\n"
         "3 plug-in not loadable; 4 Setup refused; 5 a job could not be sent.\n";
}
