#ifndef QM_RUNTIME_QMCONDELEGATE_H
#define QM_RUNTIME_QMCONDELEGATE_H

#include "Qmobject.h"

// A unit of work run by a QmconThread or a QmconThreadPool.
class QmconDelegate : public Qmobject {
 public:
  ~QmconDelegate() override;
  virtual void DoWork(void* userData) = 0;
  virtual void StopWork() {}
  virtual void PauseWork() {}
  virtual void ResumeWork() {}

  // Stores the pointer; true when no user data was set before.
  bool SetUserData(void* data);
  void* GetUserData() const { return m_userData; }

 private:
  void* m_userData = nullptr;
};

#endif
