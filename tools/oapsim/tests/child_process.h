#ifndef QM_TOOLS_OAPSIM_TESTS_CHILD_PROCESS_H
#define QM_TOOLS_OAPSIM_TESTS_CHILD_PROCESS_H

// A program run as a child process for the tools' tests: standard input,
// output and error on pipes, every wait bounded, killed when dropped.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

class ChildProcess {
 public:
  static constexpr int kWaitMs = 20000;

  ChildProcess(const std::string& path, std::vector<std::string> args) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    args.insert(args.begin(), path);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    if (posix_spawn(&m_pid, path.c_str(), &actions, nullptr, argv.data(), environ) != 0) m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    for (int fd : {in[0], out[1], err[1]}) close(fd);
    m_fds = {in[1], out[0], err[0]};
  }

  ~ChildProcess() {
    if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    for (int fd : m_fds) close(fd);
  }

  // The next whole output line containing `text` (any line for ""), lines
  // before it passed over; empty when none came in time.
  std::string WaitFor(const std::string& text) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    for (size_t end;;) {
      while ((end = out.find('\n', m_lineStart)) == std::string::npos) {
        if (!ReadSome(deadline)) return "";
      }
      const std::string line = out.substr(m_lineStart, end - m_lineStart);
      m_lineStart = end + 1;
      if (line.find(text) != std::string::npos) return line;
    }
  }

  // Reads both streams to their end and returns the exit status (128 plus
  // the signal when killed); -1 when the program did not end in time.
  int Finish() {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    while (m_fds[1] >= 0 || m_fds[2] >= 0) {
      if (!ReadSome(deadline)) return -1;
    }
    int status = 0;
    if (m_pid <= 0 || waitpid(m_pid, &status, 0) != m_pid) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  bool Send(const std::string& text) {
    return write(m_fds[0], text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  void Signal(int number) { kill(m_pid, number); }

  std::string out, err;  // everything read from the output and error streams

 private:
  using Clock = std::chrono::steady_clock;

  // Waits for either stream and appends what it has; false when both have
  // ended or the time is up.
  bool ReadSome(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd fds[2] = {{m_fds[1], POLLIN, 0}, {m_fds[2], POLLIN, 0}};
    if ((m_fds[1] < 0 && m_fds[2] < 0) || left <= 0 || poll(fds, 2, static_cast<int>(left)) <= 0) {
      return false;
    }
    for (int i : {1, 2}) {
      char chunk[4096];
      const ssize_t n = fds[i - 1].revents ? read(m_fds[i], chunk, sizeof chunk) : -2;
      if (n > 0) (i == 1 ? out : err).append(chunk, static_cast<size_t>(n));
      if (n == 0 || n == -1) close(std::exchange(m_fds[i], -1));
    }
    return true;
  }

  pid_t m_pid = -1;
  std::array<int, 3> m_fds{{-1, -1, -1}};  // input, output, error
  size_t m_lineStart = 0;
};

#endif
