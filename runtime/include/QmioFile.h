#ifndef QM_RUNTIME_QMIOFILE_H
#define QM_RUNTIME_QMIOFILE_H

#include <cstdio>
#include <string>

#include "Qmobject.h"

// A file opened through stdio with advisory whole-file locks (flock).
// Failures throw QmioException with the file's path.
class QmioFile : public Qmobject {
 public:
  explicit QmioFile(const std::string& path);
  ~QmioFile() override;  // unlocks and closes
  QmioFile(const QmioFile&) = delete;
  QmioFile& operator=(const QmioFile&) = delete;

  void Open(const std::string& mode);  // fopen mode: "r", "r+", "w", "w+", "a", "a+"
  void Truncate(long length);
  void Write(const std::string& text);
  void Flush();
  void Close();
  // mode "r" shared, "w" exclusive; with wait false a held lock fails at once.
  void Lock(const std::string& mode, bool wait);
  void Unlock();

  bool IsOpen() const { return m_stream != nullptr; }
  bool IsLocked() const { return m_locked; }
  FILE* GetStream() const { return m_stream; }
  const std::string& GetPath() const { return m_path; }

  static bool Exists(const std::string& path);

 private:
  std::string m_path;
  FILE* m_stream = nullptr;
  bool m_locked = false;
};

#endif
