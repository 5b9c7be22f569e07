#include "QmToolCommandLine.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace {

// getopt_long codes of the options registered by a tool: 256 and above, out
// of the range of short option letters.
const int kFirstCode = 256;
const char kHelp[] = "help";
const char kVersion[] = "version";

}  // namespace

QmToolCommandLine::QmToolCommandLine(std::string program) : m_program(std::move(program)) {
  Add(kHelp, 'h', false, [this](const std::string&, std::string&) { return m_help = true; });
  Add(kVersion, 0, false, [this](const std::string& value, std::string& error) {
    if (m_versionGuard && !m_versionGuard(value, error)) return false;
    return m_version = true;
  });
}

void QmToolCommandLine::Flag(const std::string& name, char shortName, Handler handler) {
  Add(name, shortName, false, std::move(handler));
}

void QmToolCommandLine::Value(const std::string& name, char shortName, Handler handler) {
  Add(name, shortName, true, std::move(handler));
}

void QmToolCommandLine::GuardVersion(Handler guard) {
  m_versionGuard = std::move(guard);
}

void QmToolCommandLine::Add(const std::string& name, char shortName, bool takesValue,
                            Handler handler) {
  m_entries.push_back(Entry{name, shortName, takesValue, std::move(handler)});
}

bool QmToolCommandLine::Parse(const std::vector<std::string>& args, std::string& error) {
  error.clear();
  m_help = m_version = false;
  std::vector<option> longs;
  // '+': stop at the first argument that is no option, so a stray word is
  // reported where it stands; ':': report a missing value as ':'.
  std::string shorts = "+:";
  for (size_t i = 0; i < m_entries.size(); ++i) {
    const Entry& entry = m_entries[i];
    const int code = kFirstCode + static_cast<int>(i);
    longs.push_back(option{entry.name.c_str(), entry.takesValue ? required_argument : no_argument,
                           nullptr, code});
    if (entry.shortName != 0)
      shorts += std::string(1, entry.shortName) + (entry.takesValue ? ":" : "");
  }
  longs.push_back(option{nullptr, 0, nullptr, 0});

  std::vector<std::string> words{m_program};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  const int argc = static_cast<int>(words.size());

  optind = 0;  // a full restart of getopt's scan
  opterr = 0;
  auto byCode = [this](int code) -> const Entry* {
    if (code >= kFirstCode && code < kFirstCode + static_cast<int>(m_entries.size()))
      return &m_entries[static_cast<size_t>(code - kFirstCode)];
    for (const Entry& entry : m_entries) {
      if (code != 0 && entry.shortName == code) return &entry;
    }
    return nullptr;
  };
  int code;
  while ((code = getopt_long(argc, argv.data(), shorts.c_str(), longs.data(), nullptr)) != -1) {
    if (code == ':' || code == '?') {
      const Entry* entry = byCode(optopt);
      if (entry != nullptr) {
        error = "option '--" + entry->name + (code == ':' ? "' needs a value" : "' takes no value");
      } else {
        std::string word = optopt != 0 ? "-" + std::string(1, static_cast<char>(optopt))
                                       : std::string(argv[optind - 1]);
        error = "unknown option '" + word.substr(0, word.find('=')) + "'";
      }
      return false;
    }
    const Entry* entry = byCode(code);
    if (!entry->handler(entry->takesValue ? optarg : "", error)) return false;
    if (m_help || m_version) return true;
  }
  if (optind < argc) {
    error = "unexpected argument '" + std::string(argv[optind]) + "'";
    return false;
  }
  return true;
}

std::string QmToolCommandLine::VersionText(const std::string& program) {
  return program + " (qm-oap-gateway) " QM_PROJECT_VERSION
                   "\nLicensed under the Apache License, Version 2.0.\n";
}

int QmToolCommandLine::BadUsage(const std::string& program, const std::string& error) {
  std::cerr << program << ": " << error << "\nTry '" << program << " --help' for more information."
            << std::endl;
  return 2;
}

bool QmToolCommandLine::ParseInt(const std::string& text, long low, long high, int& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || number < low || number > high) return false;
  value = static_cast<int>(number);
  return true;
}
