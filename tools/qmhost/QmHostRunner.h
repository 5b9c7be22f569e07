#ifndef QM_TOOLS_QMHOST_QMHOSTRUNNER_H
#define QM_TOOLS_QMHOST_QMHOSTRUNNER_H

#include <deque>
#include <memory>
#include <ostream>
#include <set>
#include <vector>

#include "QmDriverLoader.h"
#include "QmHostOptions.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"

class QmsysEventLogInterface;
class QmToolStopSignals;

// One run of the reference host: loads the plug-in, wires a logger, a queue
// and a reports manager into the driver, sends the jobs, runs the two-way
// query cycle and prints every job handed back. A stop signal (taken
// through `stop`, which main creates before anything starts a thread) ends
// the sends and the cycle early; the driver is cleaned up and the summary
// printed either way. Owns the job records; the logger belongs to the
// event-log registry and is released at the end.
class QmHostRunner {
 public:
  enum ExitCode {
    EXIT_COMPLETE = 0,
    EXIT_INCOMPLETE = 1,
    EXIT_BAD_ARGUMENTS = 2,
    EXIT_NO_PLUGIN = 3,
    EXIT_SETUP_REFUSED = 4,
    EXIT_SEND_FAILED = 5
  };

  QmHostRunner(const QmHostOptions& options, QmToolStopSignals& stop, std::ostream& out,
               std::ostream& err);
  ~QmHostRunner();
  QmHostRunner(const QmHostRunner&) = delete;
  QmHostRunner& operator=(const QmHostRunner&) = delete;

  int Run();

 private:
  struct Tracked {
    const QmHostOptions::Job* request;
    std::unique_ptr<QmReferenceJob> job;
    std::set<int> seen;
    bool sent = false;
    // Hand-backs recorded by the job and not yet printed.
    std::deque<QmReferenceJob::StatusChange> pending;
  };

  void StartLogger();
  bool SetupDriver();
  bool SendJobs();
  void RunQueryCycle();
  // True once a stop signal came; waits up to `milliseconds` for one.
  bool Stopped(int milliseconds);
  void DrainQueue();
  void PrintHandBack(Tracked& tracked);
  bool Complete(const Tracked& tracked) const;
  size_t CompleteCount() const;
  void Shutdown();

  const QmHostOptions& m_options;
  QmToolStopSignals& m_stop;
  int m_stopSignal = 0;
  std::ostream& m_out;
  std::ostream& m_err;
  QmDriverLoader m_loader;
  QmProtocolDriverInterface* m_driver = nullptr;
  QmsysEventLogInterface* m_logger = nullptr;
  QmMessageQueue m_queue;
  QmReferenceReportsManager m_reports;
  std::vector<Tracked> m_jobs;
};

#endif
