#ifndef QM_RUNTIME_QMOBJECT_H
#define QM_RUNTIME_QMOBJECT_H

// Root of most runtime classes. Holds nothing; copying it copies nothing.
class Qmobject {
 public:
  Qmobject() = default;
  Qmobject(const Qmobject&) {}
  Qmobject& operator=(const Qmobject&) { return *this; }
  virtual ~Qmobject();
};

#endif
